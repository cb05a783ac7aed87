#include <gtest/gtest.h>

#include <type_traits>
#include <utility>
#include <vector>

#include "qzsse/base/RbMap.h"

namespace {

using IdMap = RbMap<CString, int>;
using Keys = std::vector<CString>;

template <class Map>
auto KeysOf(const Map& map)
{
    std::vector<std::remove_cvref_t<decltype(map.begin()->first)>> keys;
    for (const auto& entry : map)
        keys.push_back(entry.first);
    return keys;
}

} // namespace

// Ids hash as h = h * 33 + unit over UTF-16 units, into 17 buckets: "A" 65 -> 14,
// "B" 66 -> 15, "C" 67 -> 16, "D" 68 -> 0, "R" 82 -> 14, "AB" 65*33 + 66 = 2211 -> 1,
// "ab" 97*33 + 98 = 3299 -> 1, "aB" 97*33 + 66 = 3267 -> 3.
TEST(RbMap, IteratesBucketByBucketEachChainNewestFirst)
{
    const std::pair<Keys, Keys> insertedAndOrder[] = {
        {{"A", "B", "C", "D", "AB"}, {"D", "AB", "A", "B", "C"}},
        {{"A", "AB", "R", "ab"}, {"ab", "AB", "R", "A"}},
        // U+00E9 is the unit 233 -> 12 (its UTF-8 bytes C3 A9 would give 6604 -> 8);
        // U+1F600 is D83D DE00, 55357*33 + 56832 = 1883613 -> 13.
        {{"\xF0\x9F\x98\x80", "\xC3\xA9", "D", "A"}, {"D", "\xC3\xA9", "\xF0\x9F\x98\x80", "A"}},
        // "zzzzzzz" is 122 * (33^7 - 1) / 32 = 162482813846, in 32 bits 3569023894 -> 0;
        // unwrapped it would land in 3, behind "AB".
        {{"AB", "zzzzzzz"}, {"zzzzzzz", "AB"}},
    };
    for (const auto& [inserted, order] : insertedAndOrder) {
        IdMap map;
        for (const CString& key : inserted)
            map.SetAt(key, 0);
        EXPECT_EQ(KeysOf(map), order);
    }
    // Integers hash to themselves: 3 and 20 share bucket 3.
    RbMap<int, CString> byNumber;
    for (int key : {3, 20, 0})
        byNumber.SetAt(key, "");
    EXPECT_EQ(KeysOf(byNumber), (std::vector<int>{0, 20, 3}));
}

TEST(RbMap, LooksUpCaseSensitivelyAndOverwritesInPlace)
{
    IdMap map;
    map.SetAt("A", 1);
    map.SetAt("AB", 2);
    map.SetAt("R", 3);
    map.SetAt("ab", 4);  // ahead of "AB" in the same chain, so the key comparison decides
    map.SetAt("AB", 20);
    map["A"] = 10;
    int value = -1;
    EXPECT_TRUE(map.Lookup("AB", value));
    EXPECT_EQ(value, 20);
    EXPECT_FALSE(map.Lookup("aB", value));
    EXPECT_EQ(value, 20);
    EXPECT_EQ(map.PLookup("r"), nullptr);
    ASSERT_NE(map.PLookup("R"), nullptr);
    EXPECT_EQ(*map.PLookup("R"), 3);

    std::vector<std::pair<CString, int>> entries;
    CString key;
    IdMap::POSITION pos = map.GetStartPosition();
    while (pos != nullptr) {
        map.GetNextAssoc(pos, key, value);
        entries.emplace_back(key, value);
    }
    EXPECT_EQ(entries, (std::vector<std::pair<CString, int>>{{"ab", 4}, {"AB", 20}, {"R", 3}, {"A", 10}}));
}

TEST(RbMap, RemovesFromAnyPlaceInAChain)
{
    IdMap map;
    map.SetAt("A", 1);  // bucket 14, tail
    map.SetAt("R", 2);  // bucket 14, head
    map.SetAt("B", 3);
    EXPECT_TRUE(map.RemoveKey("A"));
    EXPECT_FALSE(map.RemoveKey("A"));
    EXPECT_EQ(KeysOf(map), (Keys{"R", "B"}));
    map.SetAt("A", 4);  // back, now at the head
    EXPECT_EQ(KeysOf(map), (Keys{"A", "R", "B"}));
    EXPECT_TRUE(map.RemoveKey("A"));
    EXPECT_EQ(KeysOf(map), (Keys{"R", "B"}));
    map.RemoveAll();
    EXPECT_TRUE(map.IsEmpty());
    EXPECT_EQ(map.GetStartPosition(), nullptr);
}

TEST(RbMap, CopiesKeepBucketCountAndOrder)
{
    // With 5 buckets: "A" 65, "F" 70, "K" 75 and "P" 80 -> 0, "B" 66 -> 1.
    IdMap map(5);
    for (const char* key : {"B", "A", "F", "K"})
        map.SetAt(key, 1);
    const Keys order{"K", "F", "A", "B"};
    ASSERT_EQ(KeysOf(map), order);

    IdMap copy(map);
    IdMap assigned;
    assigned.SetAt("zzz", 0);
    assigned = map;
    for (const IdMap* c : {&copy, &assigned}) {
        EXPECT_EQ(c->GetHashTableSize(), 5u);
        EXPECT_EQ(KeysOf(*c), order);
    }
    // Copies are independent; a key new to the copy still goes to the head.
    copy.SetAt("P", 5);
    copy["A"] = 99;
    EXPECT_EQ(*map.PLookup("A"), 1);
    IdMap moved(std::move(copy));
    EXPECT_EQ(moved.GetHashTableSize(), 5u);
    EXPECT_EQ(KeysOf(moved), (Keys{"P", "K", "F", "A", "B"}));
}
