#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "qzsse/base/RbMap.h"

namespace {

using IdMap = RbMap<CString, int>;

std::vector<CString> KeysInOrder(const IdMap& map)
{
    std::vector<CString> keys;
    for (const auto& [key, value] : map)
        keys.push_back(key);
    return keys;
}

std::vector<std::pair<CString, int>> EntriesByPosition(const IdMap& map)
{
    std::vector<std::pair<CString, int>> entries;
    IdMap::POSITION pos = map.GetStartPosition();
    while (pos != nullptr) {
        CString key;
        int value = 0;
        map.GetNextAssoc(pos, key, value);
        entries.emplace_back(key, value);
    }
    return entries;
}

} // namespace

// Buckets of single-letter ids, h = code % 17: "A" 65 -> 14, "B" 66 -> 15, "C" 67 -> 16,
// "D" 68 -> 0, "R" 82 -> 14. Two letters: "AB" = 65*33 + 66 = 2211 = 17*130 + 1 -> 1.
TEST(RbMap, IteratesBucketByBucket)
{
    IdMap map;
    EXPECT_EQ(map.GetHashTableSize(), 17u);
    map.SetAt("A", 1);
    map.SetAt("B", 2);
    map.SetAt("C", 3);
    map.SetAt("D", 4);
    map.SetAt("AB", 5);
    EXPECT_EQ(KeysInOrder(map), (std::vector<CString>{"D", "AB", "A", "B", "C"}));
    EXPECT_EQ(map.GetCount(), 5);
}

// "A" and "R" share bucket 14; "AB" (2211) and "ab" (97*33 + 98 = 3299 = 17*194 + 1) share
// bucket 1. The later key of a bucket comes first.
TEST(RbMap, NewKeyGoesToTheHeadOfItsBucket)
{
    IdMap map;
    map.SetAt("A", 1);
    map.SetAt("AB", 2);
    map.SetAt("R", 3);
    map.SetAt("ab", 4);
    EXPECT_EQ(KeysInOrder(map), (std::vector<CString>{"ab", "AB", "R", "A"}));
    // Overwriting keeps the place in the chain.
    map.SetAt("AB", 20);
    map["A"] = 10;
    EXPECT_EQ(EntriesByPosition(map),
              (std::vector<std::pair<CString, int>>{{"ab", 4}, {"AB", 20}, {"R", 3}, {"A", 10}}));
}

// The hash runs over UTF-16 units: U+00E9 is one unit 233 = 17*13 + 12 -> bucket 12 (its
// UTF-8 bytes C3 A9 would give 195*33 + 169 = 6604 -> 8); U+1F600 is D83D DE00,
// 55357*33 + 56832 = 1883613 = 17*110800 + 13 -> bucket 13. "D" (68) sits in 0 as a marker.
TEST(RbMap, HashesUtf16CodeUnits)
{
    RbMap<CString, int> map;
    map.SetAt("\xF0\x9F\x98\x80", 1);
    map.SetAt("\xC3\xA9", 2);
    map.SetAt("D", 3);
    map.SetAt("A", 4);
    EXPECT_EQ(KeysInOrder(map), (std::vector<CString>{"D", "\xC3\xA9", "\xF0\x9F\x98\x80", "A"}));
}

// "zzzzzzz": h = 122 * (33^7 - 1) / 32 = 162482813846 unbounded; in 32 bits that is
// 162482813846 - 37 * 2^32 = 3569023894 = 17 * 209942582 -> bucket 0 (unbounded: bucket 3,
// behind "AB" in bucket 1).
TEST(RbMap, HashWrapsInUnsigned32Bits)
{
    IdMap map;
    map.SetAt("AB", 1);
    map.SetAt("zzzzzzz", 2);
    EXPECT_EQ(KeysInOrder(map), (std::vector<CString>{"zzzzzzz", "AB"}));
}

TEST(RbMap, LooksUpCaseSensitively)
{
    IdMap map;
    map.SetAt("Height", 7);
    int value = -1;
    EXPECT_TRUE(map.Lookup("Height", value));
    EXPECT_EQ(value, 7);
    value = -1;
    EXPECT_FALSE(map.Lookup("height", value));
    EXPECT_EQ(value, -1);
    EXPECT_EQ(map.PLookup("height"), nullptr);
    ASSERT_NE(map.PLookup("Height"), nullptr);
    EXPECT_EQ(*map.PLookup("Height"), 7);
}

TEST(RbMap, RemovesFromAnyPlaceInAChain)
{
    IdMap map;
    map.SetAt("A", 1);  // bucket 14, tail
    map.SetAt("R", 2);  // bucket 14, head
    map.SetAt("B", 3);
    EXPECT_TRUE(map.RemoveKey("A"));
    EXPECT_FALSE(map.RemoveKey("A"));
    EXPECT_EQ(KeysInOrder(map), (std::vector<CString>{"R", "B"}));
    map.SetAt("A", 4);  // back, now at the head
    EXPECT_EQ(KeysInOrder(map), (std::vector<CString>{"A", "R", "B"}));
    EXPECT_TRUE(map.RemoveKey("A"));
    EXPECT_EQ(KeysInOrder(map), (std::vector<CString>{"R", "B"}));
    map.RemoveAll();
    EXPECT_TRUE(map.IsEmpty());
    EXPECT_EQ(map.GetStartPosition(), nullptr);
    EXPECT_EQ(map.GetHashTableSize(), 17u);
}

TEST(RbMap, CopiesKeepBucketCountAndOrder)
{
    // With 5 buckets: "A" 65 -> 0, "F" 70 -> 0, "K" 75 -> 0, "B" 66 -> 1.
    IdMap map(5);
    map.SetAt("B", 1);
    map.SetAt("A", 2);
    map.SetAt("F", 3);
    map.SetAt("K", 4);
    const std::vector<CString> order{"K", "F", "A", "B"};
    ASSERT_EQ(KeysInOrder(map), order);

    IdMap copy(map);
    EXPECT_EQ(copy.GetHashTableSize(), 5u);
    EXPECT_EQ(KeysInOrder(copy), order);

    IdMap assigned;
    assigned.SetAt("zzz", 0);
    assigned = map;
    EXPECT_EQ(assigned.GetHashTableSize(), 5u);
    EXPECT_EQ(KeysInOrder(assigned), order);

    // Copies are independent; a key new to the copy still goes to the head.
    copy.SetAt("P", 5);  // 80 -> 0
    copy["A"] = 99;
    EXPECT_EQ(KeysInOrder(copy), (std::vector<CString>{"P", "K", "F", "A", "B"}));
    int value = 0;
    EXPECT_TRUE(map.Lookup("A", value));
    EXPECT_EQ(value, 2);
    EXPECT_EQ(map.GetCount(), 4);

    IdMap moved(std::move(copy));
    EXPECT_EQ(moved.GetHashTableSize(), 5u);
    EXPECT_EQ(moved.GetCount(), 5);
    EXPECT_EQ(KeysInOrder(moved), (std::vector<CString>{"P", "K", "F", "A", "B"}));
}

TEST(RbMap, AcceptsIntegerKeys)
{
    // Integers hash to themselves: 20 -> 3, 3 -> 3, 0 -> 0 with 17 buckets.
    RbMap<int, CString> map;
    map.SetAt(3, "three");
    map.SetAt(20, "twenty");
    map.SetAt(0, "zero");
    std::vector<int> keys;
    for (const auto& [key, value] : map)
        keys.push_back(key);
    EXPECT_EQ(keys, (std::vector<int>{0, 20, 3}));
}
