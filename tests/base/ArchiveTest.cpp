#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <string>
#include <tuple>

#include "base/BaseTestUtil.h"
#include "qzsse/base/CArchive.h"
#include "qzsse/base/RyStreamReadBinaryFile.h"
#include "qzsse/base/RyStreamWriteBinaryFile.h"

namespace {

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

// prefix followed by n copies of unit.
Bytes Repeated(Bytes prefix, size_t n, const Bytes& unit)
{
    while (n-- > 0)
        prefix.insert(prefix.end(), unit.begin(), unit.end());
    return prefix;
}

} // namespace

// The writer always uses the wide form, counting UTF-16 units, with the length in one byte
// below 255, else FF + uint16 below 65535, else FF FF FF + uint32; the reader takes the
// narrow form and every length form too.
TEST(ArchiveString, WritesWideFormAndReadsEveryForm)
{
    const std::tuple<CString, Bytes, bool> cases[] = {  // text, bytes, written that way
        {"CSSEMatrix", {0xFF, 0xFE, 0xFF, 0x0A, 'C', 0, 'S', 0, 'S', 0, 'E', 0,
                        'M', 0, 'a', 0, 't', 0, 'r', 0, 'i', 0, 'x', 0}, true},
        // U+00E9 is one unit; U+1F600 is the surrogate pair D83D DE00.
        {"\xC3\xA9", {0xFF, 0xFE, 0xFF, 0x01, 0xE9, 0x00}, true},
        {"\xF0\x9F\x98\x80", {0xFF, 0xFE, 0xFF, 0x02, 0x3D, 0xD8, 0x00, 0xDE}, true},
        // A lone high surrogate, kept in CString as its own three-byte form.
        {"\xED\xA0\x80" "A", {0xFF, 0xFE, 0xFF, 0x02, 0x00, 0xD8, 0x41, 0x00}, true},
        {"", {0xFF, 0xFE, 0xFF, 0x00}, true},
        {CString(254, 'x'), Repeated({0xFF, 0xFE, 0xFF, 0xFE}, 254, {'x', 0}), true},
        {CString(255, 'x'), Repeated({0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0x00}, 255, {'x', 0}), true},
        {CString(65534, 'x'), Repeated({0xFF, 0xFE, 0xFF, 0xFF, 0xFE, 0xFF}, 65534, {'x', 0}), true},
        {CString(65535, 'x'), Repeated({0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0}, 65535, {'x', 0}), true},
        {"abc", {0x03, 'a', 'b', 'c'}, false},
        {"", {0x00}, false},
        {"x\xC3\xA9", {0x02, 'x', 0xE9}, false},  // narrow bytes are Latin-1
        {CString(300, 'q'), Repeated({0xFF, 0x2C, 0x01}, 300, {'q'}), false},
        // The four- and eight-byte length forms, even where a shorter one would have done.
        {"hello", {0xFF, 0xFF, 0xFF, 0x05, 0, 0, 0, 'h', 'e', 'l', 'l', 'o'}, false},
        {"hi", {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x02, 0, 0, 0, 0, 0, 0, 0, 'h', 'i'}, false},
    };
    // Named references rather than structured bindings: clang 14 cannot capture bindings.
    for (const auto& c : cases) {
        const CString& text = std::get<0>(c);
        const Bytes& bytes = std::get<1>(c);
        if (std::get<2>(c)) {
            EXPECT_TRUE(Stored([&](CArchive& ar) { ar << text; }) == bytes) << "length " << text.size();
        }
        Loaded(bytes, [&](CArchive& ar) {
            CString back;
            ar >> back;
            EXPECT_EQ(back, text);
        });
    }
}

// A length that cannot be right is refused at the string's offset, before any unit is read
// or allocated; a prefix cut short fails where it ends.
TEST(ArchiveString, CorruptLengthThrowsStreamExceptionAtItsOffset)
{
    const std::pair<Bytes, const char*> corrupt[] = {
        {{0x05, 'a', 'b'}, "offset 0"},                          // narrow, 5 claimed, 2 present
        {{0xFF, 0xFE, 0xFF, 0x02, 'a', 0x00, 'b'}, "offset 0"},  // wide, 2 units claimed, 3 bytes present
        {{0xFF, 0xFE, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, "offset 0"},  // 2^31 - 1 units
        {{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0x40}, "offset 0"},  // 2^62 bytes
        {{0xFF, 0xFE}, "offset 1"},                              // prefix cut short
    };
    for (const auto& c : corrupt) {
        const char* where = c.second;
        Loaded(c.first, [&](CArchive& ar) {
            CString text;
            const std::string error = StreamError([&] { ar >> text; });
            EXPECT_TRUE(Contains(error, where)) << error;
        });
    }
}

// Archive values are little-endian, bool one byte, floats their IEEE-754 bits; a file
// stream on the archive goes through its buffer, so the two interleave in call order.
TEST(FileStream, InterleavesWithArchiveValuesAndThrowsAtEveryTruncation)
{
    auto write = [](CArchive& ar) {
        RyStreamWriteBinaryFile s(ar);
        ar << CString("ab");
        s.WriteInt32(5);
        ar << std::int8_t(-1) << std::uint16_t(0x1234) << true << 1.0f;
        s.WriteString("cd");
        ar << std::uint64_t(0x0102030405060708ull) << 1.0;
    };
    auto read = [](CArchive& ar) {
        RyStreamReadBinaryFile s(ar);
        std::tuple<CString, int, std::int8_t, std::uint16_t, bool, float, CString, std::uint64_t, double> got;
        auto& [ab, five, i8, u16, b, f, cd, u64, d] = got;
        ar >> ab;
        five = s.ReadInt32();
        ar >> i8 >> u16 >> b >> f;
        cd = s.ReadString();
        ar >> u64 >> d;
        EXPECT_EQ(got, std::make_tuple(CString("ab"), 5, std::int8_t(-1), std::uint16_t(0x1234), true, 1.0f,
                                       CString("cd"), std::uint64_t(0x0102030405060708ull), 1.0));
    };
    const Bytes expected{0xFF, 0xFE, 0xFF, 0x02, 'a', 0, 'b', 0, 0x05, 0, 0, 0, 0xFF, 0x34, 0x12, 0x01,
                         0x00, 0x00, 0x80, 0x3F, 0x02, 0, 0, 0, 'c', 'd',
                         0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0, 0, 0, 0, 0, 0, 0xF0, 0x3F};
    for (int bufferSize : {1, 2, 7, 4096}) {
        EXPECT_EQ(Stored(write, bufferSize), expected) << bufferSize;
        Loaded(expected, read, bufferSize);
    }
    for (size_t length = 0; length < expected.size(); ++length) {
        const Bytes prefix(expected.begin(), expected.begin() + static_cast<std::ptrdiff_t>(length));
        for (int bufferSize : {5, 4096})
            Loaded(prefix, [&](CArchive& ar) { EXPECT_THROW(read(ar), RbStreamException) << length; },
                   bufferSize);
    }
}

TEST(Archive, LoadingFlushRewindsFileToLogicalPosition)
{
    // An untagged file: two int32 values that a tag check reads as a narrow string.
    Loaded({0x02, 0x00, 0x00, 0x00, 0x03, 0x00, 0x00, 0x00}, [](CArchive& ar) {
        CString tag;
        ar >> tag;  // length byte 02, then bytes 00 00
        // The buffer took the whole file; Flush gives back what was not consumed.
        EXPECT_EQ(ar.GetFile()->GetPosition(), 8u);
        ar.Flush();
        EXPECT_EQ(ar.GetFile()->GetPosition(), 3u);
        ar.GetFile()->Seek(0, CFile::begin);
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
        // Patch the first value in place, as a writer of a position table does.
        file.Seek(0, CFile::begin);
        ar << std::int32_t(9);
        ar.Flush();
        file.SeekToEnd();
        ar << std::uint8_t(0xEE);  // no Close: the destructor writes it
    }
    file.Close();
    EXPECT_EQ(temp.ReadBytes(), (Bytes{9, 0, 0, 0, 2, 0, 0, 0, 0xEE}));
}

TEST(FileStream, ErrorsQuoteFileOffsetsAndCatchBadLengths)
{
    // An 8-byte tag, then a string count of 0x7FFFFFF0 in front of three bytes; the
    // archive has read all of it ahead.
    Loaded({0xFF, 0xFE, 0xFF, 0x02, 'a', 0, 'b', 0, 0xF0, 0xFF, 0xFF, 0x7F, 'a', 'b', 'c'}, [](CArchive& ar) {
        CString tag;
        ar >> tag;
        RyStreamReadBinaryFile s(ar);
        const std::string error = StreamError([&] { s.ReadString(); });
        EXPECT_TRUE(Contains(error, "offset 8")) << error;
    });
}
