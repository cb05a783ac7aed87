#include <random>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"
#include "qzsse/core/SafeAlloc.h"

using namespace qzsse::test;

namespace {

// Width, height, vectors per band, bands and field blocks.
std::vector<int> sizesOf(const CSSEMatrix& m)
{
    return {m.GetSizeX(), m.GetSizeY(), m.GetSSESizeX(), m.GetSSESizeY(), m.GetFields()};
}

bool allStoredFloatsAre(const CSSEMatrix& m, float v)
{
    return storedFloats(m) == std::vector<float>(storedFloats(m).size(), v);
}

} // namespace

// bands = h / 4 + 1 always, so a multiple of four still gets a whole padding band; a field
// block holds 32 bands and a band never straddles two blocks.
TEST(Storage, CreateSizesBandsAndFields)
{
    struct Case { int w, h, bands, fields; };
    for (const Case& c : {Case{5, 4, 2, 1}, Case{7, 3, 1, 1}, Case{3, 0, 1, 1}, Case{10, 127, 32, 1},
                          Case{10, 128, 33, 2}, Case{4, 255, 64, 2}, Case{3, 300, 76, 3}}) {
        CSSEMatrix m;
        m.Create(c.w, c.h);
        ASSERT_EQ(sizesOf(m), (std::vector<int>{c.w, c.h, c.w, c.bands, c.fields}));
        for (int j = 0; j < c.bands; ++j)
            ASSERT_EQ(m.GetMatrixDataDirectly()[j], m.GetField(j / 32) + (j % 32) * c.w) << "band " << j;
    }
}

// Create and CreateSimilar zero every float, padding included, even on reused dirty blocks;
// CreateSimilar takes the size only.
TEST(Storage, CreateZeroesEveryFloatAndFillWritesPaddingToo)
{
    for (int h : {6, 300}) {
        CSSEMatrix m, similar;
        m.CreateNoClear(5, h);
        m.Fill(-1.0f);
        m.GetCompressionParameters().m_eMethod = 1;
        m.Create(5, h);
        EXPECT_TRUE(allStoredFloatsAre(m, 0.0f)) << "height " << h;
        m.Fill(2.5f);
        EXPECT_TRUE(allStoredFloatsAre(m, 2.5f));
        similar.CreateSimilar(m);
        EXPECT_EQ(sizesOf(similar), sizesOf(m));
        EXPECT_EQ(similar.GetCompressionParameters().m_eMethod, 0);
        EXPECT_TRUE(allStoredFloatsAre(similar, 0.0f));
    }
}

TEST(Storage, ClearRowClampsTheRow)
{
    CSSEMatrix m;
    m.Create(3, 6);
    m.ClearRow(-5, 7.0f);
    m.ClearRow(100, 3.0f);
    m.ClearRow(2, 1.0f);
    const float rows[8] = {7, 0, 1, 0, 0, 3, 0, 0}; // rows 6 and 7 are padding
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 3; ++x)
            EXPECT_EQ(m.GetPointUnsafe(x, y), rows[y]) << x << "," << y;
}

TEST(Storage, FreeKeepsSizesAndDropsStorage)
{
    CSSEMatrix m;
    m.Create(6, 130);
    m.Free();
    EXPECT_EQ(sizesOf(m), (std::vector<int>{6, 130, 6, 33, 0}));
    EXPECT_EQ(m.GetMatrixDataDirectly(), nullptr);
    EXPECT_EQ(m.GetField(1), nullptr);
}

TEST(Storage, ConstructionSetsDefaultCompressionParameters)
{
    const CSSEMatrix::QzSCompressionParameters p = CSSEMatrix().GetCompressionParameters();
    EXPECT_EQ((std::vector<float>{float(p.m_eMethod), float(p.m_uiNumberOfPasses), p.m_fJPEGQuality, p.m_fInvalidValue,
                                  p.m_fMaxAbsError, p.m_fRangeMin, p.m_fRangeMax}),
              (std::vector<float>{0, 1, 0.95f, 0, 0, 0, 0}));
    EXPECT_FALSE(p.m_bUseInvalidValue || p.m_bUseFixedRange);
}

// Copies take every band (padding included) and the parameters but not the processed row;
// a destination of the same size keeps its storage.
TEST(Storage, CopiesAreDeepAndReuseEqualSizedStorage)
{
    std::mt19937 rng(11);
    for (int h : {9, 300}) {
        CSSEMatrix src = randomMatrix(rng, 4, h), dst, resized;
        src.GetCompressionParameters().m_eMethod = 2;
        src.SetRowProcessed(7);
        dst.Create(4, h);
        __m128** before = dst.GetMatrixDataDirectly();
        dst = src;
        EXPECT_EQ(dst.GetMatrixDataDirectly(), before);
        EXPECT_EQ(dst.GetCompressionParameters().m_eMethod, 2);
        EXPECT_EQ(dst.GetRowProcessed(), 0);
        resized.Create(2, 3);
        resized = src;
        CSSEMatrix constructed(src);
        const std::vector<float> original = storedFloats(src);
        src.Fill(5.0f);
        for (const CSSEMatrix* copy : {&dst, &resized, &constructed}) {
            ASSERT_EQ(sizesOf(*copy), sizesOf(src));
            EXPECT_TRUE(sameFloats(original, storedFloats(*copy)));
        }
        const CSSEMatrix& alias = dst;
        dst = alias;
        dst.CopyFromSSEMatrix(alias);
        EXPECT_TRUE(sameFloats(original, storedFloats(dst)));
    }
}

// The source's parameters are taken; the pixels and sizes stay.
TEST(Storage, CopyFromEmptyKeepsPixelsButTakesParameters)
{
    CSSEMatrix dst, neverCreated, freed;
    dst.Create(3, 3);
    dst.SetPoint(1, 1, 4.0f);
    neverCreated.GetCompressionParameters().m_uiNumberOfPasses = 3;
    freed.Create(7, 7);
    freed.GetCompressionParameters().m_fRangeMax = 8.0f;
    freed.Free();
    for (const CSSEMatrix* src : {&neverCreated, &freed}) {
        dst.GetCompressionParameters().m_eMethod = 4;
        dst = *src;
        EXPECT_EQ(sizesOf(dst), (std::vector<int>{3, 3, 3, 1, 1}));
        EXPECT_EQ(dst.GetPoint(1, 1), 4.0f);
        EXPECT_EQ(dst.GetCompressionParameters().m_eMethod, 0);
        const auto& taken = src->GetCompressionParameters();
        EXPECT_EQ(dst.GetCompressionParameters().m_uiNumberOfPasses, taken.m_uiNumberOfPasses);
        EXPECT_EQ(dst.GetCompressionParameters().m_fRangeMax, taken.m_fRangeMax);
    }
}

TEST(Storage, CopyFromFieldReadsRowThenColumn)
{
    RyField2D<float, 1> field(3, 5); // width 3, height 5
    for (int row = 0; row < 5; ++row)
        for (int col = 0; col < 3; ++col)
            field(row, col) = static_cast<float>(10 * row + col);
    CSSEMatrix m(field);
    ASSERT_EQ(sizesOf(m), (std::vector<int>{3, 5, 3, 2, 1}));
    EXPECT_EQ(realPixels(m), (std::vector<float>{0, 1, 2, 10, 11, 12, 20, 21, 22, 30, 31, 32, 40, 41, 42}));
}

// For objects whose storage was handed on: sizes and the field table go, the blocks stay.
TEST(Storage, InitForgetsStorageWithoutReleasingIt)
{
    CSSEMatrix m;
    m.Create(5, 130);
    void* blocks[3] = {m.GetMatrixDataDirectly(), m.GetField(0), m.GetField(1)};
    float* pixel = m.GetPointAddress(4, 129);
    *pixel = 6.0f;
    m.init();
    EXPECT_EQ(sizesOf(m), std::vector<int>(5, 0));
    EXPECT_EQ(m.GetMatrixDataDirectly(), nullptr);
    EXPECT_EQ(m.GetField(1), nullptr);
    EXPECT_EQ(*pixel, 6.0f); // still owned by whoever took it over
    for (void* block : blocks)
        SafeAlignedFree(block);
}
