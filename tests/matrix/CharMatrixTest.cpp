#include <cstdint>

#include <gtest/gtest.h>

#include "qzsse/matrix/CSSEcharMatrix.h"

namespace {

signed char storedByte(const CSSEcharMatrix& m, int x, int y)
{
    return reinterpret_cast<const signed char*>(m.GetMatrixDataDirectly()[y >> 4])[16 * x + (y & 15)];
}

} // namespace

TEST(CharMatrix, CreateMakesZeroedSixteenRowBands)
{
    struct Case { int w, h, bands; };
    for (const Case& c : {Case{5, 15, 1}, Case{5, 16, 2}, Case{3, 40, 3}, Case{1, 0, 1}}) {
        CSSEcharMatrix m;
        m.Create(c.w, c.h);
        EXPECT_EQ(m.GetSizeX(), c.w);
        EXPECT_EQ(m.GetSizeY(), c.h);
        EXPECT_EQ(m.GetSSESizeX(), c.w);
        ASSERT_EQ(m.GetSSESizeY(), c.bands);
        for (int j = 0; j < c.bands; ++j) {
            EXPECT_EQ(reinterpret_cast<uintptr_t>(m.GetMatrixDataDirectly()[j]) % 16, 0u);
            for (int x = 0; x < c.w; ++x)
                for (int lane = 0; lane < 16; ++lane) // padding rows too
                    ASSERT_EQ(storedByte(m, x, 16 * j + lane), 0);
        }
    }
}

TEST(CharMatrix, PixelIsByteOfItsColumnVector)
{
    CSSEcharMatrix m;
    m.Create(4, 37);
    for (int y = 0; y < 37; ++y)
        for (int x = 0; x < 4; ++x)
            m.SetPoint(x, y, static_cast<signed char>(y * 3 - x - 50));
    for (int y = 0; y < 37; ++y)
        for (int x = 0; x < 4; ++x) {
            ASSERT_EQ(storedByte(m, x, y), static_cast<signed char>(y * 3 - x - 50));
            ASSERT_EQ(m.GetPoint(x, y), static_cast<signed char>(y * 3 - x - 50));
        }
}

TEST(CharMatrix, AccessClampsBothCoordinates)
{
    CSSEcharMatrix m;
    m.Create(6, 20);
    m.SetPoint(-3, 2, 7);
    m.SetPoint(100, 100, -5);
    m.SetPoint(2, -9, 9);
    EXPECT_EQ(storedByte(m, 0, 2), 7);
    EXPECT_EQ(storedByte(m, 5, 19), -5);
    EXPECT_EQ(storedByte(m, 2, 0), 9);
    EXPECT_EQ(storedByte(m, 5, 20), 0); // padding row below the image untouched
    EXPECT_EQ(m.GetPoint(-1, 2), 7);
    EXPECT_EQ(m.GetPoint(1000, 1000), -5);
    EXPECT_EQ(m.GetPoint(2, -1), 9);
}

TEST(CharMatrix, CopiesAreDeep)
{
    CSSEcharMatrix src;
    src.Create(3, 18);
    src.SetPoint(2, 17, 42);
    CSSEcharMatrix constructed(src);
    CSSEcharMatrix sameSize;
    sameSize.Create(3, 18);
    sameSize = src;
    CSSEcharMatrix resized;
    resized.Create(9, 1);
    resized = src;
    src.SetPoint(2, 17, -1);
    for (const CSSEcharMatrix* copy : {&constructed, &sameSize, &resized}) {
        ASSERT_EQ(copy->GetSizeX(), 3);
        ASSERT_EQ(copy->GetSizeY(), 18);
        EXPECT_EQ(copy->GetPoint(2, 17), 42);
        EXPECT_NE(copy->GetMatrixDataDirectly(), src.GetMatrixDataDirectly());
    }

    CSSEcharMatrix empty;
    resized = empty;
    EXPECT_EQ(resized.GetMatrixDataDirectly(), nullptr);
    EXPECT_EQ(resized.GetSizeX(), 0);
}

TEST(CharMatrix, FreeKeepsSizes)
{
    CSSEcharMatrix m;
    m.Create(4, 33);
    m.Free();
    EXPECT_EQ(m.GetMatrixDataDirectly(), nullptr);
    EXPECT_EQ(m.GetSizeX(), 4);
    EXPECT_EQ(m.GetSSESizeY(), 3);
    m.Free();
}
