#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "storage/StorageTestUtil.h"

using namespace qzsse::storagetest;

namespace {

std::vector<std::string> Ids(const QzCSSEMatrixLibrary& library)
{
    std::vector<std::string> ids;
    for (const CString& id : library.GetIDs())
        ids.push_back(id);
    return ids;
}

const Bytes kHeader = ByteWriter().str("SSEMatrixLibrary").u32(2).get();

// The position map of a store file, read independently of the library.
struct Record {
    std::string id;
    size_t position;
    std::string reference;
};

std::vector<Record> StoredMap(const Bytes& file, size_t* mapEnd = nullptr)
{
    EXPECT_EQ(Bytes(file.begin(), file.begin() + 24), kHeader);
    size_t at = 28;
    const auto text = [&] {
        const size_t n = U32At(file, at);
        at += 4 + n;
        return std::string(file.begin() + static_cast<std::ptrdiff_t>(at - n), file.begin() + static_cast<std::ptrdiff_t>(at));
    };
    std::vector<Record> records(U32At(file, 24));
    for (Record& r : records) {
        r.id = text();
        r.position = U32At(file, at) | static_cast<std::uint64_t>(U32At(file, at + 4)) << 32;
        at += 8;
        r.reference = text();
    }
    if (mapEnd)
        *mapEnd = at;
    return records;
}

// Pixels of mixed fractions, so that an 8-bit quantiser visibly changes them.
CSSEMatrix Ramp(int width, int height, float offset = 0.0f)
{
    return MatrixOf(width, height, [offset](int x, int y) { return offset + 0.37f * x + 1.3f * y + 0.011f * x * y; });
}

CSSEMatrix LoadFrom(QzCSSEMatrixLibrary& library, const std::string& id)
{
    CSSEMatrix m;
    EXPECT_TRUE(library.LoadSSEMatrix(id, m)) << id;
    return m;
}

} // namespace

TEST(Library, InitReadsAnEmptyStoreRefusesOtherFilesAndThrowsOnNewerVersionsAndPositionsOutside)
{
    ScratchDir dir;
    QzCSSEMatrixLibrary library;
    ASSERT_TRUE(library.Store(dir.File("empty.lib")));
    EXPECT_EQ(ReadFileBytes(dir.File("empty.lib")), Concat(kHeader, {0, 0, 0, 0}));
    ASSERT_TRUE(library.AddSSEMatrix("a", WriteMatrixFile(dir, "a.mat", Ramp(3, 2))));
    WriteFileBytes(dir.File("other.lib"), ByteWriter().str("SSEMatrixLibrarx").u32(2).u32(0).get());
    WriteFileBytes(dir.File("short.lib"), ByteWriter().u32(16).str("SSE").get());
    for (const char* name : {"missing.lib", "other.lib", "short.lib"})
        EXPECT_FALSE(library.Init(dir.File(name))) << name;
    EXPECT_EQ(Ids(library), std::vector<std::string>{"a"});
    ASSERT_TRUE(library.Init(dir.File("empty.lib")));
    EXPECT_EQ(library.GetNumberOfEntries(), 0u);
    // 45 bytes: 24 of magic and version, 4 of count, 5 of id, 8 of position, 4 of reference.
    for (const auto& [version, position] : {std::pair{3u, 0}, std::pair{2u, 45}, std::pair{2u, -1}, std::pair{2u, 44}}) {
        WriteFileBytes(dir.File("bad.lib"), ByteWriter().str("SSEMatrixLibrary").u32(version).u32(1).str("a").i64(position).str("").get());
        if (position == 44) {   // the last byte is still inside
            EXPECT_TRUE(library.Init(dir.File("bad.lib")));
        } else {
            EXPECT_THROW(library.Init(dir.File("bad.lib")), RbStreamException) << version << " " << position;
        }
    }
}

TEST(Library, EntriesFollowTheBucketOrderOfTheMapNotTheInsertionOrder)
{
    // Buckets (h = h * 33 + c, modulo 17): "ab" 1, "a" and "r" 12, "b" 13, "A" 14, "1" and
    // "B" 15. A chain lists its newest key first.
    ScratchDir dir;
    QzCSSEMatrixLibrary library;
    const std::vector<std::string> inserted = {"a", "b", "A", "r", "1", "B", "ab"};
    for (size_t i = 0; i < inserted.size(); ++i)
        ASSERT_TRUE(library.AddSSEMatrix(inserted[i], WriteMatrixFile(dir, std::to_string(i), Ramp(2, 2, 100.0f * i))));
    const std::vector<std::string> mapOrder = {"ab", "r", "a", "b", "A", "B", "1"};
    EXPECT_EQ(Ids(library), mapOrder);

    // The file lists the entries, and places their data, in that order: each a raw 2 x 2
    // stream of 13 header bytes and 2 x 4 floats.
    ASSERT_TRUE(library.Store(dir.File("order.lib")));
    const Bytes file = ReadFileBytes(dir.File("order.lib"));
    size_t position = 0;
    const std::vector<Record> records = StoredMap(file, &position);
    ASSERT_EQ(records.size(), mapOrder.size());
    for (size_t i = 0; i < records.size(); ++i, position += 13 + 32)
        EXPECT_EQ(std::pair(records[i].id, records[i].position), std::pair(mapOrder[i], position));
    EXPECT_EQ(position, file.size());

    // Reading inserts in file order, so each chain comes back reversed.
    QzCSSEMatrixLibrary reader;
    ASSERT_TRUE(reader.Init(dir.File("order.lib")));
    EXPECT_EQ(Ids(reader), (std::vector<std::string>{"ab", "a", "r", "b", "A", "1", "B"}));
    EXPECT_EQ(Pixels(LoadFrom(reader, "A")), Pixels(Ramp(2, 2, 200.0f)));
}

TEST(Library, AddSSEMatrixRefusesDuplicatesMissingFilesAndUnknownReferencesWithoutChangingTheMap)
{
    ScratchDir dir;
    const std::string fileA = WriteMatrixFile(dir, "a.mat", Ramp(3, 2)), fileB = WriteMatrixFile(dir, "b.mat", Ramp(3, 2, 5));
    QzCSSEMatrixLibrary library;
    ASSERT_TRUE(library.AddSSEMatrix("a", fileA));
    EXPECT_FALSE(library.AddSSEMatrix("a", fileB));                            // duplicate, other path
    EXPECT_FALSE(library.AddSSEMatrix("b", dir.File("missing.mat")));
    EXPECT_FALSE(library.AddSSEMatrix("b", dir.Path().string()));                // a directory
    EXPECT_FALSE(library.AddSSEMatrix("b", fileB, "c", LibraryParameters()));    // unknown reference
    EXPECT_FALSE(library.AddSSEMatrix("b", fileB, "b", LibraryParameters()));    // itself
    EXPECT_FALSE(library.AddSSEMatrix("A", fileB, "a ", LibraryParameters()));   // ids are exact
    EXPECT_EQ(Ids(library), std::vector<std::string>{"a"});
    EXPECT_EQ(Pixels(LoadFrom(library, "a")), Pixels(Ramp(3, 2)));
    EXPECT_TRUE(library.AddSSEMatrix("b", fileB, "a", LibraryParameters()));
}

TEST(Library, AnEntryWithoutReferenceLoadsItsFileExactlyAndAsStoredWhatTheStoreHolds)
{
    ScratchDir dir;
    const CSSEMatrix source = Ramp(20, 9);
    TestLibrary library;
    ASSERT_TRUE(library.AddSSEMatrix("a", WriteMatrixFile(dir, "a.mat", source), PngEntry(0.05f)));
    EXPECT_EQ(Pixels(LoadFrom(library, "a")), Pixels(source));
    CSSEMatrix asStored;
    ASSERT_TRUE(library.loadSSEMatrix("a", asStored, true));
    EXPECT_GT(MaxAbsError(asStored, source), 0.0f);
    EXPECT_LE(MaxAbsError(asStored, source), 0.05f + 1e-5f);

    ASSERT_TRUE(library.Store(dir.File("a.lib")));
    QzCSSEMatrixLibrary reader;
    ASSERT_TRUE(reader.Init(dir.File("a.lib")));
    const CSSEMatrix stored = LoadFrom(reader, "a");
    EXPECT_EQ(Pixels(stored), Pixels(asStored));
    EXPECT_FLOAT_EQ(library.GetMaxAbsCompressionError(), MaxAbsError(stored, source));
    CSSEMatrix untouched = Ramp(2, 2);
    EXPECT_FALSE(library.LoadSSEMatrix("b", untouched));
    EXPECT_EQ(Pixels(untouched), Pixels(Ramp(2, 2)));
}

TEST(Library, AReferencedEntryIsCodedAgainstTheReferenceAsTheStoreHoldsIt)
{
    // Z holds exactly A's source values. Coded against A's source, Z's difference would be
    // zero and Z would come back as lossy as A; against A as stored, it comes back exactly.
    // Z comes first in map order, so reading it reads A further on in the file and back.
    ScratchDir dir;
    const CSSEMatrix source = Ramp(12, 7);
    TestLibrary library;
    ASSERT_TRUE(library.AddSSEMatrix("A", WriteMatrixFile(dir, "a.mat", source), PngEntry(0.25f)));
    ASSERT_TRUE(library.AddSSEMatrix("Z", WriteMatrixFile(dir, "z.mat", source), "A", LibraryParameters()));
    ASSERT_TRUE(library.Store(dir.File("az.lib")));
    QzCSSEMatrixLibrary reader;
    ASSERT_TRUE(reader.Init(dir.File("az.lib")));
    const CSSEMatrix z = LoadFrom(reader, "Z");
    EXPECT_GT(MaxAbsError(LoadFrom(reader, "A"), source), 0.1f);
    EXPECT_LE(MaxAbsError(z, source), 1e-5f);
    CSSEMatrix zAsStored;
    ASSERT_TRUE(library.loadSSEMatrix("Z", zAsStored, true));
    EXPECT_EQ(Pixels(zAsStored), Pixels(z));

    // The map names the reference, and Z's data starts with mode byte 0.
    const Bytes file = ReadFileBytes(dir.File("az.lib"));
    const std::vector<Record> records = StoredMap(file);
    ASSERT_EQ(records.size(), 2u);
    EXPECT_EQ(records[0].id + "->" + records[0].reference + ", " + records[1].id + "->" + records[1].reference, "Z->A, A->");
    EXPECT_EQ(file.at(records[0].position), 0);
}

TEST(Library, DefaultParametersApplyToPlainAddsAndToEntriesReadFromAStore)
{
    // The method byte of an entry follows version, width and height.
    const auto methodOfFirstEntry = [](const std::string& path) {
        const Bytes file = ReadFileBytes(path);
        return file.at(StoredMap(file).at(0).position + 12);
    };
    ScratchDir dir;
    QzCSSEMatrixLibrary library;
    library.SetDefaultCompressionParameters(PngEntry(0.5f, 3, 2));
    ASSERT_TRUE(library.AddSSEMatrix("a", WriteMatrixFile(dir, "a.mat", Ramp(9, 5))));
    ASSERT_TRUE(library.Store(dir.File("one.lib")));
    EXPECT_EQ(methodOfFirstEntry(dir.File("one.lib")), 2);

    // An entry read from a store has no parameters of its own: the reader's defaults apply.
    QzCSSEMatrixLibrary reader;
    LibraryParameters jpeg;
    jpeg.m_eMethod = 1;
    reader.SetDefaultCompressionParameters(jpeg);
    ASSERT_TRUE(reader.Init(dir.File("one.lib")));
    ASSERT_TRUE(reader.Store(dir.File("two.lib")));
    EXPECT_EQ(methodOfFirstEntry(dir.File("two.lib")), 1);
}

TEST(Library, OlderStoresHoldArchivedMatricesAndVersionZeroNoPositions)
{
    // Version 1: records of id and position, no reference; each entry an archived matrix,
    // tagged or in the untagged early form.
    const Bytes tagged = ByteWriter().archiveString("CSSEMatrix").u32(4).i32(2).i32(1).u8(0)
                             .f32(1.5f).f32(0).f32(0).f32(0).f32(-2).f32(0).f32(0).f32(0).get();
    const size_t data = 28 + (4 + 6 + 8) + (4 + 5 + 8);
    ScratchDir dir;
    WriteFileBytes(dir.File("v1.lib"), ByteWriter().str("SSEMatrixLibrary").u32(1).u32(2)
                                           .str("tagged").i64(data).str("plain").i64(data + tagged.size())
                                           .bytes(tagged).i32(1).i32(2).f32(7).f32(8).f32(0).f32(0).get());
    QzCSSEMatrixLibrary library;
    ASSERT_TRUE(library.Init(dir.File("v1.lib")));
    EXPECT_EQ(Pixels(LoadFrom(library, "plain")), (std::vector<float>{7, 8}));
    EXPECT_EQ(Pixels(LoadFrom(library, "tagged")), (std::vector<float>{1.5f, -2}));
    // Stored again, they become version-2 entries with the same values.
    ASSERT_TRUE(library.Store(dir.File("v2.lib")));
    QzCSSEMatrixLibrary again;
    ASSERT_TRUE(again.Init(dir.File("v2.lib")));
    EXPECT_EQ(Pixels(LoadFrom(again, "tagged")), (std::vector<float>{1.5f, -2}));

    // Without positions every entry reads at offset 0, where the magic is: an exception.
    WriteFileBytes(dir.File("v0.lib"), ByteWriter().str("SSEMatrixLibrary").u32(0).u32(2).str("x").str("yz").get());
    ASSERT_TRUE(library.Init(dir.File("v0.lib")));
    EXPECT_EQ(library.GetNumberOfEntries(), 2u);
    CSSEMatrix m;
    EXPECT_THROW(library.LoadSSEMatrix("yz", m), RbStreamException);
}

TEST(StoreFile, AFailedStoreKeepsTheOldFileAndLeavesNoTemporaryFile)
{
    ScratchDir dir;
    QzCSSEMatrixLibrary library;
    ASSERT_TRUE(library.AddSSEMatrix("a", WriteMatrixFile(dir, "a.mat", Ramp(5, 3))));
    ASSERT_TRUE(library.Store(dir.File("kept.lib")));
    const Bytes before = ReadFileBytes(dir.File("kept.lib"));
    ASSERT_TRUE(library.AddSSEMatrix("gone", WriteMatrixFile(dir, "gone.mat", Ramp(4, 4))));
    std::filesystem::remove(dir.File("gone.mat"));
    EXPECT_FALSE(library.Store(dir.File("kept.lib")));
    EXPECT_EQ(ReadFileBytes(dir.File("kept.lib")), before);
    EXPECT_EQ(dir.Entries(), (std::vector<std::string>{"a.mat", "kept.lib"}));
    EXPECT_FALSE(library.Store(dir.File("no/such/dir/x.lib")));
}

TEST(StoreFile, StoringOverTheFileALibraryReadsFromKeepsItReadable)
{
    ScratchDir dir;
    const std::string path = dir.File("shared.lib");
    const CSSEMatrix b = Ramp(10, 6, 0.5f), c = Ramp(4, 9, -3.0f);
    QzCSSEMatrixLibrary writer;
    ASSERT_TRUE(writer.AddSSEMatrix("A", WriteMatrixFile(dir, "a.mat", Ramp(10, 6)), PngEntry(0.1f)));
    ASSERT_TRUE(writer.AddSSEMatrix("B", WriteMatrixFile(dir, "b.mat", b), "A", PngEntry(0.1f, 1, 1)));
    ASSERT_TRUE(writer.Store(path));

    QzCSSEMatrixLibrary library;
    ASSERT_TRUE(library.Init(path));
    const CSSEMatrix a1 = LoadFrom(library, "A"), b1 = LoadFrom(library, "B");
    EXPECT_LE(MaxAbsError(b1, b), 0.1f);
    // The library adds an entry, stores over its own file and goes on reading the old one.
    ASSERT_TRUE(library.AddSSEMatrix("C", WriteMatrixFile(dir, "c.mat", c)));
    ASSERT_TRUE(library.Store(path));
    EXPECT_EQ(Pixels(LoadFrom(library, "A")), Pixels(a1));
    EXPECT_EQ(Pixels(LoadFrom(library, "B")), Pixels(b1));

    QzCSSEMatrixLibrary fresh;
    ASSERT_TRUE(fresh.Init(path));
    EXPECT_EQ(Ids(fresh), (std::vector<std::string>{"A", "B", "C"}));
    EXPECT_EQ(Pixels(LoadFrom(fresh, "A")), Pixels(a1));       // re-written raw from the decoded values
    EXPECT_LE(MaxAbsError(LoadFrom(fresh, "B"), b1), 1e-5f);   // raw difference against the same reference
    EXPECT_EQ(Pixels(LoadFrom(fresh, "C")), Pixels(c));
}

// C references B, and one flipped bit ("B" to "C") makes it reference itself: the nesting
// limit must end that chain.
TEST(StoreFile, DamagedStoresAreRefusedOrThrowStreamErrorsAtEveryByte)
{
    ScratchDir dir;
    QzCSSEMatrixLibrary writer;
    ASSERT_TRUE(writer.AddSSEMatrix("A", WriteMatrixFile(dir, "a.mat", Ramp(6, 5)), PngEntry(0.05f)));
    ASSERT_TRUE(writer.AddSSEMatrix("B", WriteMatrixFile(dir, "b.mat", Ramp(6, 5, 0.3f)), "A", PngEntry(0.05f, 1, 1)));
    ASSERT_TRUE(writer.AddSSEMatrix("C", WriteMatrixFile(dir, "c.mat", Ramp(6, 5, -0.2f)), "B", PngEntry(0.05f, 1, 2)));
    ASSERT_TRUE(writer.AddSSEMatrix("D", WriteMatrixFile(dir, "d.mat", Ramp(3, 2))));
    ASSERT_TRUE(writer.Store(dir.File("good.lib")));
    int attempts = 0;
    FeedDamaged(
        ReadFileBytes(dir.File("good.lib")),
        [&](const Bytes& bytes) {
            // A fresh file each time: truncating a used one is slow on some file systems.
            const std::string path = dir.File(std::to_string(attempts++) + ".lib");
            WriteFileBytes(path, bytes);
            QzCSSEMatrixLibrary library;
            if (library.Init(path))
                for (const CString& id : library.GetIDs()) {
                    CSSEMatrix m;
                    library.LoadSSEMatrix(id, m);
                }
        },
        true);
}
