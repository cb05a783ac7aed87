#include <gtest/gtest.h>

#include <bit>
#include <cstdint>
#include <optional>
#include <string>

#include "base/BaseTestUtil.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"

namespace {

// A reader that does not know its size, as one over a pipe would not.
struct UnsizedReader : RbStreamReadBinaryBuffer {
    using RbStreamReadBinaryBuffer::RbStreamReadBinaryBuffer;
    std::optional<unsigned long long> bytesRemaining() const override { return std::nullopt; }
};

// A NaN with a payload and -0.0f: any arithmetic on the way would change their bits.
constexpr std::uint32_t kNaNBits = 0x7FC00001u;

void WriteSample(RbStreamWriteBinary& s)
{
    const unsigned char raw[3] = {9, 8, 7};
    s.WriteVersion(3);
    s.WriteInt32(-7);
    s.WriteUInt32(4000000000u);
    s.WriteInt64(0x0102030405060708LL);
    s.WriteFloat(std::bit_cast<float>(kNaNBits));
    s.WriteFloat(-0.0f);
    s.WriteDouble(-2.75);
    s.WriteBool(true);
    s.WriteBool(false);
    s.WriteString("H\xC3\xB6he");  // five UTF-8 bytes
    s.WriteBuffer(raw, 3);
    s.WriteString("");
}

// 4e9 = 0xEE6B2800; -2.75 = -1.375 * 2^1 = 0xC006000000000000.
const Bytes kSample{0x03, 0, 0, 0, 0xF9, 0xFF, 0xFF, 0xFF, 0x00, 0x28, 0x6B, 0xEE,
                    0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x01, 0x00, 0xC0, 0x7F,
                    0x00, 0x00, 0x00, 0x80, 0, 0, 0, 0, 0, 0, 0x06, 0xC0, 0x01, 0x00,
                    0x05, 0, 0, 0, 'H', 0xC3, 0xB6, 'h', 'e', 9, 8, 7, 0, 0, 0, 0};

void ReadAndCheckSample(RbStreamReadBinary& s)
{
    unsigned char raw[3] = {};
    EXPECT_EQ(s.ReadVersion(3), 3u);
    EXPECT_EQ(s.ReadInt32(), -7);
    EXPECT_EQ(s.ReadUInt32(), 4000000000u);
    EXPECT_EQ(s.ReadInt64(), 0x0102030405060708LL);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(s.ReadFloat()), kNaNBits);
    EXPECT_EQ(std::bit_cast<std::uint32_t>(s.ReadFloat()), 0x80000000u);
    EXPECT_EQ(s.ReadDouble(), -2.75);
    EXPECT_TRUE(s.ReadBool());
    EXPECT_FALSE(s.ReadBool());
    EXPECT_EQ(s.ReadString(), "H\xC3\xB6he");
    s.ReadBuffer(raw, 3);
    EXPECT_EQ(Bytes(raw, raw + 3), (Bytes{9, 8, 7}));
    EXPECT_EQ(s.ReadString(), "");
}

} // namespace

TEST(BinaryStream, EncodesLittleEndianWithByteCountedStrings)
{
    RbStreamWriteBinaryBuffer writer;
    WriteSample(writer);
    writer.WriteBuffer(nullptr, 0);
    EXPECT_EQ(writer.GetBytes(), kSample);
}

TEST(BinaryStream, ReadsBackAndThrowsAtEveryTruncation)
{
    RbStreamReadBinaryBuffer reader(kSample.data(), kSample.size());
    ReadAndCheckSample(reader);
    EXPECT_EQ(reader.GetRemaining(), 0u);
    for (size_t length = 0; length < kSample.size(); ++length) {
        RbStreamReadBinaryBuffer sized(kSample.data(), length);
        UnsizedReader unsized(kSample.data(), length);
        EXPECT_THROW(ReadAndCheckSample(sized), RbStreamException) << "length " << length;
        EXPECT_THROW(ReadAndCheckSample(unsized), RbStreamException) << "length " << length;
    }
}

TEST(BinaryStream, ReadsAnyNonZeroBoolByteAsTrue)
{
    const Bytes bytes{0x00, 0x01, 0x02, 0xFF};
    RbStreamReadBinaryBuffer reader(bytes.data(), bytes.size());
    for (bool expected : {false, true, true, true})
        EXPECT_EQ(reader.ReadBool(), expected);
}

TEST(BinaryStream, ReadVersionRejectsNewerVersions)
{
    const Bytes v4{0x04, 0, 0, 0};
    for (unsigned newestKnown : {3u, 4u, 7u}) {
        RbStreamReadBinaryBuffer reader(v4.data(), v4.size());
        const std::string error = StreamError([&] { EXPECT_EQ(reader.ReadVersion(newestKnown), 4u); });
        EXPECT_EQ(Contains(error, "version 4") && Contains(error, "offset 0"), newestKnown < 4) << error;
    }
}

TEST(BinaryStream, BadInputThrowsNamingItemAndOffset)
{
    RbStreamReadBinaryBuffer reader(kSample.data(), 6);
    reader.ReadUInt32();
    const std::string error = StreamError([&] { reader.ReadInt32(); });
    EXPECT_TRUE(Contains(error, "int32") && Contains(error, "offset 4")) << error;

    // Byte counts one more than what is left, and near 4 GiB: refused at the count when the
    // size is known; a reader without a known size must fail too, without reserving it.
    for (const Bytes& bytes : {Bytes{3, 0, 0, 0, 'a', 'b'}, Bytes{0xFF, 0xFF, 0xFF, 0xFF, 'a', 'b'}}) {
        RbStreamReadBinaryBuffer sized(bytes.data(), bytes.size());
        UnsizedReader unsized(bytes.data(), bytes.size());
        const std::string sizedError = StreamError([&] { sized.ReadString(); });
        EXPECT_TRUE(Contains(sizedError, "offset 0")) << sizedError;
        EXPECT_THROW(unsized.ReadString(), RbStreamException);
    }
}

TEST(BinaryStream, UnsizedReaderAssemblesLongStringsFromSlices)
{
    std::string text(200000, ' ');
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = static_cast<char>('a' + i % 26);
    RbStreamWriteBinaryBuffer writer;
    writer.WriteString(text);
    UnsizedReader reader(writer.GetData(), writer.GetSize());
    EXPECT_TRUE(reader.ReadString() == text);
}
