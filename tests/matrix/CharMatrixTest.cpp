#include <gtest/gtest.h>

#include "qzsse/matrix/CSSEcharMatrix.h"

namespace {

// Pixel (x, y) is byte y & 15 of vector x of band y >> 4.
signed char storedByte(const CSSEcharMatrix& m, int x, int y)
{
    return reinterpret_cast<const signed char*>(m.GetMatrixDataDirectly()[y >> 4])[16 * x + (y & 15)];
}

} // namespace

// (h >> 4) + 1 bands of sixteen rows, zero everywhere, padding rows included.
TEST(CharMatrix, CreateMakesZeroedSixteenRowBands)
{
    struct Case { int w, h, bands; };
    for (const Case& c : {Case{5, 15, 1}, Case{5, 16, 2}, Case{3, 40, 3}, Case{1, 0, 1}}) {
        CSSEcharMatrix m;
        m.Create(c.w, c.h);
        EXPECT_EQ(m.GetSizeX(), c.w);
        EXPECT_EQ(m.GetSizeY(), c.h);
        ASSERT_EQ(m.GetSSESizeY(), c.bands);
        for (int y = 0; y < 16 * c.bands; ++y)
            for (int x = 0; x < c.w; ++x)
                ASSERT_EQ(storedByte(m, x, y), 0);
    }
}

TEST(CharMatrix, AccessClampsBothCoordinates)
{
    CSSEcharMatrix m;
    m.Create(6, 37);
    for (int y = 0; y < 37; ++y)
        for (int x = 0; x < 6; ++x)
            m.SetPoint(x, y, static_cast<signed char>(y * 3 - x - 50));
    for (int y = 0; y < 37; ++y)
        for (int x = 0; x < 6; ++x)
            ASSERT_EQ(storedByte(m, x, y), static_cast<signed char>(y * 3 - x - 50));
    m.SetPoint(-3, 2, 7);
    m.SetPoint(100, 100, -5);
    EXPECT_EQ(storedByte(m, 0, 2), 7);
    EXPECT_EQ(storedByte(m, 5, 36), -5);
    EXPECT_EQ(storedByte(m, 5, 37), 0); // padding row below the image untouched
    EXPECT_EQ(m.GetPoint(-1, 2), 7);
    EXPECT_EQ(m.GetPoint(1000, 1000), -5);
}

// Deep copies; a copy of a matrix without storage has none either.
TEST(CharMatrix, CopiesAreDeep)
{
    CSSEcharMatrix src, sameSize, resized;
    src.Create(3, 18);
    src.SetPoint(2, 17, 42);
    CSSEcharMatrix constructed(src);
    sameSize.Create(3, 18);
    sameSize = src;
    resized.Create(9, 1);
    resized = src;
    src.SetPoint(2, 17, -1);
    for (const CSSEcharMatrix* copy : {&constructed, &sameSize, &resized}) {
        ASSERT_EQ(copy->GetSizeX(), 3);
        ASSERT_EQ(copy->GetSizeY(), 18);
        EXPECT_EQ(copy->GetPoint(2, 17), 42);
    }
    resized = CSSEcharMatrix();
    EXPECT_EQ(resized.GetMatrixDataDirectly(), nullptr);
    EXPECT_EQ(resized.GetSizeX(), 0);
}

TEST(CharMatrix, FreeKeepsSizes)
{
    CSSEcharMatrix src;
    src.Create(3, 18);
    src.Free();
    EXPECT_EQ(src.GetMatrixDataDirectly(), nullptr);
    EXPECT_EQ(src.GetSizeX(), 3);
    EXPECT_EQ(src.GetSSESizeY(), 2);
}
