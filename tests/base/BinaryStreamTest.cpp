#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <limits>
#include <optional>
#include <string>
#include <vector>

#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"

namespace {

using Bytes = std::vector<unsigned char>;

Bytes Written(const std::function<void(RbStreamWriteBinary&)>& write)
{
    RbStreamWriteBinaryBuffer buffer;
    write(buffer);
    return Bytes(buffer.GetData(), buffer.GetData() + buffer.GetSize());
}

// Reader whose size is unknown, as a stream over a pipe would be.
class UnsizedReader : public RbStreamReadBinary {
public:
    explicit UnsizedReader(Bytes bytes) : m_bytes(std::move(bytes)) {}

protected:
    size_t readBytes(void* data, size_t size) override
    {
        const size_t take = std::min(size, m_bytes.size() - m_pos);
        if (take > 0)
            std::memcpy(data, m_bytes.data() + m_pos, take);
        m_pos += take;
        return take;
    }
    std::optional<unsigned long long> bytesRemaining() const override { return std::nullopt; }

private:
    Bytes m_bytes;
    size_t m_pos = 0;
};

// One of every typed operation, used by the round-trip and truncation tests.
void WriteSample(RbStreamWriteBinary& s)
{
    s.WriteVersion(3);
    s.WriteInt32(-7);
    s.WriteUInt32(4000000000u);
    s.WriteInt64(-5000000000LL);
    s.WriteFloat(0.1f);
    s.WriteDouble(-2.75);
    s.WriteBool(true);
    s.WriteString("H\xC3\xB6he");
    const unsigned char raw[3] = {9, 8, 7};
    s.WriteBuffer(raw, 3);
    s.WriteString("");
}

void ReadAndCheckSample(RbStreamReadBinary& s)
{
    EXPECT_EQ(s.ReadVersion(3), 3u);
    EXPECT_EQ(s.ReadInt32(), -7);
    EXPECT_EQ(s.ReadUInt32(), 4000000000u);
    EXPECT_EQ(s.ReadInt64(), -5000000000LL);
    EXPECT_EQ(s.ReadFloat(), 0.1f);
    EXPECT_EQ(s.ReadDouble(), -2.75);
    EXPECT_TRUE(s.ReadBool());
    EXPECT_EQ(s.ReadString(), "H\xC3\xB6he");
    unsigned char raw[3] = {};
    s.ReadBuffer(raw, 3);
    EXPECT_EQ(Bytes(raw, raw + 3), (Bytes{9, 8, 7}));
    EXPECT_EQ(s.ReadString(), "");
}

} // namespace

TEST(BinaryStream, EncodesEveryTypeLittleEndian)
{
    EXPECT_EQ(Written([](auto& s) { s.WriteVersion(4); }), (Bytes{0x04, 0, 0, 0}));
    EXPECT_EQ(Written([](auto& s) { s.WriteInt32(-2); }), (Bytes{0xFE, 0xFF, 0xFF, 0xFF}));
    EXPECT_EQ(Written([](auto& s) { s.WriteUInt32(0x01020304u); }), (Bytes{0x04, 0x03, 0x02, 0x01}));
    EXPECT_EQ(Written([](auto& s) { s.WriteInt64(0x0102030405060708LL); }),
              (Bytes{0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01}));
    EXPECT_EQ(Written([](auto& s) { s.WriteInt64(-3); }),
              (Bytes{0xFD, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}));
    // 1.0f = 0x3F800000; -2.5f = -1.25 * 2^1 = sign 1, exponent 128, mantissa 0x200000 = 0xC0200000.
    EXPECT_EQ(Written([](auto& s) { s.WriteFloat(1.0f); }), (Bytes{0x00, 0x00, 0x80, 0x3F}));
    EXPECT_EQ(Written([](auto& s) { s.WriteFloat(-2.5f); }), (Bytes{0x00, 0x00, 0x20, 0xC0}));
    // 1.0 = 0x3FF0000000000000.
    EXPECT_EQ(Written([](auto& s) { s.WriteDouble(1.0); }), (Bytes{0, 0, 0, 0, 0, 0, 0xF0, 0x3F}));
    EXPECT_EQ(Written([](auto& s) { s.WriteBool(true); s.WriteBool(false); }), (Bytes{0x01, 0x00}));
}

TEST(BinaryStream, EncodesStringsAsByteCountAndUtf8)
{
    EXPECT_EQ(Written([](auto& s) { s.WriteString("ab"); }), (Bytes{0x02, 0, 0, 0, 0x61, 0x62}));
    EXPECT_EQ(Written([](auto& s) { s.WriteString(""); }), (Bytes{0, 0, 0, 0}));
    // U+00E9 is C3 A9 in UTF-8: two bytes, not one character.
    EXPECT_EQ(Written([](auto& s) { s.WriteString("\xC3\xA9"); }), (Bytes{0x02, 0, 0, 0, 0xC3, 0xA9}));
    const unsigned char raw[3] = {1, 2, 3};
    EXPECT_EQ(Written([&](auto& s) { s.WriteBuffer(raw, 3); }), (Bytes{1, 2, 3}));
    EXPECT_EQ(Written([&](auto& s) { s.WriteBuffer(nullptr, 0); }), Bytes{});
}

TEST(BinaryStream, RoundTripsThroughMemory)
{
    const Bytes bytes = Written(WriteSample);
    // 4+4+4+8+4+8+1 + (4+5) + 3 + 4 (the o-umlaut takes two UTF-8 bytes)
    EXPECT_EQ(bytes.size(), 49u);
    RbStreamReadBinaryBuffer reader(bytes.data(), bytes.size());
    ReadAndCheckSample(reader);
    EXPECT_EQ(reader.GetRemaining(), 0u);
    EXPECT_EQ(reader.GetPosition(), 49u);
}

TEST(BinaryStream, KeepsFloatBitsExactly)
{
    const std::uint32_t bits[] = {0x7FC00001u, 0xFF800000u, 0x80000000u, 0x00000001u};
    RbStreamWriteBinaryBuffer writer;
    for (std::uint32_t b : bits) {
        float f;
        std::memcpy(&f, &b, 4);
        writer.WriteFloat(f);
    }
    RbStreamReadBinaryBuffer reader(writer.GetData(), writer.GetSize());
    for (std::uint32_t b : bits) {
        const float f = reader.ReadFloat();
        std::uint32_t back;
        std::memcpy(&back, &f, 4);
        EXPECT_EQ(back, b);
    }
}

TEST(BinaryStream, ReadsAnyNonZeroByteAsTrue)
{
    const Bytes bytes{0x00, 0x01, 0x02, 0xFF};
    RbStreamReadBinaryBuffer reader(bytes.data(), bytes.size());
    EXPECT_FALSE(reader.ReadBool());
    EXPECT_TRUE(reader.ReadBool());
    EXPECT_TRUE(reader.ReadBool());
    EXPECT_TRUE(reader.ReadBool());
}

TEST(BinaryStream, ReadVersionRejectsNewerVersions)
{
    const Bytes v4{0x04, 0, 0, 0};
    RbStreamReadBinaryBuffer same(v4.data(), v4.size());
    EXPECT_EQ(same.ReadVersion(4), 4u);
    RbStreamReadBinaryBuffer older(v4.data(), v4.size());
    EXPECT_EQ(older.ReadVersion(7), 4u);

    RbStreamReadBinaryBuffer newer(v4.data(), v4.size());
    try {
        newer.ReadVersion(3);
        FAIL() << "version 4 accepted by a reader that knows 3";
    } catch (const RbStreamException& e) {
        EXPECT_NE(std::string(e.what()).find("version 4"), std::string::npos) << e.what();
        EXPECT_NE(std::string(e.what()).find("offset 0"), std::string::npos) << e.what();
    }
}

TEST(BinaryStream, TruncatedInputThrowsAtEveryLength)
{
    const Bytes bytes = Written(WriteSample);
    for (size_t length = 0; length < bytes.size(); ++length) {
        const Bytes prefix(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(length));
        RbStreamReadBinaryBuffer sized(prefix.data(), prefix.size());
        EXPECT_THROW(ReadAndCheckSample(sized), RbStreamException) << "length " << length;
        UnsizedReader unsized(prefix);
        EXPECT_THROW(ReadAndCheckSample(unsized), RbStreamException) << "length " << length;
    }
}

TEST(BinaryStream, ErrorNamesTheItemAndItsOffset)
{
    const Bytes bytes{1, 0, 0, 0, 0xAA, 0xBB};
    RbStreamReadBinaryBuffer reader(bytes.data(), bytes.size());
    reader.ReadUInt32();
    try {
        reader.ReadInt32();
        FAIL() << "read past the end succeeded";
    } catch (const RbStreamException& e) {
        const std::string message = e.what();
        EXPECT_NE(message.find("int32"), std::string::npos) << message;
        EXPECT_NE(message.find("offset 4"), std::string::npos) << message;
    }
}

TEST(BinaryStream, StringLongerThanTheRestThrows)
{
    // Byte count 3 with two bytes behind it, then a count near 4 GiB with two bytes.
    const Bytes shortBy1{0x03, 0, 0, 0, 'a', 'b'};
    const Bytes absurd{0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'};
    for (const Bytes& bytes : {shortBy1, absurd}) {
        RbStreamReadBinaryBuffer sized(bytes.data(), bytes.size());
        EXPECT_THROW(sized.ReadString(), RbStreamException);
        // Without a known size the reader must still fail without reserving the claimed size.
        UnsizedReader unsized(bytes);
        EXPECT_THROW(unsized.ReadString(), RbStreamException);
    }
}

TEST(BinaryStream, UnsizedReaderReadsLongStrings)
{
    // Longer than one read slice, so the string is assembled from several pieces.
    std::string text(200000, ' ');
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>('a' + i % 26);
    UnsizedReader reader(Written([&](auto& s) { s.WriteString(text); }));
    EXPECT_EQ(reader.ReadString(), text);
}

