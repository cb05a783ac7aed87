#include <algorithm>
#include <bit>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <tuple>
#include <typeinfo>

#include <gtest/gtest.h>

#include "qzsse/base/RyJPEGWriter.h"
#include "qzsse/storage/detail/ImageCodecs.h"
#include "storage/StorageTestUtil.h"

using namespace qzsse::storagetest;
using qzsse::detail::DecodedImage;

namespace {

constexpr float kLargest = std::numeric_limits<float>::max();
constexpr float kInf = std::numeric_limits<float>::infinity();

float FromBits(std::uint32_t bits) { return std::bit_cast<float>(bits); }

Bytes RandomBytes(size_t n, unsigned seed)
{
    std::mt19937 rng(seed);
    Bytes b(n);
    std::generate(b.begin(), b.end(), [&] { return static_cast<unsigned char>(rng()); });
    return b;
}

// A smooth 8-bit surface, as quantised height data looks.
RbArray<unsigned char> SmoothCodes(int width, int height)
{
    RbArray<unsigned char> codes;
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            codes.Add(static_cast<unsigned char>(127.5 + 120.0 * std::sin(x / 9.0) * std::cos(y / 7.0)));
    return codes;
}

Bytes Png(const unsigned char* pixels, unsigned width, unsigned height)
{
    Bytes out;
    EXPECT_TRUE(qzsse::detail::EncodePngGrey8(pixels, width, height, out));
    return out;
}

Bytes Tiff(const Bytes& bits, unsigned width, unsigned height)
{
    Bytes out;
    EXPECT_TRUE(qzsse::detail::EncodeTiffBilevelG4(bits.data(), width, height, out));
    return out;
}

Bytes Jpeg(const RbArray<unsigned char>& codes, int width, int height, float quality)
{
    RyJPEGWriter writer(codes, width, height);
    writer.SetQuality(quality);
    RbStreamWriteBinaryBuffer out;
    EXPECT_TRUE(writer.Serialize(out));
    return out.GetBytes();
}

DecodedImage Decode(const Bytes& b) { return qzsse::detail::DecodeImage(b.data(), b.size()); }

// What a command prints about the bytes written to a scratch file, and its exit status.
std::string RunOn(const std::string& command, const Bytes& file, int& status)
{
    ScratchDir dir;
    WriteFileBytes(dir.File("image"), file);
    std::string output;
    FILE* pipe = ::popen((command + " " + dir.File("image") + " 2>&1").c_str(), "r");
    char buffer[256];
    while (pipe != nullptr && std::fgets(buffer, sizeof buffer, pipe) != nullptr)
        output += buffer;
    status = pipe != nullptr ? ::pclose(pipe) : -1;
    return output;
}

TEST(Quantizer, MapRoundsHalfUpSaturatesAndKeepsCode255ForTheInvalidValue)
{
    const RyFloatingPointQuantizationUniform unit(0.0f, 255.0f, 1.0f);
    const RyFloatingPointQuantizationUniform wide(-kLargest, kLargest, 1.0f);   // max - min overflows to inf
    const RyFloatingPointQuantizationUniform flat(0.0f, 1.0f, 0.0f);            // inf * 0 is NaN
    const RyFloatingPointQuantizationUniform scaled(10.0f, 20.0f, 25.4999f);
    const RyFloatingPointQuantizationUniformWithInvalid withInvalid(0.0f, 254.0f, 1.0f, -1.0f);
    const RyFloatingPointQuantizationUniformWithInvalid nanInvalid(0.0f, 1.0f, 100.0f, kNaN);
    const struct {
        const RyFloatingPointQuantization& q;
        float value;
        unsigned long code;
    } cases[] = {
        {unit, 0.0f, 0},     {unit, 0.49f, 0},    {unit, 0.5f, 1},        {unit, 254.49f, 254},
        {unit, 254.5f, 255}, {unit, 1000.0f, 255}, {unit, -5.0f, 0},      {unit, -0.0f, 0},
        {wide, kLargest, 255}, {wide, kInf, 255},  {wide, -kInf, 0},      {wide, kNaN, 0},
        {flat, kInf, 0},     {flat, 3.0f, 0},     {scaled, 12.0f, 51},    {scaled, 20.0f, 255},
        {withInvalid, -1.0f, 255}, {withInvalid, -2.0f, 0}, {withInvalid, 253.6f, 254},
        {withInvalid, 254.5f, 254}, {withInvalid, kInf, 254}, {withInvalid, kNaN, 0},
        {nanInvalid, kNaN, 255}, {nanInvalid, -kNaN, 255}, {nanInvalid, 0.5f, 50},
    };
    for (const auto& c : cases)
        EXPECT_EQ(c.q.Map(c.value), c.code) << c.value;

    // Unmap(c) = min + c / factor, and the invalid code gives back exactly the invalid value.
    EXPECT_EQ(scaled.Unmap(0), 10.0f);
    EXPECT_NEAR(scaled.Unmap(51), 12.0000078f, 2e-6f);
    EXPECT_EQ(withInvalid.Unmap(255), -1.0f);
    EXPECT_EQ(withInvalid.Unmap(254), 254.0f);
    EXPECT_TRUE(std::isnan(nanInvalid.Unmap(255)));

    std::mt19937 rng(7);
    const float lo = -37.25f, hi = 1234.5f, factor = (1.0f / (hi - lo)) * 254.999f;
    const RyFloatingPointQuantizationUniform q(lo, hi, factor);
    std::uniform_real_distribution<float> value(lo, hi);
    for (int i = 0; i < 20000; ++i) {
        const float v = value(rng);
        ASSERT_LE(std::fabs(q.Unmap(q.Map(v)) - v), 0.5f / factor * 1.0001f) << v;
    }
}

Bytes Description(float min, float max, float factor, bool withInvalid, float invalid = 0.0f)
{
    ByteWriter w;
    w.f32(min).f32(max).f32(factor).u8(withInvalid);
    if (withInvalid)
        w.f32(invalid);
    return w.get();
}

// Factors are worked out by hand as (1 / (max - min)) * span, with span 254.999 (bits
// 0x437EFFBE) or 253.999 (0x437DFFBE) with an invalid value: for a power-of-two range only
// the exponent changes.
TEST(QuantizerDescription, WritesRangeFactorFlagAndInvalidValue)
{
    const struct {
        const char* what;
        int width;
        std::vector<float> values;
        bool withInvalid;
        float invalid, maxAbsError;
        bool fixed;
        Bytes expected;
    } cases[] = {
        {"range 1..9", 3, {1, 2, 3, 4, 5, 9}, false, 0, 0, false, Description(1, 9, FromBits(0x41FEFFBE), false)},
        {"invalid 9 skipped", 3, {1, 2, 3, 4, 5, 9}, true, 9, 0, false, Description(1, 5, FromBits(0x427DFFBE), true, 9)},
        {"fixed range", 3, {1, 2, 3, 4, 5, 9}, false, 0, 0, true, Description(-2, 2, FromBits(0x427EFFBE), false)},
        {"constant", 5, std::vector<float>(15, 7.5f), false, 0, 0, false, Description(7.5f, 7.5f, 1.0f, false)},
        {"constant, coarse bound", 5, std::vector<float>(15, 7.5f), false, 0, 1, false, Description(7.5f, 7.5f, 0.5f, false)},
        // max - min = -inf: the range factor is -0.0, below the error factor.
        {"all invalid", 2, {-1, -1, -1, -1}, true, -1, 0, false, Description(kLargest, -kLargest, -0.0f, true, -1)},
        // Bound 0.01 asks for factor 50; the range only allows 254.999 / 1000.
        {"bound not met", 2, {0, 1000}, false, 0, 0.01f, false, Description(0, 1000, FromBits(0x3E828F3B), false)},
        {"bound coarser", 2, {0, 1000}, false, 0, 2, false, Description(0, 1000, 0.25f, false)},
        {"NaN invalid skipped", 3, {kNaN, 2, 6}, true, kNaN, 0, false, Description(2, 6, FromBits(0x427DFFBE), true, kNaN)},
        // NaN never takes part; between 0.0 and -0.0 the first met in row order stays.
        {"first zero 0.0", 1, {5, 0.0f, kNaN, 5, -0.0f}, false, 0, 0, false, Description(0.0f, 5, FromBits(0x424BFFCB), false)},
        {"first zero -0.0", 1, {5, -0.0f, kNaN, 5, 0.0f}, false, 0, 0, false, Description(-0.0f, 5, FromBits(0x424BFFCB), false)},
        {"max -0.0", 1, {-5, -0.0f, kNaN, -5, 0.0f}, false, 0, 0, false, Description(-5, -0.0f, FromBits(0x424BFFCB), false)},
    };
    for (const auto& c : cases) {
        CodecAccess m(Rows(c.width, c.values));
        auto& p = m.GetCompressionParameters();
        p.m_fInvalidValue = c.invalid;
        p.m_fMaxAbsError = c.maxAbsError;
        p.m_bUseFixedRange = c.fixed;
        p.m_fRangeMin = -2.0f;
        p.m_fRangeMax = 2.0f;
        RbStreamWriteBinaryBuffer out;
        const auto q = m.createAndEncodeQuantizer(c.withInvalid, out);
        EXPECT_EQ(out.GetBytes(), c.expected) << c.what;
        const RyFloatingPointQuantization& quantizer = *q;
        EXPECT_EQ(typeid(quantizer) == typeid(RyFloatingPointQuantizationUniformWithInvalid), c.withInvalid) << c.what;
    }
}

TEST(QuantizerDescription, EachVersionReadsItsOwnFields)
{
    // Version 1 reads nothing (min 0, factor 1), 2 the range and factor, 3 and 4 the flag too.
    for (const bool flag : {true, false})
        for (unsigned version = 1; version <= 4; ++version) {
            const Bytes bytes = Description(1, 9, 2, flag, -1);
            RbStreamReadBinaryBuffer in(bytes.data(), bytes.size());
            bool hasInvalid = !flag;
            float invalid = 123.0f;
            const auto q = CodecAccess::createQuantizer(in, version, hasInvalid, invalid);
            const bool withInvalid = flag && version >= 3;
            EXPECT_EQ(in.GetPosition(), version == 1 ? 0u : version == 2 ? 12u : withInvalid ? 17u : 13u) << version;
            EXPECT_EQ(hasInvalid, withInvalid) << version;
            EXPECT_EQ(invalid, withInvalid ? -1.0f : 0.0f) << version;
            EXPECT_EQ(q->Unmap(4), version == 1 ? 4.0f : 3.0f) << version;
            EXPECT_EQ(q->Unmap(255), withInvalid ? -1.0f : version == 1 ? 255.0f : 128.5f) << version;
        }
}

// Against the rule written plainly: clamp to the fixed range (maximum first), then Map.
// Variants: plain, with invalid value -5, fixed range [0, 100] (which clamps -5 before the
// invalid check), inverted fixed range [100, 0], NaN invalid value.
TEST(Quantize, MatchesClampThenMapOnEverySizeAndSpecialValue)
{
    std::mt19937 rng(11);
    const float specials[] = {kNaN, kInf, -kInf, 3.0e38f, -3.0e38f, -0.0f, 0.0f, -5.0f};
    std::uniform_real_distribution<float> value(-20.0f, 120.0f);
    for (int width = 1; width <= 9; ++width)
        for (int height = 1; height <= 9; ++height)
            for (int variant = 0; variant < 5; ++variant) {
                CodecAccess m(MatrixOf(width, height, [&](int, int) {
                    const unsigned k = rng() % 16;
                    return k < 8 ? specials[k] : value(rng);
                }));
                auto& p = m.GetCompressionParameters();
                p.m_fInvalidValue = variant == 4 ? kNaN : -5.0f;
                p.m_bUseFixedRange = variant == 2 || variant == 3;
                p.m_fRangeMin = variant == 3 ? 100.0f : 0.0f;
                p.m_fRangeMax = variant == 3 ? 0.0f : 100.0f;
                const RyFloatingPointQuantizationUniform plain(-10.0f, 110.0f, 2.1f);
                const RyFloatingPointQuantizationUniformWithInvalid withInvalid(-10.0f, 110.0f, 2.1f, p.m_fInvalidValue);
                const RyFloatingPointQuantization& q =
                    variant == 0 ? static_cast<const RyFloatingPointQuantization&>(plain) : withInvalid;
                RbArray<unsigned char> expected;
                for (float v : Pixels(m)) {
                    if (p.m_bUseFixedRange && v > p.m_fRangeMax)
                        v = p.m_fRangeMax;
                    if (p.m_bUseFixedRange && v < p.m_fRangeMin)
                        v = p.m_fRangeMin;
                    expected.Add(static_cast<unsigned char>(q.Map(v)));
                }
                ASSERT_EQ(m.quantize(q), expected) << width << "x" << height << " variant " << variant;
            }
}

TEST(Quantize, DeQuantizeWritesRealRowsOnlyAndIgnoresWrongSizes)
{
    CodecAccess m;
    m.Create(3, 5);
    m.Fill(42.0f);
    const RyFloatingPointQuantizationUniform q(10.0f, 20.0f, 0.5f);   // Unmap(c) = 10 + 2c
    RbArray<unsigned char> codes;
    for (int i = 0; i < 15; ++i)
        codes.Add(static_cast<unsigned char>(i));
    m.deQuantize(q, codes);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 3; ++x)
            EXPECT_EQ(m.GetPointUnsafe(x, y), y < 5 ? 10.0f + 2.0f * static_cast<float>(3 * y + x) : 42.0f) << x << "," << y;
    codes.Add(0);
    m.Fill(42.0f);
    m.deQuantize(q, codes);
    EXPECT_EQ(Pixels(m), std::vector<float>(15, 42.0f));
}

TEST(ImageCodecs, PngAndTiffRoundTripAnyWidthAndJpegIsABaselineGreyImageCloseToItsInput)
{
    const Bytes grey = RandomBytes(13 * 7, 1);
    const DecodedImage png = Decode(Png(grey.data(), 13, 7));
    EXPECT_EQ(std::tuple(png.width, png.height, png.bitsPerPixel), std::tuple(13u, 7u, 8u));
    EXPECT_EQ(png.pixels, grey);
    for (unsigned width : {1u, 7u, 8u, 9u, 33u}) {
        const unsigned stride = (width + 7) / 8;
        Bytes bits = RandomBytes(stride * 5, width);
        for (unsigned y = 0; y < 5 && width % 8; ++y)   // bits beyond the width are 0
            bits[y * stride + stride - 1] &= static_cast<unsigned char>(0xFF << (8 - width % 8));
        const DecodedImage tiff = Decode(Tiff(bits, width, 5));
        EXPECT_EQ(std::tuple(tiff.width, tiff.height, tiff.bitsPerPixel), std::tuple(width, 5u, 1u));
        EXPECT_EQ(tiff.pixels, bits) << "width " << width;
    }
    const RbArray<unsigned char> codes = SmoothCodes(37, 21);
    const Bytes best = Jpeg(codes, 37, 21, 1.0f);
    const unsigned char startOfBaselineFrame[] = {0xFF, 0xC0};
    const auto sof = std::search(best.begin(), best.end(), std::begin(startOfBaselineFrame), std::end(startOfBaselineFrame));
    ASSERT_LT(sof + 9, best.end());
    EXPECT_EQ(sof[9], 1);   // one component
    const DecodedImage jpeg = Decode(best);
    ASSERT_EQ(jpeg.pixels.size(), 37u * 21);
    for (size_t i = 0; i < jpeg.pixels.size(); ++i)
        ASSERT_LE(std::abs(jpeg.pixels[i] - codes[static_cast<std::ptrdiff_t>(i)]), 3) << i;
    EXPECT_LT(Jpeg(codes, 37, 21, 0.2f).size(), best.size());
}

TEST(ImageCodecs, PayloadsPassIndependentCheckers)
{
    if (!std::filesystem::exists("/usr/bin/pngcheck") || !std::filesystem::exists("/usr/bin/tiffinfo"))
        GTEST_SKIP() << "pngcheck or tiffinfo is not installed";
    int status = 0;
    std::string report = RunOn("/usr/bin/pngcheck -v", Png(SmoothCodes(40, 30).GetData(), 40, 30), status);
    EXPECT_EQ(status, 0) << report;
    for (const char* field : {"40 x 30 image, 8-bit grayscale", "No errors"})
        EXPECT_NE(report.find(field), std::string::npos) << field << " missing in\n" << report;
    report = RunOn("/usr/bin/tiffinfo -D", Tiff(RandomBytes(3 * 6, 5), 20, 6), status);   // -D decodes the strip
    EXPECT_EQ(status, 0) << report;
    for (const char* field : {"Image Width: 20 Image Length: 6", "Bits/Sample: 1", "CCITT Group 4", "min-is-black",
                              "Rows/Strip: 6", "FillOrder: msb-to-lsb"})
        EXPECT_NE(report.find(field), std::string::npos) << field << " missing in\n" << report;
    EXPECT_EQ(report.find("rror"), std::string::npos) << report;
    EXPECT_EQ(report.find("arning"), std::string::npos) << report;
}

TEST(JpegWriter, QualityIsRoundedAndClampedToOneToHundred)
{
    RyJPEGWriter writer(RbArray<unsigned char>(), 0, 0);
    const std::pair<float, int> cases[] = {{0.95f, 95}, {1.0f, 100}, {1.5f, 100}, {0.504f, 50}, {0.506f, 51},
                                           {0.004f, 1}, {0.0f, 1},    {-3.0f, 1},  {kNaN, 1}};
    for (const auto& [q, expected] : cases) {
        writer.SetQuality(q);
        EXPECT_EQ(writer.GetQuality(), expected) << q;
    }
}

TEST(ImageDecoder, RefusesUnknownSignaturesAndSizesBeyondTheBounds)
{
    EXPECT_TRUE(Decode(Bytes{'G', 'I', 'F', '8', '9', 'a', 0, 0}).pixels.empty());
    const Bytes column(32000, 3);
    EXPECT_EQ(Decode(Png(column.data(), 1, 31999)).pixels.size(), 31999u);   // the most rows a matrix holds
    EXPECT_EQ(Decode(Png(column.data(), 1, 32000)).height, 0u);
    // A PNG's IHDR width made a million (its CRC made right again): some 70 bytes cannot
    // hold a million pixels, so nothing is allocated for them.
    Bytes file = Png(column.data(), 1, 1);
    std::uint32_t crc = 0xFFFFFFFFu;
    for (size_t i = 12; i < 29; ++i) {   // chunk type and data of IHDR
        if (i >= 16 && i < 20)
            file[i] = static_cast<unsigned char>(1000000u >> (8 * (19 - i)));
        crc ^= file[i];
        for (int k = 0; k < 8; ++k)
            crc = (crc >> 1) ^ (0xEDB88320u & (0u - (crc & 1u)));
    }
    for (int i = 0; i < 4; ++i)
        file[29 + i] = static_cast<unsigned char>(~crc >> (24 - 8 * i));
    EXPECT_EQ(Decode(file).width, 0u);
}

// A cut that loses pixel data is refused; a cut through bytes that carry none (the TIFF's
// trailing next-directory offset) may decode, then to the intact image. Damaged bytes fail
// or give a frame whose buffer matches its size.
TEST(ImageDecoder, DamagedPayloadsDecodeToNothingOrToAFrameOfTheirSize)
{
    for (const Bytes& file : {Png(SmoothCodes(11, 6).GetData(), 11, 6), Tiff(RandomBytes(2 * 6, 3), 11, 6),
                              Jpeg(SmoothCodes(11, 6), 11, 6, 0.9f)}) {
        const DecodedImage whole = Decode(file);
        ASSERT_FALSE(whole.pixels.empty());
        FeedDamaged(
            file,
            [&](const Bytes& damaged) {
                const DecodedImage image = Decode(damaged);
                if (image.pixels.empty())
                    throw RbStreamException("refused");
                EXPECT_TRUE(damaged.size() == file.size() || image.pixels == whole.pixels) << "cut to " << damaged.size();
                ASSERT_EQ(image.pixels.size(), (image.width * image.bitsPerPixel + 7) / 8 * image.height);
            },
            true);
    }
}

TEST(Encode, FailuresWriteNothingNotEvenTheCountButJpegAlwaysWritesItsCount)
{
    CodecAccess m;
    m.Create(4, 2);
    const RbArray<unsigned char> codes{1, 2, 3, 4, 5, 6, 7, 8};
    RbStreamWriteBinaryBuffer out;
    m.encode(codes, out, qzsse::ImageContainer::Tiff, 8, nullptr);                       // TIFF is 1-bit only
    m.encode(codes, out, qzsse::ImageContainer::Png, 1, nullptr);                        // PNG is 8-bit only
    m.encode(RbArray<unsigned char>{1, 2}, out, qzsse::ImageContainer::Png, 8, nullptr);   // too few pixels
    EXPECT_FALSE(RyJPEGWriter(codes, 4, 3).Serialize(out));
    EXPECT_EQ(out.GetSize(), 0u);

    // Without pixels PNG writes its description only (17 bytes with the invalid value); JPEG,
    // whose description never has one, adds the count 0.
    m.Create(0, 0);
    m.GetCompressionParameters().m_bUseInvalidValue = true;
    RbStreamWriteBinaryBuffer png, jpeg;
    m.encodePNG(png);
    m.encodeJPEG(jpeg);
    EXPECT_EQ(png.GetSize(), 17u);
    ASSERT_EQ(jpeg.GetSize(), 17u);
    EXPECT_EQ(Bytes(jpeg.GetBytes().begin() + 12, jpeg.GetBytes().end()), (Bytes{0, 0, 0, 0, 0}));
}

TEST(TwoLevelCodec, WritesMeanInvalidValueAndAPlaneOfTwoBytesPerRowForWidthNine)
{
    // 1..27 with NaN (invalid, and NaN finds NaN) at (0,0), (8,0) and (7,1): the mean of the
    // others is (378 - 1 - 9 - 17) / 24 = 14.625.
    std::vector<float> values(27);
    for (int i = 0; i < 27; ++i)
        values[i] = i == 0 || i == 8 || i == 16 ? kNaN : static_cast<float>(i + 1);
    CodecAccess m(Rows(9, values));
    m.GetCompressionParameters().m_fInvalidValue = kNaN;
    RbStreamWriteBinaryBuffer out;
    m.encodeCCITT4(out);
    const Bytes bytes = out.GetBytes();
    EXPECT_EQ(FloatAt(bytes, 0), 14.625f);
    EXPECT_TRUE(std::isnan(FloatAt(bytes, 4)));
    EXPECT_EQ(U32At(bytes, 8), bytes.size() - 12);
    const DecodedImage image = qzsse::detail::DecodeImage(bytes.data() + 12, bytes.size() - 12);
    EXPECT_EQ(std::pair(image.width, image.height), std::pair(9u, 3u));
    EXPECT_EQ(image.pixels, (Bytes{0x80, 0x80, 0x01, 0x00, 0x00, 0x00}));
}

} // namespace
