#include <algorithm>

#include <gtest/gtest.h>

#include "matrix/ReductionModel.h"

namespace {

using namespace qzsse::test;

TEST(CalcDerivative, DifferencesWithTheNextPixelKeepTheLastOne)
{
    CSSEMatrix row;
    row.Create(4, 1);
    const float squares[4] = {1, 4, 9, 16};
    for (int x = 0; x < 4; ++x)
        row.SetPointUnsafe(x, 0, squares[x]);
    row.CalcDerivativeX();
    EXPECT_EQ(storedFloats(row)[storedIndex(row, 0, 0)], 3.0f);
    EXPECT_EQ(storedFloats(row)[storedIndex(row, 2, 0)], 7.0f);
    EXPECT_EQ(storedFloats(row)[storedIndex(row, 3, 0)], 16.0f);

    // Row 3 reads row 4 from the band below; the last band (rows 4 to 7) is kept.
    CSSEMatrix column;
    column.Create(1, 5);
    for (int y = 0; y < 5; ++y)
        column.SetPointUnsafe(0, y, static_cast<float>((y + 1) * (y + 1)));
    column.SetPointUnsafe(0, 6, -1.0f);
    column.CalcDerivativeY();
    EXPECT_EQ(storedFloats(column), (std::vector<float>{3, 5, 7, 9, 25, 0, -1, 0}));
}

// Each difference reads neighbours that are not yet overwritten, so the result equals the
// differences of the old contents.
TEST(CalcDerivative, MatchesDifferencesOfTheOldContents)
{
    std::mt19937 rng(21);
    for (int iteration = 0; iteration < 60; ++iteration) {
        int sx, sy;
        randomShape(rng, sx, sy);
        CSSEMatrix m = randomMatrix(rng, sx, sy, {3e38f, -3e38f});
        CSSEMatrix n = m;
        const std::vector<float> s = storedFloats(m);
        std::vector<float> wantX = s, wantY = s;
        const int rows = 4 * m.GetSSESizeY();
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < sx; ++x) {
                const size_t i = storedIndex(m, x, y);
                if (x + 1 < sx)
                    wantX[i] = pixelOf(s, m, x + 1, y) - s[i];
                if ((y >> 2) + 1 < m.GetSSESizeY())
                    wantY[i] = pixelOf(s, m, x, y + 1) - s[i];
            }
        }
        m.CalcDerivativeX();
        n.CalcDerivativeY();
        ASSERT_TRUE(sameFloats(wantX, storedFloats(m))) << sx << " x " << sy;
        ASSERT_TRUE(sameFloats(wantY, storedFloats(n))) << sx << " x " << sy;
    }
}

TEST(CalcDifferenceMatrixConstrained, SubtractsOrEmptiesOverTheCommonExtent)
{
    std::mt19937 rng(22);
    for (int iteration = 0; iteration < 80; ++iteration) {
        int sizes[3][2];
        for (auto& size : sizes)
            randomShape(rng, size[0], size[1]);
        CSSEMatrix m = randomMatrix(rng, sizes[0][0], sizes[0][1], {0.0f, -0.0f});
        CSSEMatrix a = randomMatrix(rng, sizes[1][0], sizes[1][1], {0.0f, -0.0f});
        CSSEMatrix b = randomMatrix(rng, sizes[2][0], sizes[2][1], {0.0f, -0.0f});
        const bool validA = iteration % 2 == 0, validB = iteration % 4 < 2;
        const bool intoA = iteration % 5 == 0;
        CSSEMatrix& target = intoA ? a : m;
        const std::vector<float> s = storedFloats(target), sa = storedFloats(a), sb = storedFloats(b);
        std::vector<float> want = s;
        const int cols = std::min({target.GetSizeX(), a.GetSizeX(), b.GetSizeX()});
        const int bands = std::min({target.GetSSESizeY(), a.GetSSESizeY(), b.GetSSESizeY()});
        for (int y = 0; y < 4 * bands; ++y) {
            for (int x = 0; x < cols; ++x) {
                const float pa = pixelOf(sa, a, x, y), pb = pixelOf(sb, b, x, y);
                const bool empty = (validA && !(pa > 0.0f)) || (validB && !(pb > 0.0f));
                want[storedIndex(target, x, y)] = empty ? 0.0f : pa - pb;
            }
        }
        target.CalcDifferenceMatrixConstrained(a, b, validA, validB);
        ASSERT_TRUE(sameFloats(want, storedFloats(target))) << iteration;
    }
}

} // namespace
