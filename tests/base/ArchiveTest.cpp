#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "base/TempFile.h"
#include "qzsse/base/CArchive.h"
#include "qzsse/base/RyStreamReadBinaryFile.h"
#include "qzsse/base/RyStreamWriteBinaryFile.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes Stored(const std::function<void(CArchive&)>& write, int bufferSize = 4096)
{
    TempFile temp;
    CFile file;
    EXPECT_TRUE(file.Open(temp.Path(), CFile::modeCreate | CFile::modeWrite));
    CArchive ar(&file, CArchive::store, bufferSize);
    write(ar);
    ar.Close();
    file.Close();
    return temp.ReadBytes();
}

void Loaded(const Bytes& bytes, const std::function<void(CArchive&)>& read, int bufferSize = 4096)
{
    TempFile temp;
    temp.WriteBytes(bytes);
    CFile file;
    ASSERT_TRUE(file.Open(temp.Path(), CFile::modeRead));
    CArchive ar(&file, CArchive::load, bufferSize);
    read(ar);
}

CString LoadedString(const Bytes& bytes)
{
    CString text;
    Loaded(bytes, [&](CArchive& ar) { ar >> text; });
    return text;
}

Bytes Concat(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// The UTF-16LE units of an ASCII text, as the wide archive form holds them.
Bytes Utf16Le(const std::string& ascii)
{
    Bytes out;
    for (char c : ascii) {
        out.push_back(static_cast<unsigned char>(c));
        out.push_back(0);
    }
    return out;
}

} // namespace

TEST(ArchiveString, WritesTagInWideForm)
{
    const Bytes bytes = Stored([](CArchive& ar) { ar << CString("CSSEMatrix"); });
    const Bytes expected = Concat({0xFF, 0xFE, 0xFF, 0x0A}, Utf16Le("CSSEMatrix"));
    EXPECT_EQ(bytes, expected);
    EXPECT_EQ(expected.size(), 24u);
    EXPECT_EQ(LoadedString(bytes), "CSSEMatrix");
}

TEST(ArchiveString, LengthPrefixWidensAt255And65535Units)
{
    struct Case {
        size_t length;
        Bytes prefix;
    };
    const Case cases[] = {
        {0, {0xFF, 0xFE, 0xFF, 0x00}},
        {254, {0xFF, 0xFE, 0xFF, 0xFE}},
        {255, {0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0x00}},
        {65534, {0xFF, 0xFE, 0xFF, 0xFF, 0xFE, 0xFF}},
        {65535, {0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x00, 0x00}},
    };
    for (const Case& c : cases) {
        const CString text(c.length, 'x');
        const Bytes bytes = Stored([&](CArchive& ar) { ar << text; });
        ASSERT_EQ(bytes.size(), c.prefix.size() + 2 * c.length) << c.length;
        EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(c.prefix.size())), c.prefix)
            << c.length;
        if (c.length > 0) {
            EXPECT_EQ(bytes[c.prefix.size()], 'x');
            EXPECT_EQ(bytes[c.prefix.size() + 1], 0);
        }
        EXPECT_EQ(LoadedString(bytes), text) << c.length;
    }
}

TEST(ArchiveString, CountsUtf16UnitsNotBytes)
{
    // U+00E9 is one unit E9 00; U+1F600 is the surrogate pair D83D DE00.
    const Bytes bytes = Stored([](CArchive& ar) {
        ar << CString("\xC3\xA9");
        ar << CString("\xF0\x9F\x98\x80");
    });
    EXPECT_EQ(bytes, (Bytes{0xFF, 0xFE, 0xFF, 0x01, 0xE9, 0x00,
                            0xFF, 0xFE, 0xFF, 0x02, 0x3D, 0xD8, 0x00, 0xDE}));
    Loaded(bytes, [](CArchive& ar) {
        CString a, b;
        ar >> a >> b;
        EXPECT_EQ(a, "\xC3\xA9");
        EXPECT_EQ(b, "\xF0\x9F\x98\x80");
    });
}

TEST(ArchiveString, KeepsLoneSurrogatesThroughCString)
{
    const Bytes loneHigh{0xFF, 0xFE, 0xFF, 0x02, 0x00, 0xD8, 0x41, 0x00};
    const CString text = LoadedString(loneHigh);
    EXPECT_EQ(Stored([&](CArchive& ar) { ar << text; }), loneHigh);
}

TEST(ArchiveString, ReadsNarrowForm)
{
    EXPECT_EQ(LoadedString({0x03, 'a', 'b', 'c'}), "abc");
    EXPECT_EQ(LoadedString({0x00}), "");
    // Narrow bytes are Latin-1: E9 is U+00E9, C3 A9 in UTF-8.
    EXPECT_EQ(LoadedString({0x02, 'x', 0xE9}), "x\xC3\xA9");

    // 300 = 0x012C in the two-byte form.
    EXPECT_EQ(LoadedString(Concat({0xFF, 0x2C, 0x01}, Bytes(300, 'q'))), CString(300, 'q'));
    // The four- and eight-byte forms, even where a shorter one would have done.
    EXPECT_EQ(LoadedString({0xFF, 0xFF, 0xFF, 0x05, 0x00, 0x00, 0x00, 'h', 'e', 'l', 'l', 'o'}), "hello");
    EXPECT_EQ(LoadedString({0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 'h', 'i'}), "hi");
}

TEST(ArchiveString, CorruptLengthThrowsStreamException)
{
    const Bytes corrupt[] = {
        {0x05, 'a', 'b'},                                        // narrow, 5 claimed, 2 present
        {0xFF, 0xFE, 0xFF, 0x02, 'a', 0x00, 'b'},                // wide, 4 bytes claimed, 3 present
        {0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F},  // wide, 0x7FFFFFFF units
        {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0x40},  // 2^62 bytes
        {0xFF, 0xFE},                                            // prefix cut short
    };
    for (const Bytes& bytes : corrupt) {
        Loaded(bytes, [](CArchive& ar) {
            CString text;
            EXPECT_THROW(ar >> text, CArchiveException);
        });
    }
    Loaded(corrupt[2], [](CArchive& ar) {
        CString text;
        try {
            ar >> text;
        } catch (const RbStreamException& e) {
            EXPECT_NE(std::string(e.what()).find("offset 0"), std::string::npos) << e.what();
            return;
        }
        ADD_FAILURE() << "a string of 2^31 units was read from 10 bytes";
    });
}

TEST(Archive, WritesScalarsLittleEndian)
{
    const Bytes bytes = Stored([](CArchive& ar) {
        ar << std::int8_t(-1) << std::uint16_t(0x1234) << std::int32_t(-2)
           << std::uint64_t(0x0102030405060708ull) << true << 1.0f << 1.0;
    });
    EXPECT_EQ(bytes, (Bytes{0xFF, 0x34, 0x12, 0xFE, 0xFF, 0xFF, 0xFF,
                            0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,
                            0x01, 0x00, 0x00, 0x80, 0x3F,
                            0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xF0, 0x3F}));
}

TEST(Archive, RoundTripsAndThrowsAtEveryTruncation)
{
    auto write = [](CArchive& ar) {
        ar << CString("CSSEMatrix") << std::int32_t(4);
        RyStreamWriteBinaryFile s(ar);
        s.WriteString("id");
        s.WriteInt64(-1);
        ar << 1.5 << CString("\xC3\xA9");
        s.WriteFloat(3.0f);
    };
    auto read = [](CArchive& ar) {
        CString tag, last;
        std::int32_t version = 0;
        double d = 0;
        ar >> tag >> version;
        RyStreamReadBinaryFile s(ar);
        EXPECT_EQ(s.ReadString(), "id");
        EXPECT_EQ(s.ReadInt64(), -1);
        ar >> d >> last;
        EXPECT_EQ(s.ReadFloat(), 3.0f);
        EXPECT_EQ(tag, "CSSEMatrix");
        EXPECT_EQ(version, 4);
        EXPECT_EQ(d, 1.5);
        EXPECT_EQ(last, "\xC3\xA9");
    };
    const Bytes bytes = Stored(write);
    ASSERT_EQ(bytes.size(), 24u + 4 + 6 + 8 + 8 + 6 + 4);
    for (int bufferSize : {1, 7, 4096})
        Loaded(bytes, read, bufferSize);
    for (size_t length = 0; length < bytes.size(); ++length) {
        const Bytes prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
        for (int bufferSize : {5, 4096})
            Loaded(prefix, [&](CArchive& ar) { EXPECT_THROW(read(ar), RbStreamException) << length; },
                   bufferSize);
    }
}

TEST(Archive, LoadingFlushRewindsFileToLogicalPosition)
{
    // An untagged file: two int32 values that a tag check reads as a narrow string.
    const Bytes bytes{0x02, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00};
    Loaded(bytes, [](CArchive& ar) {
        ar.Flush();
        const unsigned long long start = ar.GetFile()->GetPosition();
        CString tag;
        ar >> tag;  // length byte 02, then bytes 00 00
        EXPECT_EQ(tag, CString("\0\0", 2));
        // The buffer took the whole file; Flush gives back what was not consumed.
        EXPECT_EQ(ar.GetFile()->GetPosition(), 8u);
        ar.Flush();
        EXPECT_EQ(ar.GetFile()->GetPosition(), 3u);
        ar.GetFile()->Seek(static_cast<long long>(start), CFile::begin);
        std::int32_t width = 0, height = 0;
        ar >> width >> height;
        EXPECT_EQ(width, 2);
        EXPECT_EQ(height, 3);
    });
}

TEST(Archive, StoringFlushWritesPendingBytes)
{
    TempFile temp;
    CFile file;
    ASSERT_TRUE(file.Open(temp.Path(), CFile::modeCreate | CFile::modeWrite));
    {
        CArchive ar(&file, CArchive::store);
        ar << std::int32_t(1) << std::int32_t(2);
        EXPECT_EQ(file.GetLength(), 0u);
        EXPECT_EQ(ar.GetPosition(), 8u);
        ar.Flush();
        EXPECT_EQ(file.GetLength(), 8u);
        EXPECT_EQ(file.GetPosition(), 8u);
        // Patch the first value in place, as a writer of a position table does.
        file.Seek(0, CFile::begin);
        ar << std::int32_t(9);
        ar.Flush();
        file.SeekToEnd();
        ar << std::uint8_t(0xEE);
        // No Close: the destructor writes the last byte.
    }
    file.Close();
    EXPECT_EQ(temp.ReadBytes(), (Bytes{9, 0, 0, 0, 2, 0, 0, 0, 0xEE}));
}

TEST(FileStream, InterleavesWithArchiveOperatorsInOrder)
{
    for (int bufferSize : {2, 4096}) {
        const Bytes bytes = Stored([](CArchive& ar) {
            ar << CString("ab");
            RyStreamWriteBinaryFile s(ar);
            s.WriteInt32(5);
            ar << std::uint8_t(0xAB);
            s.WriteString("cd");
            ar << std::int16_t(-1);
        }, bufferSize);
        EXPECT_EQ(bytes, (Bytes{0xFF, 0xFE, 0xFF, 0x02, 'a', 0, 'b', 0,
                                0x05, 0, 0, 0,
                                0xAB,
                                0x02, 0, 0, 0, 'c', 'd',
                                0xFF, 0xFF}));
        Loaded(bytes, [](CArchive& ar) {
            CString ab;
            std::uint8_t marker = 0;
            std::int16_t tail = 0;
            ar >> ab;
            RyStreamReadBinaryFile s(ar);
            EXPECT_EQ(s.ReadInt32(), 5);
            ar >> marker;
            EXPECT_EQ(s.ReadString(), "cd");
            ar >> tail;
            EXPECT_EQ(ab, "ab");
            EXPECT_EQ(marker, 0xAB);
            EXPECT_EQ(tail, -1);
        }, bufferSize);
    }
}

TEST(FileStream, LargeBuffersPassAroundTheArchiveBuffer)
{
    Bytes payload(10000);
    for (size_t i = 0; i < payload.size(); ++i)
        payload[i] = static_cast<unsigned char>(i * 7 + i / 256);
    const Bytes bytes = Stored([&](CArchive& ar) {
        RyStreamWriteBinaryFile s(ar);
        s.WriteUInt32(0xCAFEu);
        s.WriteBuffer(payload.data(), payload.size());
        s.WriteBool(true);
    }, 64);
    ASSERT_EQ(bytes.size(), 4u + 10000 + 1);
    EXPECT_EQ(Bytes(bytes.begin() + 4, bytes.end() - 1), payload);
    Loaded(bytes, [&](CArchive& ar) {
        RyStreamReadBinaryFile s(ar);
        EXPECT_EQ(s.ReadUInt32(), 0xCAFEu);
        Bytes back(payload.size());
        s.ReadBuffer(back.data(), back.size());
        EXPECT_EQ(back, payload);
        EXPECT_TRUE(s.ReadBool());
        EXPECT_THROW(s.ReadBool(), RbStreamException);
    }, 64);
}

TEST(FileStream, ReadsAnEntryAtAPositionAndReturns)
{
    // A table of two offsets followed by two entries, read out of order the way a store
    // reads one entry on demand: flush, remember, seek, read, flush, seek back.
    const Bytes bytes = Stored([](CArchive& ar) {
        RyStreamWriteBinaryFile s(ar);
        s.WriteInt64(16);
        s.WriteInt64(22);
        s.WriteString("AA");
        s.WriteString("BBB");
    });
    Loaded(bytes, [](CArchive& ar) {
        RyStreamReadBinaryFile s(ar);
        const long long first = s.ReadInt64();
        ar.Flush();
        const unsigned long long resume = ar.GetFile()->GetPosition();
        EXPECT_EQ(resume, 8u);
        const long long second = s.ReadInt64();
        ar.Flush();
        ar.GetFile()->Seek(second, CFile::begin);
        EXPECT_EQ(s.ReadString(), "BBB");
        ar.Flush();
        ar.GetFile()->Seek(first, CFile::begin);
        EXPECT_EQ(s.ReadString(), "AA");
        ar.Flush();
        ar.GetFile()->Seek(static_cast<long long>(resume), CFile::begin);
        EXPECT_EQ(s.ReadInt64(), 22);
    });
}

TEST(FileStream, ErrorsQuoteFileOffsetsAndCatchBadLengths)
{
    // A 24-byte tag, then an int32 cut to two bytes.
    const Bytes bytes = Concat(Concat({0xFF, 0xFE, 0xFF, 0x0A}, Utf16Le("CSSEMatrix")), {0x01, 0x00});
    Loaded(bytes, [](CArchive& ar) {
        CString tag;
        ar >> tag;
        RyStreamReadBinaryFile s(ar);
        try {
            s.ReadInt32();
            ADD_FAILURE() << "read past the end succeeded";
        } catch (const RbStreamException& e) {
            EXPECT_NE(std::string(e.what()).find("offset 24"), std::string::npos) << e.what();
        }
    });
    // A string count of 0x7FFFFFF0 in front of three bytes.
    Loaded({0xF0, 0xFF, 0xFF, 0x7F, 'a', 'b', 'c'}, [](CArchive& ar) {
        RyStreamReadBinaryFile s(ar);
        EXPECT_THROW(s.ReadString(), RbStreamException);
    });
}
