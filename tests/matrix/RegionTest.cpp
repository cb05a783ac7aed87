#include <algorithm>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "matrix/ReductionModel.h"

namespace {

using namespace qzsse::test;

const float nan = std::numeric_limits<float>::quiet_NaN();

TEST(CalcBoundingBox, EnclosesQualifyingRealPixels)
{
    CSSEMatrix m;
    m.Create(6, 7);
    m.SetPointUnsafe(2, 1, 5.0f);
    m.SetPointUnsafe(4, 5, 3.0f);
    m.SetPointUnsafe(0, 6, -2.0f);
    m.SetPointUnsafe(1, 3, nan);
    m.SetPointUnsafe(5, 7, 100.0f); // padding
    int x0, y0, x1, y1;
    EXPECT_TRUE(m.CalcBoundingBox(x0, y0, x1, y1, 1.0f, true));
    EXPECT_EQ((std::vector<int>{x0, y0, x1, y1}), (std::vector<int>{2, 1, 4, 5}));
    EXPECT_TRUE(m.CalcBoundingBox(x0, y0, x1, y1, 0.0f, false));
    EXPECT_EQ((std::vector<int>{x0, y0, x1, y1}), (std::vector<int>{0, 6, 0, 6}));
    EXPECT_FALSE(m.CalcBoundingBox(x0, y0, x1, y1, 5.0f, true));
    EXPECT_EQ((std::vector<int>{x0, y0, x1, y1}), (std::vector<int>{1000000, 1000000, -1000000, -1000000}));
}

TEST(CalcBoundingBox, MatchesScanOfRealPixels)
{
    std::mt19937 rng(12);
    for (int iteration = 0; iteration < 80; ++iteration) {
        int sx, sy;
        randomShape(rng, sx, sy);
        CSSEMatrix m = randomMatrix(rng, sx, sy, around(8.0f));
        const std::vector<float> s = storedFloats(m);
        for (bool above : {true, false}) {
            const float t = above ? 8.0f : -8.0f;
            int want[4] = {1000000, 1000000, -1000000, -1000000};
            for (int y = 0; y < sy; ++y) {
                for (int x = 0; x < sx; ++x) {
                    const float p = pixelOf(s, m, x, y);
                    if (above ? p > t : p < t) {
                        want[0] = std::min(want[0], x);
                        want[1] = std::min(want[1], y);
                        want[2] = std::max(want[2], x);
                        want[3] = std::max(want[3], y);
                    }
                }
            }
            int got[4];
            const bool found = m.CalcBoundingBox(got[0], got[1], got[2], got[3], t, above);
            EXPECT_EQ(found, want[2] >= 0);
            EXPECT_TRUE(std::equal(want, want + 4, got)) << sx << " x " << sy << (above ? " above" : " below");
        }
    }
}

TEST(PatchExtremes, EmptyPatchReportsMinusOneMillion)
{
    CSSEMatrix m;
    m.Create(5, 5);
    m.Fill(nan);
    m.SetPointUnsafe(4, 4, 0.001f);
    float v = 0.0f;
    m.CalcMaxValueOfPatch(&v, 3, 0, 1, 4); // x0 > x1
    EXPECT_EQ(v, -1e6f);
    m.CalcMinValueOfPatch(&v, 0, 0, 3, 3); // NaN only
    EXPECT_EQ(v, -1e6f);
    m.CalcMinValueOfPatchExcludeZero(&v, 0, 0, 4, 4);
    EXPECT_EQ(v, -1e6f);
    m.CalcMinValueOfPatch(&v, -9, -9, 99, 99); // clamped to the image
    EXPECT_EQ(v, 0.001f);
    m.Fill(-2e6f);
    m.CalcMaxValueOfPatch(&v, 0, 0, 4, 4);
    EXPECT_EQ(v, -1e6f);
    m.CalcMinValueOfPatch(&v, 0, 0, 4, 4);
    EXPECT_EQ(v, -2e6f);
    m.CalcMinValueOfPatch(nullptr, 0, 0, 4, 4);
}

TEST(PatchExtremes, MatchScanOfTheClampedPatch)
{
    std::mt19937 rng(13);
    std::uniform_int_distribution<int> coordinate(-5, 45);
    for (int iteration = 0; iteration < 150; ++iteration) {
        int sx, sy;
        randomShape(rng, sx, sy, 1, 1);
        CSSEMatrix m = randomMatrix(rng, sx, sy, {0.0019f, -0.0019f, 0.002f, -0.002f, 3e6f, -3e6f});
        const int x0 = coordinate(rng), y0 = coordinate(rng), x1 = coordinate(rng), y1 = coordinate(rng);
        const std::vector<float> s = storedFloats(m);
        float largest = -1e6f, smallest = INFINITY, smallestOff = INFINITY;
        for (int y = std::clamp(y0, 0, sy - 1); y <= std::clamp(y1, 0, sy - 1); ++y) {
            for (int x = std::clamp(x0, 0, sx - 1); x <= std::clamp(x1, 0, sx - 1); ++x) {
                const float p = pixelOf(s, m, x, y);
                if (std::isnan(p))
                    continue;
                largest = std::max(largest, p);
                smallest = std::min(smallest, p);
                if (!(-0.002f < p && p < 0.002f))
                    smallestOff = std::min(smallestOff, p);
            }
        }
        float got;
        m.CalcMaxValueOfPatch(&got, x0, y0, x1, y1);
        EXPECT_EQ(got, largest);
        m.CalcMinValueOfPatch(&got, x0, y0, x1, y1);
        EXPECT_EQ(got, std::isinf(smallest) ? -1e6f : smallest);
        m.CalcMinValueOfPatchExcludeZero(&got, x0, y0, x1, y1);
        EXPECT_EQ(got, std::isinf(smallestOff) ? -1e6f : smallestOff);
    }
}

} // namespace
