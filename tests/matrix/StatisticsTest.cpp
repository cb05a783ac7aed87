#include <algorithm>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "matrix/ReductionModel.h"

namespace {

using namespace qzsse::test;

const float nan = std::numeric_limits<float>::quiet_NaN();

bool sameSum(float expected, float actual)
{
    return sameBits(expected, actual) || (std::isnan(expected) && std::isnan(actual));
}

TEST(NumValues, PaddingBandCounts)
{
    CSSEMatrix m;
    m.Create(4, 4);
    EXPECT_EQ(m.NumValuesBelow(1.0f), 32);
    EXPECT_EQ(m.NumValuesAbove(0.0f), 0);
    m.SetPointUnsafe(3, 3, 2.0f);
    EXPECT_EQ(m.NumValuesAbove(1.0f), 1);
    EXPECT_EQ(m.NumValuesBelow(1.0f), 31);
    EXPECT_EQ(m.NumValuesAbove(nullptr), 0);
}

TEST(NumValues, CountsStrictlyOverAllLanesOrThisExtent)
{
    std::mt19937 rng(3);
    for (int iteration = 0; iteration < 60; ++iteration) {
        int sx, sy, ox, oy;
        randomShape(rng, sx, sy);
        randomShape(rng, ox, oy, sx, sy);
        CSSEMatrix m = randomMatrix(rng, sx, sy, around(1.0f));
        CSSEMatrix other = randomMatrix(rng, ox, oy, around(1.0f));
        const std::vector<float> s = storedFloats(m);
        const std::vector<float> o = storedFloats(other);
        int above = 0, below = 0, greater = 0, smaller = 0;
        for (int y = 0; y < 4 * m.GetSSESizeY(); ++y) {
            for (int x = 0; x < sx; ++x) {
                const float p = pixelOf(s, m, x, y);
                const float q = pixelOf(o, other, x, y);
                above += 1.0f < p;
                below += p < 1.0f;
                greater += p > q;
                smaller += p < q;
            }
        }
        EXPECT_EQ(m.NumValuesAbove(1.0f), above);
        EXPECT_EQ(m.NumValuesBelow(1.0f), below);
        EXPECT_EQ(m.NumValuesAbove(&other), greater);
        EXPECT_EQ(m.NumValuesBelow(&other), smaller);
    }
}

// Large and tiny magnitudes make the result depend on the order of the additions.
TEST(IntegrateMatrix, SumsLaneByLaneInStorageOrder)
{
    std::mt19937 rng(5);
    const std::vector<float> specials = {3e7f, -3e7f, 1e-3f, -7.5f, 0.5f};
    for (int iteration = 0; iteration < 80; ++iteration) {
        int sx, sy;
        randomShape(rng, sx, sy);
        CSSEMatrix m = randomMatrix(rng, sx, sy, specials, false);
        // NaN in the padding lanes of the last band must reach only the sums that walk them.
        if (iteration % 3 == 0 && (sy & 3) != 0)
            for (int x = 0; x < sx; ++x)
                m.SetPointUnsafe(x, (sy | 3), nan);
        const std::vector<float> s = storedFloats(m);
        const int rows = 4 * m.GetSSESizeY();
        const int validRows = (sy & 3) == 0 ? rows : sy;
        LaneSums all, absolute, valid, window;
        for (int y = 0; y < rows; ++y) {
            for (int x = 0; x < sx; ++x) {
                const float p = pixelOf(s, m, x, y);
                all.add(y, p);
                absolute.add(y, std::sqrt(p * p));
                if (y < validRows)
                    valid.add(y, p);
                if (y < sy && -2.0f < p && p < 5.0f)
                    window.add(y, std::sqrt(p * p));
            }
        }
        EXPECT_PRED2(sameSum, all.total(), m.IntegrateMatrix()) << sx << " x " << sy;
        EXPECT_PRED2(sameSum, absolute.total(), m.IntegrateMatrixAbsolute()) << sx << " x " << sy;
        EXPECT_PRED2(sameSum, valid.total(), m.IntegrateMatrixValid()) << sx << " x " << sy;
        EXPECT_PRED2(sameSum, window.total(), m.IntegrateMatrixAbsolute(-2.0f, 5.0f)) << sx << " x " << sy;
    }
}

TEST(IntegrateMatrixValid, SumsAWholeLastBandWhenHeightIsAMultipleOfFour)
{
    CSSEMatrix m;
    m.Create(2, 5);
    m.Fill(1.0f);
    EXPECT_EQ(m.IntegrateMatrixValid(), 10.0f);
    EXPECT_EQ(m.IntegrateMatrix(), 16.0f);
    m.Create(2, 4);
    m.Fill(1.0f);
    EXPECT_EQ(m.IntegrateMatrixValid(), 16.0f);
    EXPECT_EQ(m.IntegrateMatrix(), 16.0f);
}

// An empty matrix in the ExcludeZero sense reports the seeds themselves.
TEST(CalcMinMaxValues, SeedsBoundTheResult)
{
    CSSEMatrix m;
    m.Create(3, 6);
    m.Fill(2.0e6f);
    float largest = 0.0f, smallest = 0.0f;
    m.CalcMinMaxValues(&largest, &smallest);
    EXPECT_EQ(largest, 2.0e6f);
    EXPECT_EQ(smallest, 1.0e6f);
    m.Fill(-2.0e6f);
    m.CalcMinMaxValues(&largest, &smallest);
    EXPECT_EQ(largest, -1.0e6f);
    EXPECT_EQ(smallest, -2.0e6f);
    m.Fill(0.0019f);
    m.SetPointUnsafe(2, 5, -0.0019f);
    m.CalcMinMaxValuesExcludeZero(&largest, &smallest);
    EXPECT_EQ(largest, -1.0e6f);
    EXPECT_EQ(smallest, 1.0e6f);
}

TEST(CalcMinMaxValues, WritesMaximumFirstAndSkipsNullPointers)
{
    CSSEMatrix m;
    m.Create(2, 6);
    m.SetPointUnsafe(1, 2, 9.0f);
    m.SetPointUnsafe(0, 5, -4.0f);
    float a = 0.0f, b = 0.0f;
    m.CalcMinMaxValues(&a, &b);
    EXPECT_EQ(a, 9.0f);
    EXPECT_EQ(b, -4.0f);
    a = b = 1.0f;
    m.CalcMinMaxValues(nullptr, &b);
    m.CalcMinMaxValues(&a, nullptr);
    EXPECT_EQ(a, 9.0f);
    EXPECT_EQ(b, -4.0f);
    m.CalcMinMaxValues(&a, &a); // the minimum is written last
    EXPECT_EQ(a, -4.0f);
}

// A NaN pixel loses every comparison with the running value, in the packed bands and in
// the last band alike.
TEST(CalcMinMaxValues, IgnoresNaNAndPadding)
{
    CSSEMatrix m;
    m.Create(2, 5);
    m.Fill(100.0f);
    const float columns[2][5] = {{nan, -2.0f, 7.0f, nan, nan}, {nan, nan, nan, nan, 1.0f}};
    for (int x = 0; x < 2; ++x)
        for (int y = 0; y < 5; ++y)
            m.SetPointUnsafe(x, y, columns[x][y]);
    float largest, smallest;
    m.CalcMinMaxValues(&largest, &smallest);
    EXPECT_EQ(largest, 7.0f);
    EXPECT_EQ(smallest, -2.0f);
}

TEST(CalcMinMaxValues, MatchesExtremesOfRealPixels)
{
    std::mt19937 rng(7);
    for (int iteration = 0; iteration < 80; ++iteration) {
        int sx, sy;
        randomShape(rng, sx, sy);
        CSSEMatrix m = randomMatrix(rng, sx, sy, {0.002f, -0.002f, 0.0019f, -0.0019f, 0.0f, -0.0f});
        for (int y = sy; y < 4 * m.GetSSESizeY(); ++y)
            for (int x = 0; x < sx; ++x)
                m.SetPointUnsafe(x, y, (x + y) % 2 ? 900000.0f : -900000.0f);
        const std::vector<float> s = storedFloats(m);
        float maxAll = -1e6f, minAll = 1e6f, maxOff = -1e6f, minOff = 1e6f;
        for (int y = 0; y < sy; ++y) {
            for (int x = 0; x < sx; ++x) {
                const float p = pixelOf(s, m, x, y);
                if (std::isnan(p))
                    continue;
                maxAll = std::max(maxAll, p);
                minAll = std::min(minAll, p);
                if (!(-0.002f < p && p < 0.002f)) {
                    maxOff = std::max(maxOff, p);
                    minOff = std::min(minOff, p);
                }
            }
        }
        float largest, smallest;
        m.CalcMinMaxValues(&largest, &smallest);
        EXPECT_EQ(largest, maxAll) << sx << " x " << sy;
        EXPECT_EQ(smallest, minAll) << sx << " x " << sy;
        m.CalcMinMaxValuesExcludeZero(&largest, &smallest);
        EXPECT_EQ(largest, maxOff) << sx << " x " << sy;
        EXPECT_EQ(smallest, minOff) << sx << " x " << sy;
    }
}

TEST(ComputeSumOfTwoMatrices, AddsBothOverTheOverlap)
{
    CSSEMatrix m, other;
    m.Create(2, 2);
    m.Fill(1.0f);
    other.Create(3, 3);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x)
            other.SetPointUnsafe(x, y, static_cast<float>(10 * y + x));
    EXPECT_EQ(m.ComputeSumOfTwoMatrices(&other, 1, 1), 4.0f + 11 + 12 + 21 + 22);
    EXPECT_EQ(m.ComputeSumOfTwoMatrices(&other, -1, 0), 2.0f + 0 + 10);
    EXPECT_EQ(m.ComputeSumOfTwoMatrices(&other, 0, 3), 0.0f);
    EXPECT_EQ(m.ComputeSumOfTwoMatrices(nullptr, 0, 0), 0.0f);
}

TEST(ComputeSumOfTwoMatrices, MatchesLaneSumsAtAnyOffset)
{
    std::mt19937 rng(9);
    for (int iteration = 0; iteration < 120; ++iteration) {
        int sx, sy, ox, oy;
        randomShape(rng, sx, sy);
        randomShape(rng, ox, oy);
        CSSEMatrix m = randomMatrix(rng, sx, sy, {3e7f, -3e7f}, false);
        CSSEMatrix other = randomMatrix(rng, ox, oy, {3e7f, -3e7f}, iteration % 4 == 0);
        const int dx = std::uniform_int_distribution<int>(-12, 44)(rng);
        const int dy = std::uniform_int_distribution<int>(-12, 44)(rng);
        const std::vector<float> s = storedFloats(m);
        const std::vector<float> o = storedFloats(other);
        LaneSums sums;
        for (int y = 0; y < sy; ++y)
            for (int x = 0; x < sx; ++x)
                if (x + dx >= 0 && x + dx < ox && y + dy >= 0 && y + dy < oy)
                    sums.add(y, pixelOf(s, m, x, y) + pixelOf(o, other, x + dx, y + dy));
        EXPECT_PRED2(sameSum, sums.total(), m.ComputeSumOfTwoMatrices(&other, dx, dy))
            << sx << " x " << sy << " with " << ox << " x " << oy << " at " << dx << ", " << dy;
    }
}

} // namespace
