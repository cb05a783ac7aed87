#include <algorithm>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"

using namespace qzsse::test;

namespace {

// Four running lane sums from +0, each fed in band then column order, added at the end as
// (l0 + l3) + (l1 + l2). Feeding rows top to bottom, each left to right, gives that order.
struct LaneSums {
    float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    void add(int y, float v) { lane[y & 3] = lane[y & 3] + v; }
    float total() const { return (lane[0] + lane[3]) + (lane[1] + lane[2]); }
};

// Largest and smallest of the values fed from the given seeds, NaN left out; the second pair
// also leaves out -0.002 < v < 0.002.
struct Extremes {
    float max, min, maxOff, minOff;
    void add(float v)
    {
        if (std::isnan(v))
            return;
        max = std::max(max, v);
        min = std::min(min, v);
        if (!(-0.002f < v && v < 0.002f)) {
            maxOff = std::max(maxOff, v);
            minOff = std::min(minOff, v);
        }
    }
};

// The smallest box of real pixels above (below) t; none found: false and the seeds 1000000 / -1000000.
Rule boundingBox(const char* name, float t, bool above)
{
    return {name, false,
            [=](CSSEMatrix& m, CSSEMatrix&) {
                int box[4];
                const bool found = m.CalcBoundingBox(box[0], box[1], box[2], box[3], t, above);
                return std::vector<float>{float(found), float(box[0]), float(box[1]), float(box[2]), float(box[3])};
            },
            [=](const Pixels& p, const Pixels&) {
                float box[4] = {1000000, 1000000, -1000000, -1000000};
                for (int y = 0; y < p.height(); ++y)
                    for (int x = 0; x < p.width(); ++x)
                        if (above ? p(x, y) > t : p(x, y) < t) {
                            box[0] = std::min(box[0], float(x));
                            box[1] = std::min(box[1], float(y));
                            box[2] = std::max(box[2], float(x));
                            box[3] = std::max(box[3], float(y));
                        }
                return std::vector<float>{float(box[2] >= 0.0f), box[0], box[1], box[2], box[3]};
            },
            around(8.0f, -8.0f)};
}

// Columns x0..x1 and rows y0..y1, each clamped into the image, NaN left out; the maximum starts
// at -1e6, and a minimum with no pixel taking part reports -1e6.
Rule patchExtremes(const char* name, int x0, int y0, int x1, int y1)
{
    return {name, false,
            [=](CSSEMatrix& m, CSSEMatrix&) {
                std::vector<float> got(3);
                m.CalcMaxValueOfPatch(&got[0], x0, y0, x1, y1);
                m.CalcMinValueOfPatch(&got[1], x0, y0, x1, y1);
                m.CalcMinValueOfPatchExcludeZero(&got[2], x0, y0, x1, y1);
                return got;
            },
            [=](const Pixels& p, const Pixels&) {
                Extremes e{-1e6f, kInf, -1e6f, kInf};
                if (p.width() < 1 || p.height() < 1)
                    return std::vector<float>(3, -1e6f);
                for (int y = std::clamp(y0, 0, p.height() - 1); y <= std::clamp(y1, 0, p.height() - 1); ++y)
                    for (int x = std::clamp(x0, 0, p.width() - 1); x <= std::clamp(x1, 0, p.width() - 1); ++x)
                        e.add(p(x, y));
                return std::vector<float>{e.max, e.min == kInf ? -1e6f : e.min, e.minOff == kInf ? -1e6f : e.minOff};
            },
            {0.0019f, -0.0019f, 0.002f, -0.002f, 3e6f, -3e6f}};
}

} // namespace

class Reduction : public ::testing::TestWithParam<Rule> {};

TEST_P(Reduction, MatchesScalarModel) { checkRule(GetParam(), 9, 100); }

INSTANTIATE_TEST_SUITE_P(Operations, Reduction, ::testing::Values(
    // Strict comparisons over every lane, padding included; with a partner, over this extent.
    Rule{"NumValues", true,
         [](CSSEMatrix& m, CSSEMatrix& o) {
             return std::vector<float>{float(m.NumValuesAbove(1.0f)), float(m.NumValuesBelow(1.0f)),
                                       float(m.NumValuesAbove(&o)), float(m.NumValuesBelow(&o))};
         },
         [](const Pixels& p, const Pixels& o) {
             std::vector<float> counts(4, 0.0f);
             for (int y = 0; y < 4 * p.m.GetSSESizeY(); ++y)
                 for (int x = 0; x < p.width(); ++x) {
                     counts[0] += 1.0f < p(x, y);
                     counts[1] += p(x, y) < 1.0f;
                     counts[2] += p(x, y) > o(x, y);
                     counts[3] += p(x, y) < o(x, y);
                 }
             return counts;
         },
         around(1.0f)},
    // Real pixels only, NaN left out, from the seeds -1e6 / +1e6; ExcludeZero skips near 0.
    Rule{"CalcMinMaxValues", false,
         [](CSSEMatrix& m, CSSEMatrix&) {
             std::vector<float> got(4);
             m.CalcMinMaxValues(&got[0], &got[1]);
             m.CalcMinMaxValuesExcludeZero(&got[2], &got[3]);
             return got;
         },
         [](const Pixels& p, const Pixels&) {
             Extremes e{-1e6f, 1e6f, -1e6f, 1e6f};
             for (int y = 0; y < p.height(); ++y)
                 for (int x = 0; x < p.width(); ++x)
                     e.add(p(x, y));
             return std::vector<float>{e.max, e.min, e.maxOff, e.minOff};
         },
         {0.002f, -0.002f, 0.0019f, -0.0019f, 5e5f, -5e5f}},
    boundingBox("CalcBoundingBoxAbove", 8.0f, true), boundingBox("CalcBoundingBoxBelow", -8.0f, false),
    patchExtremes("PatchInside", 3, 2, 17, 30), patchExtremes("PatchReversed", 9, 0, 4, 40),
    patchExtremes("PatchBeyondTheImage", -5, -5, 45, 45), patchExtremes("PatchOfOnePixel", 2, 3, 2, 3)),
    ruleName);

TEST(NumValues, PaddingBandCounts)
{
    CSSEMatrix m;
    m.Create(4, 4);
    EXPECT_EQ(m.NumValuesBelow(1.0f), 32);
    EXPECT_EQ(m.NumValuesAbove(nullptr), 0);
}

// Large and tiny magnitudes make the result depend on the order of the additions. NaN in
// the padding lanes of the last band must reach only the sums that walk them.
TEST(IntegrateMatrix, SumsLaneByLaneInStorageOrder)
{
    std::mt19937 rng(5);
    for (int iteration = 0; iteration < 80; ++iteration) {
        int sx, sy;
        randomShape(rng, sx, sy);
        CSSEMatrix m = randomMatrix(rng, sx, sy, {3e7f, -3e7f, 1e-3f, -7.5f, 0.5f}, false);
        for (int x = 0; iteration % 3 == 0 && (sy & 3) != 0 && x < sx; ++x)
            m.SetPointUnsafe(x, sy | 3, kNaN);
        const Pixels p(m);
        const int rows = 4 * m.GetSSESizeY();
        LaneSums all, absolute, valid, window;
        for (int y = 0; y < rows; ++y)
            for (int x = 0; x < sx; ++x) {
                const float v = p(x, y);
                all.add(y, v);
                absolute.add(y, std::sqrt(v * v));
                if (y < ((sy & 3) == 0 ? rows : sy))
                    valid.add(y, v);
                if (y < sy && -2.0f < v && v < 5.0f)
                    window.add(y, std::sqrt(v * v));
            }
        EXPECT_PRED2(sameFloat, all.total(), m.IntegrateMatrix()) << sx << " x " << sy;
        EXPECT_PRED2(sameFloat, absolute.total(), m.IntegrateMatrixAbsolute()) << sx << " x " << sy;
        EXPECT_PRED2(sameFloat, valid.total(), m.IntegrateMatrixValid()) << sx << " x " << sy;
        EXPECT_PRED2(sameFloat, window.total(), m.IntegrateMatrixAbsolute(-2.0f, 5.0f)) << sx << " x " << sy;
    }
}

// Only the last band is cut, to its first (height & 3) lanes: a remainder of 0 sums it whole.
TEST(IntegrateMatrixValid, SumsAWholeLastBandWhenHeightIsAMultipleOfFour)
{
    CSSEMatrix m;
    for (int h : {5, 4}) {
        m.Create(2, h);
        m.Fill(1.0f);
        EXPECT_EQ(m.IntegrateMatrixValid(), h == 5 ? 10.0f : 16.0f);
    }
}

// Seeded with -1e6 / +1e6, which bound the result (and are all a matrix of near-zero pixels
// reports without them); the maximum is written first.
TEST(CalcMinMaxValues, SeedsBoundTheResultAndMaximumIsWrittenFirst)
{
    CSSEMatrix m;
    m.Create(3, 6);
    float largest = 0.0f, smallest = 0.0f;
    for (float v : {2.0e6f, -2.0e6f}) {
        m.Fill(v);
        m.CalcMinMaxValues(&largest, &smallest);
        EXPECT_EQ(largest, v > 0.0f ? v : -1.0e6f);
        EXPECT_EQ(smallest, v > 0.0f ? 1.0e6f : v);
    }
    m.SetPointUnsafe(1, 2, 9.0f);
    m.CalcMinMaxValues(&largest, nullptr);
    EXPECT_EQ(largest, 9.0f);
    m.CalcMinMaxValues(&largest, &largest);
    EXPECT_EQ(largest, -2.0e6f);
    m.Fill(0.0019f);
    m.SetPointUnsafe(2, 5, -0.0019f);
    m.CalcMinMaxValuesExcludeZero(&largest, &smallest);
    EXPECT_EQ(largest, -1.0e6f);
    EXPECT_EQ(smallest, 1.0e6f);
}

// p(x, y) + o(x + dx, y + dy) over the real pixels both hold, in the lane order of the sums;
// NaN in the partner outside the overlap must not leak in.
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
        const Pixels p(m), o(other);
        LaneSums sums;
        for (int y = std::max(0, -dy); y < std::min(sy, oy - dy); ++y)
            for (int x = std::max(0, -dx); x < std::min(sx, ox - dx); ++x)
                sums.add(y, p(x, y) + o(x + dx, y + dy));
        EXPECT_PRED2(sameFloat, sums.total(), m.ComputeSumOfTwoMatrices(&other, dx, dy))
            << sx << " x " << sy << " with " << ox << " x " << oy << " at " << dx << ", " << dy;
        EXPECT_EQ(m.ComputeSumOfTwoMatrices(nullptr, dx, dy), 0.0f);
    }
}
