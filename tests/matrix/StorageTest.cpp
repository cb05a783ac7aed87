#include <cstdint>
#include <random>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"
#include "qzsse/core/SafeAlloc.h"

using qzsse::test::floatBits;
using qzsse::test::storedFloats;

namespace {

bool aligned16(const void* p) { return reinterpret_cast<uintptr_t>(p) % 16 == 0; }

bool allStoredBitsAre(const CSSEMatrix& m, uint32_t bits)
{
    for (float f : storedFloats(m))
        if (floatBits(f) != bits)
            return false;
    return true;
}

} // namespace

TEST(Storage, CreateSizesBandsAndFields)
{
    struct Case { int w, h, bands, fields; };
    // bands = h / 4 + 1 always; a field holds 32 bands.
    const Case cases[] = {{5, 4, 2, 1}, {7, 3, 1, 1}, {3, 0, 1, 1}, {10, 127, 32, 1},
                          {10, 128, 33, 2}, {4, 255, 64, 2}, {4, 256, 65, 3}};
    for (const Case& c : cases) {
        CSSEMatrix m;
        m.Create(c.w, c.h);
        EXPECT_EQ(m.GetSizeX(), c.w);
        EXPECT_EQ(m.GetSizeY(), c.h);
        EXPECT_EQ(m.GetSSESizeX(), c.w);
        EXPECT_EQ(m.GetSSESizeY(), c.bands) << c.w << "x" << c.h;
        EXPECT_EQ(m.GetFields(), c.fields) << c.w << "x" << c.h;
        EXPECT_EQ(m.GetLinesPerField(), 32);
        EXPECT_EQ(m.GetRowProcessed(), 0);
    }
}

TEST(Storage, BandPointersLieInsideTheirFieldBlocks)
{
    CSSEMatrix m;
    m.Create(3, 300); // 76 bands: fields of 32, 32 and 12
    ASSERT_EQ(m.GetFields(), 3);
    __m128** data = m.GetMatrixDataDirectly();
    EXPECT_TRUE(aligned16(data));
    for (int j = 0; j < 76; ++j) {
        EXPECT_TRUE(aligned16(m.GetField(j / 32)));
        EXPECT_EQ(data[j], m.GetField(j / 32) + (j % 32) * 3) << "band " << j;
    }
    for (int i = 3; i < CSSEMatrix::c_iMaxFields; ++i)
        EXPECT_EQ(m.GetField(i), nullptr);
    // Every pixel of every field keeps its own value.
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 3; ++x)
            m.SetPoint(x, y, static_cast<float>(y * 3 + x));
    for (int y = 0; y < 300; ++y)
        for (int x = 0; x < 3; ++x)
            ASSERT_EQ(m.GetPoint(x, y), static_cast<float>(y * 3 + x));
}

TEST(Storage, CreateZeroesEveryFloatIncludingPadding)
{
    for (int h : {6, 300}) {
        CSSEMatrix m;
        m.CreateNoClear(5, h);
        m.Fill(-1.0f);
        m.Create(5, h); // likely handed the same dirty blocks back
        EXPECT_TRUE(allStoredBitsAre(m, 0u)) << "height " << h;
        m.Fill(-0.0f);
        EXPECT_TRUE(allStoredBitsAre(m, 0x80000000u));
        m.Fill(2.5f);
        EXPECT_TRUE(allStoredBitsAre(m, floatBits(2.5f)));
        m.Clear();
        EXPECT_TRUE(allStoredBitsAre(m, 0u));
    }
}

TEST(Storage, ClearRowClampsTheRow)
{
    CSSEMatrix m;
    m.Create(3, 6);
    m.ClearRow(-5, 7.0f);
    m.ClearRow(100, 3.0f);
    m.ClearRow(2, 1.0f);
    const float expectedRows[6] = {7, 0, 1, 0, 0, 3};
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 3; ++x)
            EXPECT_EQ(m.GetPoint(x, y), expectedRows[y]) << x << "," << y;
    EXPECT_EQ(storedFloats(m)[qzsse::test::storedIndex(m, 0, 6)], 0.0f); // padding untouched
}

TEST(Storage, FreeKeepsSizesAndDropsStorage)
{
    CSSEMatrix m;
    m.Create(6, 130);
    m.Free();
    EXPECT_EQ(m.GetSizeX(), 6);
    EXPECT_EQ(m.GetSizeY(), 130);
    EXPECT_EQ(m.GetSSESizeY(), 33);
    EXPECT_EQ(m.GetMatrixDataDirectly(), nullptr);
    EXPECT_EQ(m.GetFields(), 0);
    EXPECT_EQ(m.GetField(0), nullptr);
    EXPECT_EQ(m.GetField(1), nullptr);
    m.Free(); // no storage: nothing to do
    m.Create(2, 2);
    EXPECT_EQ(m.GetPoint(1, 1), 0.0f);
}

TEST(Storage, DefaultCompressionParameters)
{
    const CSSEMatrix m;
    const auto& p = m.GetCompressionParameters();
    EXPECT_EQ(p.m_eMethod, 0);
    EXPECT_FALSE(p.m_bUseInvalidValue);
    EXPECT_EQ(floatBits(p.m_fInvalidValue), 0u);
    EXPECT_EQ(p.m_uiNumberOfPasses, 1u);
    EXPECT_EQ(floatBits(p.m_fJPEGQuality), 0x3F733333u);
    EXPECT_EQ(floatBits(p.m_fMaxAbsError), 0u);
    EXPECT_FALSE(p.m_bUseFixedRange);
    EXPECT_EQ(floatBits(p.m_fRangeMin), 0u);
    EXPECT_EQ(floatBits(p.m_fRangeMax), 0u);
    EXPECT_EQ(m.GetMatrixDataDirectly(), nullptr);
    EXPECT_EQ(m.GetSizeX(), 0);
    EXPECT_EQ(m.GetFields(), 0);
}

TEST(Storage, CopiesAreDeepAndReuseEqualSizedStorage)
{
    std::mt19937 rng(11);
    for (int h : {9, 300}) { // one block copy, then band-by-band across fields
        CSSEMatrix src;
        src.Create(4, h);
        qzsse::test::fillRandom(src, rng);
        src.GetCompressionParameters().m_eMethod = 2;
        src.SetRowProcessed(7);

        CSSEMatrix dst;
        dst.Create(4, h);
        __m128** before = dst.GetMatrixDataDirectly();
        __m128* field0 = dst.GetField(0);
        dst = src;
        EXPECT_EQ(dst.GetMatrixDataDirectly(), before);
        EXPECT_EQ(dst.GetField(0), field0);
        EXPECT_EQ(dst.GetCompressionParameters().m_eMethod, 2);
        EXPECT_EQ(dst.GetRowProcessed(), 0);

        CSSEMatrix other;
        other.Create(2, 3);
        other = src; // resized to the source
        CSSEMatrix constructed(src);
        const std::vector<float> original = storedFloats(src);
        for (const CSSEMatrix* copy : {&dst, &other, &constructed}) {
            ASSERT_EQ(copy->GetSizeX(), 4);
            ASSERT_EQ(copy->GetSizeY(), h);
            EXPECT_NE(copy->GetMatrixDataDirectly(), src.GetMatrixDataDirectly());
            const std::vector<float> got = storedFloats(*copy);
            for (size_t i = 0; i < got.size(); ++i)
                ASSERT_TRUE(qzsse::test::sameBits(got[i], original[i])) << "float " << i;
        }
        src.Fill(5.0f);
        EXPECT_TRUE(qzsse::test::sameBits(storedFloats(constructed)[0], original[0]));
    }
}

TEST(Storage, SelfCopyKeepsContent)
{
    CSSEMatrix m;
    m.Create(3, 5);
    m.SetPoint(2, 4, 9.0f);
    CSSEMatrix& alias = m;
    m = alias;
    m.CopyFromSSEMatrix(alias);
    EXPECT_EQ(m.GetPoint(2, 4), 9.0f);
}

TEST(Storage, CopyFromEmptyKeepsPixelsButTakesParameters)
{
    CSSEMatrix dst;
    dst.Create(3, 3);
    dst.SetPoint(1, 1, 4.0f);
    CSSEMatrix emptySrc;
    emptySrc.GetCompressionParameters().m_uiNumberOfPasses = 3;
    emptySrc.GetCompressionParameters().m_fRangeMax = 8.0f;
    CSSEMatrix freedSrc;
    freedSrc.Create(7, 7);
    freedSrc.Free();
    for (const CSSEMatrix* src : {&emptySrc, &freedSrc}) {
        dst.GetCompressionParameters().m_eMethod = 4;
        dst = *src;
        EXPECT_EQ(dst.GetSizeX(), 3);
        EXPECT_EQ(dst.GetSizeY(), 3);
        EXPECT_EQ(dst.GetPoint(1, 1), 4.0f);
        EXPECT_EQ(dst.GetCompressionParameters().m_eMethod, 0);
        EXPECT_EQ(dst.GetCompressionParameters().m_uiNumberOfPasses,
                  src->GetCompressionParameters().m_uiNumberOfPasses);
        EXPECT_EQ(dst.GetCompressionParameters().m_fRangeMax, src->GetCompressionParameters().m_fRangeMax);
    }
}

TEST(Storage, CreateSimilarTakesSizeOnly)
{
    CSSEMatrix src;
    src.Create(5, 9);
    src.Fill(3.0f);
    src.GetCompressionParameters().m_eMethod = 1;
    CSSEMatrix m;
    m.CreateSimilar(src);
    EXPECT_EQ(m.GetSizeX(), 5);
    EXPECT_EQ(m.GetSizeY(), 9);
    EXPECT_TRUE(allStoredBitsAre(m, 0u));
    EXPECT_EQ(m.GetCompressionParameters().m_eMethod, 0);
}

TEST(Storage, CopyFromFieldReadsRowThenColumn)
{
    RyField2D<float, 1> field(3, 5); // width 3, height 5
    for (int row = 0; row < 5; ++row)
        for (int col = 0; col < 3; ++col)
            field(row, col) = static_cast<float>(10 * row + col);
    CSSEMatrix fromCtor(field);
    CSSEMatrix reused;
    reused.Create(8, 2);
    reused.CopyFromField(field);
    for (const CSSEMatrix* m : {&fromCtor, &reused}) {
        ASSERT_EQ(m->GetSizeX(), 3);
        ASSERT_EQ(m->GetSizeY(), 5);
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 3; ++x)
                EXPECT_EQ(m->GetPoint(x, y), static_cast<float>(10 * y + x));
    }
}

TEST(Storage, InitForgetsStorageWithoutReleasingIt)
{
    CSSEMatrix m;
    m.Create(5, 130);
    m.SetPoint(4, 129, 6.0f);
    m.SetRowProcessed(3);
    m.GetCompressionParameters().m_eMethod = 3;
    __m128** data = m.GetMatrixDataDirectly();
    __m128* fields[2] = {m.GetField(0), m.GetField(1)};
    float* pixel = m.GetPointAddress(4, 129);

    m.init();
    EXPECT_EQ(m.GetSizeX(), 0);
    EXPECT_EQ(m.GetSizeY(), 0);
    EXPECT_EQ(m.GetSSESizeX(), 0);
    EXPECT_EQ(m.GetSSESizeY(), 0);
    EXPECT_EQ(m.GetRowProcessed(), 0);
    EXPECT_EQ(m.GetFields(), 0);
    EXPECT_EQ(m.GetMatrixDataDirectly(), nullptr);
    for (int i = 0; i < CSSEMatrix::c_iMaxFields; ++i)
        EXPECT_EQ(m.GetField(i), nullptr);
    EXPECT_EQ(m.GetCompressionParameters().m_eMethod, 3);
    EXPECT_EQ(*pixel, 6.0f); // still owned by whoever took it over
    SafeAlignedFree(fields[0]);
    SafeAlignedFree(fields[1]);
    SafeAlignedFree(data);
}
