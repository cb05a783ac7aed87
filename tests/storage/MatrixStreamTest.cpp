#include <cfloat>
#include <algorithm>
#include <cstdint>
#include <filesystem>
#include <cmath>
#include <random>
#include <stdexcept>

#include <gtest/gtest.h>
#include <zlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include "qzsse/base/CArchive.h"
#include "qzsse/base/CFile.h"
#include "qzsse/base/RbThreadPool.h"
#include "qzsse/storage/ReaderLimits.h"
#include "qzsse/storage/detail/ImageCodecs.h"
#include "qzsse/storage/detail/PassDecoding.h"
#include "storage/StorageTestUtil.h"

using namespace qzsse::storagetest;

namespace {

// The float stored for column x, row r (padding rows included).
float& Stored(const CSSEMatrix& m, int x, int r) { return reinterpret_cast<float*>(m.GetMatrixDataDirectly()[r >> 2] + x)[r & 3]; }
int PaddedRows(const CSSEMatrix& m) { return 4 * ((m.GetSizeY() + 3) / 4); }

// A method-0 stream worked out from the format: header, then per column the stored floats
// of rows 0 .. 4 * ceil(height / 4) - 1.
Bytes RawStreamByHand(const CSSEMatrix& m)
{
    ByteWriter w;
    w.u32(4).i32(m.GetSizeX()).i32(m.GetSizeY()).u8(0);
    for (int x = 0; x < m.GetSizeX(); ++x)
        for (int r = 0; r < PaddedRows(m); ++r)
            w.f32(Stored(m, x, r));
    return w.get();
}

// Every stored float, padding rows included: ordinary values, signed zeros and NaN.
CSSEMatrix RandomStored(int width, int height, std::mt19937& rng)
{
    CSSEMatrix m;
    m.Create(width, height);
    const float specials[] = {kNaN, -0.0f, 0.0f};
    std::uniform_real_distribution<float> value(-1000.0f, 1000.0f);
    for (int x = 0; x < width; ++x)
        for (int r = 0; r < PaddedRows(m); ++r)
            Stored(m, x, r) = rng() % 2 ? specials[rng() % 3] : value(rng);
    return m;
}

CSSEMatrix Coded(CSSEMatrix m, int method, unsigned passes = 1, float maxAbsError = 0.0f)
{
    m.GetCompressionParameters().m_eMethod = method;
    m.GetCompressionParameters().m_uiNumberOfPasses = passes;
    m.GetCompressionParameters().m_fMaxAbsError = maxAbsError;
    return m;
}

// A smooth surface with noise, so that every pass has something left to code.
CSSEMatrix Surface(int width, int height, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> noise(-0.3f, 0.3f);
    return MatrixOf(width, height, [&](int x, int y) { return 50.0f * std::sin(0.3f * x) + 2.0f * y + noise(rng); });
}

// The passes of a coded version-4 stream: quantizer description and image file each.
struct Pass {
    float min, max, factor;
    bool withInvalid;
    Bytes image;
    float invalid = 0.0f;
};

std::vector<Pass> ParsePasses(const Bytes& b)
{
    std::vector<Pass> passes(U32At(b, 13));
    size_t at = 17;
    for (Pass& p : passes) {
        p = {FloatAt(b, at), FloatAt(b, at + 4), FloatAt(b, at + 8), b.at(at + 12) != 0, {}};
        if (p.withInvalid)
            p.invalid = FloatAt(b, at + 13);
        at += p.withInvalid ? 17 : 13;
        const size_t n = U32At(b, at);
        p.image.assign(b.begin() + static_cast<std::ptrdiff_t>(at + 4), b.begin() + static_cast<std::ptrdiff_t>(at + 4 + n));
        at += 4 + n;
    }
    EXPECT_EQ(at, b.size());
    return passes;
}

bool IsPng(const Bytes& b) { return b.size() > 4 && b[0] == 0x89 && b[1] == 'P'; }

// A counted pass image holding these codes.
Bytes PngImage(int width, int height, const Bytes& codes)
{
    Bytes file;
    EXPECT_TRUE(qzsse::detail::EncodePngGrey8(codes.data(), width, height, file));
    return ByteWriter().u32(static_cast<std::uint32_t>(file.size())).bytes(file).get();
}

struct RoundTrip {
    Bytes bytes;
    float reported;
    CSSEMatrix back;
};

RoundTrip Through(const CSSEMatrix& m)
{
    RoundTrip t{StreamBytes(m), m.GetMaxAbsCompressionError(), {}};
    EXPECT_EQ(ReadStream(t.back, t.bytes), t.bytes.size());
    return t;
}

// The tag as the archive holds it: wide-string marker, 10 UTF-16 units, no terminator.
const Bytes kTag = ByteWriter().archiveString("CSSEMatrix").get();

template <class Use>
void WithArchive(const std::string& path, unsigned mode, int bufferSize, Use&& use)
{
    CFile file;
    ASSERT_TRUE(file.Open(path, mode == CArchive::store ? CFile::modeCreate | CFile::modeWrite : CFile::modeRead));
    CArchive ar(&file, mode, bufferSize);
    use(ar);
    ar.Close();
    file.Close();
}

} // namespace

TEST(MatrixStreamRaw, WritesColumnsOfWholeBlocksAndRoundTripsBitExactlyPaddingIncluded)
{
    std::mt19937 rng(11);
    // 300 x 117 crosses the reader's 64 KiB chunks.
    const std::pair<int, int> sizes[] = {{1, 1}, {5, 5}, {3, 4}, {7, 9}, {0, 3}, {3, 0}, {0, 0}, {300, 117}};
    for (const auto& [w, h] : sizes) {
        const CSSEMatrix m = RandomStored(w, h, rng);
        const Bytes bytes = StreamBytes(m);
        EXPECT_EQ(bytes, RawStreamByHand(m)) << w << " x " << h;
        CSSEMatrix back = Rows(1, {9});
        EXPECT_EQ(ReadStream(back, bytes), bytes.size());
        EXPECT_EQ(RawStreamByHand(back), bytes) << w << " x " << h;
    }
    // 5 x 5: the header, then 5 columns x 2 blocks x 4 floats, and no error.
    CSSEMatrix m = Coded(Surface(5, 5, 1), 2);
    StreamBytes(m);
    ASSERT_GT(m.GetMaxAbsCompressionError(), 0.0f);
    m.GetCompressionParameters().m_eMethod = 0;
    const Bytes bytes = StreamBytes(m);
    EXPECT_EQ(bytes.size(), 13u + 5 * 2 * 4 * 4);
    EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + 13), (Bytes{4, 0, 0, 0, 5, 0, 0, 0, 5, 0, 0, 0, 0}));
    EXPECT_EQ(m.GetMaxAbsCompressionError(), 0.0f);
}

TEST(MatrixStreamVersions, RawVersionsZeroToTwoReadTheirOwnItemsAndNewerIsRejected)
{
    CSSEMatrix m = Coded(Rows(3, {1, 1, 1}), 2);
    EXPECT_EQ(ReadStream(m, {0, 0, 0, 0, 0xAB}), 4u);   // version 0: an empty matrix
    EXPECT_EQ(m.GetSizeX() + m.GetSizeY() + m.GetCompressionParameters().m_eMethod, 0);

    // Version 1: size and raw floats without method; 2 x 3 is one block, row 3 padding.
    m.GetCompressionParameters().m_eMethod = 3;
    Bytes v1 = ByteWriter().u32(1).i32(2).i32(3).f32(1).f32(2).f32(3).f32(-4).f32(5).f32(6).f32(7).f32(-8).get();
    EXPECT_EQ(ReadStream(m, v1), v1.size());
    EXPECT_EQ(Pixels(m), (std::vector<float>{1, 5, 2, 6, 3, 7}));
    EXPECT_EQ(Stored(m, 1, 3), -8.0f);
    EXPECT_EQ(m.GetCompressionParameters().m_eMethod, 0);

    const Bytes v2 = ByteWriter().u32(2).i32(1).i32(2).u8(0).f32(0.5f).f32(-0.5f).f32(9).f32(9).get();
    EXPECT_EQ(ReadStream(m, v2), v2.size());
    EXPECT_EQ(Pixels(m), (std::vector<float>{0.5f, -0.5f}));

    v1[0] = 5;
    EXPECT_THROW(ReadStream(m, v1), RbStreamException);
    EXPECT_EQ(Pixels(m), (std::vector<float>{0.5f, -0.5f}));
}

TEST(MatrixStreamVersions, VersionTwoPassesHaveNoInvalidFlagAndVersionThreePassesDo)
{
    const Bytes v2 = ByteWriter()
                         .u32(2).i32(3).i32(2).u8(2).u32(2)
                         .f32(1).f32(9).f32(2).bytes(PngImage(3, 2, {0, 1, 2, 3, 16, 255}))
                         .f32(-0.5f).f32(0.5f).f32(100).bytes(PngImage(3, 2, {50, 0, 100, 25, 75, 1}))
                         .get();
    CSSEMatrix m;
    EXPECT_EQ(ReadStream(m, v2), v2.size());
    const Bytes c0 = {0, 1, 2, 3, 16, 255}, c1 = {50, 0, 100, 25, 75, 1};
    for (int i = 0; i < 6; ++i)   // 0 + (1 + c0 / 2) + (-0.5 + c1 / 100)
        EXPECT_EQ(Pixels(m)[i], (0.0f + (1.0f + c0[i] / 2.0f)) + (-0.5f + c1[i] / 100.0f)) << i;
    EXPECT_EQ(m.GetCompressionParameters().m_uiNumberOfPasses, 2u);

    // An element found invalid in the first pass is not touched by the second.
    for (float invalid : {-7.0f, 0.0f, kNaN}) {
        const Bytes v3 = ByteWriter()
                             .u32(3).i32(2).i32(2).u8(2).u32(2)
                             .f32(0).f32(10).f32(1).u8(1).f32(invalid).bytes(PngImage(2, 2, {255, 4, 5, 255}))
                             .f32(0).f32(1).f32(10).u8(0).bytes(PngImage(2, 2, {9, 1, 2, 9}))
                             .get();
        ReadStream(m, v3);
        EXPECT_EQ(Bits(m), Bits(Rows(2, {invalid, 4.0f + 0.1f, 5.0f + 0.2f, invalid})));
    }
}

TEST(MatrixStreamMethods, UnknownMethodsWriteTheHeaderOnlyAndReadAsCreated)
{
    CSSEMatrix m = Coded(Rows(3, {4, 4, 4, 4, 4, 4}), 9);
    EXPECT_EQ(StreamBytes(m), (Bytes{4, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 9}));
    m.GetCompressionParameters().m_eMethod = -1;   // the low byte is what the stream holds
    EXPECT_EQ(StreamBytes(m).back(), 0xFF);
    CSSEMatrix back;
    EXPECT_EQ(ReadStream(back, {4, 0, 0, 0, 3, 0, 0, 0, 2, 0, 0, 0, 9, 0x77}), 13u);
    EXPECT_EQ(back.GetCompressionParameters().m_eMethod, 9);
    EXPECT_EQ(Pixels(back), std::vector<float>(6, 0.0f));

    // PNG and TIFF cannot hold an image without pixels: the writer refuses and writes nothing.
    CSSEMatrix empty;
    empty.Create(0, 3);
    for (int method : {2, 3, 4}) {
        RbStreamWriteBinaryBuffer out;
        EXPECT_THROW(Coded(empty, method).Serialize(out), std::runtime_error) << method;
        EXPECT_EQ(out.GetSize(), 0u);
    }
}

// JPEG (method 1, and method 3 after the first pass) never carries the invalid value: it
// travels in a first PNG pass, which restores it exactly, and later passes leave it alone.
TEST(MatrixStreamPasses, PassesUseTheirCodecsAndBoundsCarryTheInvalidValueFirstAndReportTheError)
{
    for (const float invalid : {0.0f, -9.5f, kNaN}) {   // 0: no invalid value in use
        const auto hole = [&](int x, int y) { return invalid != 0.0f && (x * 3 + y) % 5 == 0; };
        CSSEMatrix surface = Surface(13, 11, 1);
        for (int y = 0; y < 11; ++y)
            for (int x = 0; x < 13; ++x)
                if (hole(x, y))
                    surface.SetPointUnsafe(x, y, invalid);
        surface.GetCompressionParameters().m_bUseInvalidValue = invalid != 0.0f;
        surface.GetCompressionParameters().m_fInvalidValue = invalid;
        for (float bound : {0.0f, 2.0f})
            for (int method : {1, 2, 3})
                for (unsigned passes : {1u, 2u, 3u}) {
                    const RoundTrip t = Through(Coded(surface, method, passes, bound));
                    const std::vector<Pass> v = ParsePasses(t.bytes);
                    ASSERT_EQ(v.size(), passes);
                    for (unsigned k = 0; k < passes; ++k) {
                        const bool png = method == 2 || (method == 3 && k == 0);
                        EXPECT_EQ(IsPng(v[k].image), png) << method << " pass " << k;
                        EXPECT_EQ(v[k].withInvalid, png && k == 0 && invalid != 0.0f) << method << " pass " << k;
                        // Only the last pass takes the bound's coarser step, 0.5 / 2.
                        EXPECT_EQ(v[k].factor == 0.25f, bound > 0 && k + 1 == passes) << method << " pass " << k;
                    }
                    for (int y = 0; y < 11; ++y)
                        for (int x = 0; x < 13; ++x)
                            if (hole(x, y) && method != 1) {
                                EXPECT_TRUE(SameValue(t.back.GetPointUnsafe(x, y), invalid)) << method << " " << passes;
                            }
                    // Reader and writer sum the passes in other orders: the last bits may differ.
                    EXPECT_GT(t.reported, 0.0f);
                    EXPECT_NEAR(t.reported, MaxAbsError(surface, t.back, method == 1 ? kNaN : invalid),
                                passes == 1 ? 0.0f : 64 * 8 * FLT_EPSILON)
                        << method << " " << passes;
                    EXPECT_EQ(t.back.GetCompressionParameters().m_eMethod, method);
                    EXPECT_EQ(t.back.GetCompressionParameters().m_uiNumberOfPasses, passes);
                }
    }
}

TEST(MatrixStreamPasses, FixedRangeClampsBeforeCodingAndTheErrorShowsIt)
{
    CSSEMatrix m = Coded(MatrixOf(6, 5, [](int x, int y) { return 3.0f * x + y - 3.0f; }), 2);   // -3 .. 16
    m.GetCompressionParameters().m_bUseFixedRange = true;
    m.GetCompressionParameters().m_fRangeMin = 0.0f;
    m.GetCompressionParameters().m_fRangeMax = 10.0f;
    const RoundTrip t = Through(m);
    const Pass p = ParsePasses(t.bytes)[0];
    EXPECT_EQ(p.min, 0.0f);
    EXPECT_EQ(p.max, 10.0f);
    for (float got : Pixels(t.back)) {
        EXPECT_GE(got, 0.0f);
        EXPECT_LE(got, 10.0f + 0.5f / p.factor);
    }
    EXPECT_EQ(t.reported, MaxAbsError(m, t.back));
    EXPECT_GE(t.reported, 6.0f - 0.5f / p.factor);   // 16 clamped to 10
}

TEST(MatrixStreamPasses, PassCountsUpTo255WorkAndLargerOnesAreRefused)
{
    const CSSEMatrix m = Coded(Surface(4, 3, 6), 2, 255);
    const RoundTrip t = Through(m);
    EXPECT_EQ(ParsePasses(t.bytes).size(), 255u);
    EXPECT_LE(MaxAbsError(m, t.back), t.reported + 1e-4f);

    RbStreamWriteBinaryBuffer out;
    EXPECT_THROW(Coded(m, 2, 256).Serialize(out), std::invalid_argument);
    EXPECT_EQ(out.GetSize(), 0u);
    Bytes tooMany = t.bytes;
    tooMany[13] = 0;
    tooMany[14] = 1;
    CSSEMatrix back;
    EXPECT_THROW(ReadStream(back, tooMany), RbStreamException);
}

TEST(MatrixStreamPasses, ReusingTheCodesOfPngPassesWritesWhatDecodingThemWrites)
{
    struct Case {
        float invalid;   // 0: no invalid value in use
        bool fixedRange;
        unsigned long long maxDecodedBytes;   // 0: default; 64 makes the decoder refuse every pass
        bool constant = false;                // the first pass leaves a residual of zeros
    };
    const Case cases[] = {{0.0f, false, 0}, {-9.5f, false, 0}, {kNaN, false, 0},  {0.0f, true, 0},
                          {kNaN, true, 0},  {0.0f, false, 64}, {-9.5f, true, 64}, {0.0f, false, 0, true}};
    for (const Case& c : cases) {
        qzsse::SetReaderLimits({0, c.maxDecodedBytes});
        CSSEMatrix surface = c.constant ? MatrixOf(21, 11, [](int, int) { return 3.25f; }) : Surface(13, 11, 7);
        for (int y = 0; y < surface.GetSizeY(); ++y)
            for (int x = 0; x < surface.GetSizeX(); ++x)
                if (c.invalid != 0.0f && (x * 3 + y) % 5 == 0)
                    surface.SetPointUnsafe(x, y, c.invalid);
        auto& p = surface.GetCompressionParameters();
        p.m_bUseInvalidValue = c.invalid != 0.0f;
        p.m_fInvalidValue = c.invalid;
        p.m_bUseFixedRange = c.fixedRange;
        p.m_fRangeMin = 0.0f;
        p.m_fRangeMax = 60.0f;
        for (int method : {2, 3})
            for (unsigned passes : {1u, 2u, 3u, 4u})
                for (float bound : {0.0f, 0.5f}) {
                    const CSSEMatrix m = Coded(surface, method, passes, bound);
                    qzsse::detail::g_bDirectPassDecoding = true;
                    const Bytes direct = StreamBytes(m);
                    const float directError = m.GetMaxAbsCompressionError();
                    qzsse::detail::g_bDirectPassDecoding = false;
                    const Bytes reused = StreamBytes(m);
                    EXPECT_EQ(reused, direct) << c.invalid << " " << c.fixedRange << " " << c.maxDecodedBytes << " "
                                              << method << " " << passes << " " << bound;
                    EXPECT_TRUE(SameValue(m.GetMaxAbsCompressionError(), directError));
                }
    }
    qzsse::SetReaderLimits({});
}

// The sample grids, and a surface whose rows end in every tail of the 16-column quantiser.
std::vector<CSSEMatrix> SampleGrids()
{
    const qzsse::detail::NpyGrid topo =
        qzsse::detail::ReadNpy(std::filesystem::path(__FILE__).parent_path() / "data" / "topobathy.npy");
    return {JacksboroHeights(), MatrixOf(topo.width, topo.height, [&](int x, int y) { return topo.at(x, y); }),
            Surface(37, 9, 3)};
}

TEST(MatrixStreamPool, WritesTheBytesAndErrorOfTheCallersThreadAlone)
{
    struct Case {
        int method;
        unsigned passes;
        float bound;
        bool invalid;
    };
    const Case cases[] = {{2, 1, 0.0f, false}, {2, 2, 0.5f, false}, {2, 2, 0.05f, false}, {1, 2, 0.0f, false},
                          {3, 2, 0.0f, false}, {3, 3, 0.1f, false}, {2, 3, 0.01f, true}, {3, 2, 0.3f, true}};
    RbThreadPool one(1);
    RbThreadPool two(2);
    for (const CSSEMatrix& grid : SampleGrids())
        for (const Case& c : cases) {
            CSSEMatrix m = Coded(grid, c.method, c.passes, c.bound);
            if (c.invalid) {
                for (int y = 0; y < m.GetSizeY(); ++y)
                    for (int x = 0; x < m.GetSizeX(); ++x)
                        if ((x * 7 + y * 3) % 23 == 0)
                            m.SetPointUnsafe(x, y, -9999.0f);
                m.GetCompressionParameters().m_bUseInvalidValue = true;
                m.GetCompressionParameters().m_fInvalidValue = -9999.0f;
            }
            const Bytes alone = StreamBytes(m);
            const float error = m.GetMaxAbsCompressionError();
            for (RbThreadPool* pool : {&one, &two}) {
                RbStreamWriteBinaryBuffer out;
                m.Serialize(out, pool);
                EXPECT_EQ(out.GetBytes(), alone) << grid.GetSizeX() << " " << c.method << " " << c.passes << " "
                                                 << c.bound << " " << pool->GetThreadCount();
                EXPECT_TRUE(SameValue(m.GetMaxAbsCompressionError(), error));
            }
        }
}

// One PNG pass reports the quantiser's own round trip, max |v - Unmap(Map(v))|, worked out
// element by element from the description it wrote.
TEST(MatrixStreamPasses, OnePngPassReportsTheRoundTripOfItsQuantizer)
{
    for (const CSSEMatrix& grid : SampleGrids())
        for (float bound : {0.0f, 0.5f}) {
            const CSSEMatrix m = Coded(grid, 2, 1, bound);
            const Pass pass = ParsePasses(StreamBytes(m)).at(0);
            const RyFloatingPointQuantizationUniform q(pass.min, pass.max, pass.factor);
            float expected = 0.0f;
            for (int y = 0; y < m.GetSizeY(); ++y)
                for (int x = 0; x < m.GetSizeX(); ++x) {
                    const float v = m.GetPointUnsafe(x, y);
                    expected = std::max(expected, std::fabs(v - q.Unmap(q.Map(v))));
                }
            EXPECT_EQ(m.GetMaxAbsCompressionError(), expected) << grid.GetSizeX() << " " << bound;
        }
}

// The reader's sum, element by element from the stream's own fields: each pass adds
// min + code / factor (the invalid value for code 255 of a pass that has one) until a pass
// brings the invalid value.
TEST(MatrixStreamPasses, ReaderSumsThePassesAsTheFormatSaysIntoNewAndUsedMatrices)
{
    for (const float invalid : {0.0f, -9.5f, kNaN}) {   // 0: no invalid value in use
        // Blocks of 16 columns, a tail and a last band of three rows.
        CSSEMatrix surface = Surface(37, 11, 9);
        for (int y = 0; y < 11; ++y)
            for (int x = 0; x < 37; ++x)
                if (invalid != 0.0f && (x + 2 * y) % 7 == 0)
                    surface.SetPointUnsafe(x, y, invalid);
        surface.GetCompressionParameters().m_bUseInvalidValue = invalid != 0.0f;
        surface.GetCompressionParameters().m_fInvalidValue = invalid;
        for (int method : {2, 3})
            for (unsigned passes : {1u, 2u, 3u, 6u})   // 6: read and summed pass by pass
                for (float bound : {0.0f, 0.5f}) {
                    const Bytes bytes = StreamBytes(Coded(surface, method, passes, bound));
                    std::vector<float> expected(37 * 11, 0.0f);
                    std::vector<bool> settled(expected.size(), false);
                    for (const Pass& p : ParsePasses(bytes)) {
                        const qzsse::detail::DecodedImage codes =
                            qzsse::detail::DecodeImage(p.image.data(), p.image.size());
                        ASSERT_EQ(codes.pixels.size(), expected.size());
                        for (size_t i = 0; i < expected.size(); ++i) {
                            const unsigned code = codes.pixels[i];
                            const float t = p.withInvalid && code == 255 ? p.invalid
                                                                         : p.min + static_cast<float>(code) / p.factor;
                            if (!settled[i])
                                expected[i] += t;
                            if (p.withInvalid && SameValue(t, p.invalid))
                                settled[i] = true;
                        }
                    }
                    CSSEMatrix used = MatrixOf(37, 11, [](int, int) { return kNaN; });
                    CSSEMatrix fresh;
                    for (CSSEMatrix* back : {&used, &fresh}) {
                        ReadStream(*back, bytes);
                        const std::vector<float> got = Pixels(*back);
                        for (size_t i = 0; i < expected.size(); ++i)
                            ASSERT_TRUE(SameValue(got[i], expected[i]) && std::signbit(got[i]) == std::signbit(expected[i]))
                                << invalid << " " << method << " " << passes << " " << bound << " at " << i << ": "
                                << got[i] << " vs " << expected[i];
                    }
                }
    }
}

TEST(MatrixStreamTwoLevel, CodesTheMeanOfTheValidElementsAndTheInvalidPlane)
{
    // Width 9 puts a partial byte at the end of every bit-plane row; 24 valid
    // elements hold 2 and 6 hold 4.
    CSSEMatrix m = Coded(MatrixOf(9, 5, [](int x, int y) { return (x + y) % 3 == 0 ? -1.0f : 2.0f + 2.0f * (x * y % 2); }), 4);
    m.GetCompressionParameters().m_fInvalidValue = -1.0f;
    const float mean = (24 * 2.0f + 6 * 4.0f) / 30.0f;
    const RoundTrip t = Through(m);
    EXPECT_EQ(Bytes(t.bytes.begin(), t.bytes.begin() + 13), (Bytes{4, 0, 0, 0, 9, 0, 0, 0, 5, 0, 0, 0, 4}));
    EXPECT_EQ(FloatAt(t.bytes, 13), mean);
    EXPECT_EQ(FloatAt(t.bytes, 17), -1.0f);
    EXPECT_EQ(Pixels(t.back), Pixels(MatrixOf(9, 5, [&](int x, int y) { return m.GetPoint(x, y) == -1.0f ? -1.0f : mean; })));
    EXPECT_EQ(t.reported, 4.0f - mean);
}

TEST(MatrixStreamUntrusted, ImpossibleSizesThrowBeforeTheMatrixChanges)
{
    const Bytes cases[] = {
        ByteWriter().u32(4).i32(-1).i32(2).u8(9).get(),
        ByteWriter().u32(4).i32(2).i32(-1).u8(9).get(),
        ByteWriter().u32(4).i32(1).i32(32000).u8(9).get(),
        ByteWriter().u32(1).i32(1).i32(std::numeric_limits<int>::min()).get(),
        ByteWriter().u32(4).i32(2).i32(5).u8(0).bytes(Bytes(63, 0)).get(),   // 2 x 5 raw needs 64 bytes
        ByteWriter().u32(4).i32(0x7FFFFFFF).i32(31999).u8(0).get(),
        // 20000 x 100 pixels need at least 2000000 / 1032 bytes of pass images.
        ByteWriter().u32(4).i32(20000).i32(100).u8(2).u32(1).bytes(Bytes(1937, 0)).get(),
    };
    for (const Bytes& bytes : cases) {
        CSSEMatrix m = Rows(1, {3});
        EXPECT_THROW(ReadStream(m, bytes), RbStreamException);
        EXPECT_EQ(Pixels(m), std::vector<float>{3});
    }
    // The largest height is accepted, and so is a size without passes to bound it.
    CSSEMatrix m;
    ReadStream(m, ByteWriter().u32(4).i32(0).i32(31999).u8(0).get());
    EXPECT_EQ(m.GetSizeY(), 31999);
    ReadStream(m, ByteWriter().u32(4).i32(20000).i32(100).u8(2).u32(0).get());
    EXPECT_EQ(m.GetPoint(19999, 99), 0.0f);
}

TEST(MatrixStreamUntrusted, ImagesOfAnotherSizeReachTheCommonPartOrNothingAndUndecodableOnesNothing)
{
    CSSEMatrix m;
    ReadStream(m, ByteWriter()
                      .u32(4).i32(3).i32(3).u8(2).u32(1)
                      .f32(1).f32(100).f32(1).u8(0).bytes(PngImage(2, 2, {10, 20, 30, 40}))
                      .get());
    EXPECT_EQ(Pixels(m), (std::vector<float>{11, 21, 0, 31, 41, 0, 0, 0, 0}));

    const Bytes bytes = ByteWriter()
                            .u32(4).i32(2).i32(2).u8(2).u32(2)
                            .f32(1).f32(9).f32(1).u8(0).u32(4).bytes({'a', 'b', 'c', 'd'})
                            .f32(3).f32(9).f32(1).u8(0).bytes(PngImage(2, 2, {1, 2, 3, 4}))
                            .get();
    m = Rows(2, {8, 8, 8, 8});
    EXPECT_EQ(ReadStream(m, bytes), bytes.size());
    EXPECT_EQ(Pixels(m), (std::vector<float>{4, 5, 6, 7}));

    // A two-level plane of another size leaves the matrix as created.
    CodecAccess plane(Rows(3, {1, 2, 3, 4, 5, 6}));
    RbStreamWriteBinaryBuffer payload;
    plane.encodeCCITT4(payload);
    ReadStream(m, ByteWriter().u32(4).i32(3).i32(3).u8(4).bytes(payload.GetBytes()).get());
    EXPECT_EQ(Pixels(m), std::vector<float>(9, 0.0f));
}

TEST(MatrixStreamUntrusted, DamagedStreamsOfEveryMethodThrowStreamErrorsOrRead)
{
    std::mt19937 rng(3);
    FeedDamaged(StreamBytes(RandomStored(3, 5, rng)), ReadIntoUsedMatrix);
    FeedDamaged(StreamBytes(RandomStored(1, 4, rng)), ReadIntoUsedMatrix);
    CSSEMatrix m = Surface(5, 3, 7);
    m.GetCompressionParameters().m_bUseInvalidValue = true;
    m.GetCompressionParameters().m_fInvalidValue = m.GetPoint(1, 1);
    for (auto [method, passes] : {std::pair{2, 2u}, std::pair{1, 1u}, std::pair{3, 2u}})
        FeedDamaged(StreamBytes(Coded(m, method, passes)), ReadIntoUsedMatrix);
    // A bit plane may truly claim any width (a blank row costs one bit), so flipped size
    // bytes would only ask for huge matrices: those are cut, not flipped.
    FeedDamaged(StreamBytes(Coded(m, 4)), ReadIntoUsedMatrix, false, 12);
}

TEST(MatrixArchive, TaggedMatricesReadBackAndTheArchiveGoesOnAfterEach)
{
    ScratchDir dir;
    const CSSEMatrix first = Surface(4, 7, 2), second = Surface(2, 1, 3);
    for (int bufferSize : {5, 4096}) {
        WithArchive(dir.File("m.bin"), CArchive::store, bufferSize, [&](CArchive& ar) {
            CSSEMatrix(first).Serialize(ar);
            ar << std::int32_t{0x12345678};
            CSSEMatrix(second).Serialize(ar);
        });
        EXPECT_EQ(ReadFileBytes(dir.File("m.bin")),
                  Concat(Concat(Concat(kTag, StreamBytes(first)), {0x78, 0x56, 0x34, 0x12}), Concat(kTag, StreamBytes(second))));
        CSSEMatrix a, b;
        std::int32_t between = 0;
        WithArchive(dir.File("m.bin"), CArchive::load, bufferSize, [&](CArchive& ar) {
            a.Serialize(ar);
            ar >> between;
            b.Serialize(ar);
        });
        EXPECT_EQ(Pixels(a), Pixels(first));
        EXPECT_EQ(between, 0x12345678);
        EXPECT_EQ(Pixels(b), Pixels(second));
    }
}

TEST(MatrixArchive, UntaggedDataIsReadAsVersionOneFromWhereItStarts)
{
    // Width 2 reads as a 2-unit string, width 10 as one of the tag's length, and width 200
    // as a string longer than the file: none is the tag.
    ScratchDir dir;
    for (int width : {2, 10, 200}) {
        ByteWriter w;
        w.i32(width).i32(3);
        for (int x = 0; x < width; ++x)
            w.f32(static_cast<float>(x)).f32(0.5f).f32(-1.0f).f32(0.0f);
        WriteFileBytes(dir.File("old.bin"), w.i32(77).get());
        CSSEMatrix m;
        m.GetCompressionParameters().m_eMethod = 2;
        std::int32_t after = 0;
        WithArchive(dir.File("old.bin"), CArchive::load, 4096, [&](CArchive& ar) {
            m.Serialize(ar);
            ar >> after;
        });
        ASSERT_EQ(m.GetSizeX(), width);
        EXPECT_EQ(Pixels(m), Pixels(MatrixOf(width, 3, [](int x, int y) { return y == 0 ? x : y == 1 ? 0.5f : -1.0f; })));
        EXPECT_EQ(m.GetCompressionParameters().m_eMethod, 0);
        EXPECT_EQ(after, 77);
    }
    WriteFileBytes(dir.File("empty.bin"), ByteWriter().i32(200).i32(0).get());
    CSSEMatrix m;
    EXPECT_TRUE(m.Load(dir.File("empty.bin")));
    EXPECT_EQ(m.GetSizeX(), 200);
    EXPECT_EQ(m.GetSizeY(), 0);
}

TEST(MatrixFile, StoreAndLoadRoundTripTheArchiveForm)
{
    ScratchDir dir;
    const std::string path = dir.File("matrix.qzm");
    CSSEMatrix coded = Surface(9, 7, 4);
    coded.GetCompressionParameters().m_eMethod = 3;
    coded.GetCompressionParameters().m_uiNumberOfPasses = 2;
    for (CSSEMatrix m : {Surface(6, 5, 5), coded}) {
        ASSERT_TRUE(m.Store(path));   // the second time over an existing file
        EXPECT_EQ(ReadFileBytes(path), Concat(kTag, StreamBytes(m)));
        CSSEMatrix back, fromStream;
        ASSERT_TRUE(back.Load(path));
        ReadStream(fromStream, StreamBytes(m));
        EXPECT_EQ(Pixels(back), Pixels(fromStream));
        EXPECT_EQ(back.GetCompressionParameters().m_eMethod, m.GetCompressionParameters().m_eMethod);
    }
    EXPECT_EQ(dir.Entries(), std::vector<std::string>{"matrix.qzm"});
    CSSEMatrix untouched = Surface(2, 2, 6);
    EXPECT_FALSE(untouched.Load(dir.File("missing.qzm")));
    EXPECT_EQ(Pixels(untouched), Pixels(Surface(2, 2, 6)));
}

TEST(MatrixFile, FailedStoreKeepsTheOldFileAndLeavesNoTemporaryFile)
{
    ScratchDir dir;
    const std::string path = dir.File("keep.qzm");
    WriteFileBytes(path, {1, 2, 3});
    CSSEMatrix m = Surface(2, 2, 6);
    EXPECT_FALSE(m.Store(dir.File("no-such-dir/keep.qzm")));
    std::filesystem::create_directory(dir.Path() / "sub");
    EXPECT_FALSE(m.Store(dir.File("sub")));   // the rename over a directory fails
    // A matrix without storage fails in the middle of the archive.
    CSSEMatrix freed = Surface(3, 3, 7);
    freed.Free();
    EXPECT_THROW(freed.Store(path), std::logic_error);
    if (::geteuid() != 0) {   // no temporary file can be made in a read-only directory
        ::chmod(dir.Path().c_str(), 0500);
        EXPECT_FALSE(m.Store(path));
        ::chmod(dir.Path().c_str(), 0700);
    }
    EXPECT_EQ(ReadFileBytes(path), (Bytes{1, 2, 3}));
    EXPECT_EQ(dir.Entries(), (std::vector<std::string>{"keep.qzm", "sub"}));
}

TEST(MatrixFile, DamagedAndNewerFilesThrowStreamErrors)
{
    ScratchDir dir;
    const std::string path = dir.File("t.qzm");
    ASSERT_TRUE(Surface(3, 5, 8).Store(path));
    Bytes file = ReadFileBytes(path);
    FeedDamaged(file, [&](const Bytes& damaged) {
        WriteFileBytes(path, damaged);
        CSSEMatrix back;
        back.Load(path);
    });
    file[kTag.size()] = 5;
    WriteFileBytes(path, file);
    CSSEMatrix back;
    EXPECT_THROW(back.Load(path), RbStreamException);
}

namespace {

// The matrix a reader must build from a version-4 stream, element by element from its fields:
// each pass's codes as DecodeImage gives them (a pass it cannot decode adds nothing), summed
// until a pass brings the invalid value. Counts the literal-only PNG passes in literalOnly.
std::vector<float> SumOfPasses(const Bytes& stream, size_t pixels, int& literalOnly)
{
    std::vector<float> expected(pixels, 0.0f);
    std::vector<bool> settled(pixels, false);
    for (const Pass& p : ParsePasses(stream)) {
        if (IsPng(p.image) && (p.image.at(8 + 25 + 8 + 2) & 0xFE) == 0x04)
            ++literalOnly;
        const qzsse::detail::DecodedImage codes = qzsse::detail::DecodeImage(p.image.data(), p.image.size());
        if (codes.pixels.size() != pixels)
            continue;
        for (size_t i = 0; i < pixels; ++i) {
            const unsigned code = codes.pixels[i];
            const float t = p.withInvalid && code == 255 ? p.invalid : p.min + static_cast<float>(code) / p.factor;
            if (!settled[i])
                expected[i] += t;
            if (p.withInvalid && SameValue(t, p.invalid))
                settled[i] = true;
        }
    }
    return expected;
}

void ExpectSameFloats(const std::vector<float>& got, const std::vector<float>& expected, const std::string& what)
{
    ASSERT_EQ(got.size(), expected.size()) << what;
    for (size_t i = 0; i < expected.size(); ++i)
        ASSERT_TRUE(SameValue(got[i], expected[i]) && std::signbit(got[i]) == std::signbit(expected[i]))
            << what << " at " << i << ": " << got[i] << " vs " << expected[i];
}

// Bytes of `stream` from the middle of its pass `k` image on, damaged so that its decoder
// fails part way: a JPEG gets an end-of-image marker inside its scan, a PNG a changed
// byte inside its deflate stream, with the chunk's CRC made right again.
Bytes DamagePassMidway(Bytes stream, size_t k)
{
    const Pass p = ParsePasses(stream).at(k);
    const auto at = static_cast<size_t>(std::search(stream.begin(), stream.end(), p.image.begin(), p.image.end()) - stream.begin());
    const size_t middle = at + p.image.size() / 2;
    if (!IsPng(p.image)) {
        stream.at(middle) = 0xFF;
        stream.at(middle + 1) = 0xD9;
        return stream;
    }
    stream.at(middle) ^= 0x5A;
    const size_t idat = at + 8 + 25;
    const size_t length = static_cast<size_t>(stream.at(idat)) << 24 | stream.at(idat + 1) << 16 | stream.at(idat + 2) << 8
                          | stream.at(idat + 3);
    const auto crc = static_cast<std::uint32_t>(crc32(0, stream.data() + idat + 4, static_cast<uInt>(length + 4)));
    for (int i = 0; i < 4; ++i)
        stream.at(idat + 8 + length + static_cast<size_t>(i)) = static_cast<unsigned char>(crc >> (24 - 8 * i));
    return stream;
}

} // namespace

TEST(MatrixStreamPasses, PassesReadByRowsGiveTheSumOfTheirPassesAcrossStripsAndAfterDamage)
{
    // 45 rows: strips of 16, 16 and 13 rows, the last band partial; 37 columns: a tail
    // after the four-column steps.
    const CSSEMatrix surface = Surface(37, 45, 11);
    int literalOnly = 0;
    int damagedChecked = 0;
    for (int method : {1, 2, 3})
        for (unsigned passes : {1u, 2u, 3u})
            for (float bound : {0.0f, 0.5f}) {
                const Bytes bytes = StreamBytes(Coded(surface, method, passes, bound));
                const std::string what = std::to_string(method) + " " + std::to_string(passes) + " " + std::to_string(bound);
                CSSEMatrix back;
                ReadStream(back, bytes);
                ExpectSameFloats(Pixels(back), SumOfPasses(bytes, 37 * 45, literalOnly), what);
                // A pass failing part way through adds nothing, as when it fails at once.
                for (size_t k = 0; k < passes; ++k) {
                    const Bytes damaged = DamagePassMidway(bytes, k);
                    const Pass p = ParsePasses(damaged).at(k);
                    if (!qzsse::detail::DecodeImage(p.image.data(), p.image.size()).pixels.empty())
                        continue;   // the change happened to leave a valid stream
                    ++damagedChecked;
                    CSSEMatrix used = Surface(37, 45, 1);
                    ReadStream(used, damaged);
                    int ignored = 0;
                    ExpectSameFloats(Pixels(used), SumOfPasses(damaged, 37 * 45, ignored), what + " damaged pass " + std::to_string(k));
                }
            }
    EXPECT_GT(literalOnly, 0);
    EXPECT_GT(damagedChecked, 20);
}
