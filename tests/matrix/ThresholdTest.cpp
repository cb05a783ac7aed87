#include <algorithm>
#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"
#include "matrix/PixelRuleCheck.h"

namespace {

using namespace qzsse::test;

const float inf = std::numeric_limits<float>::infinity();
const float nan = std::numeric_limits<float>::quiet_NaN();

std::vector<float> join(std::vector<float> a, const std::vector<float>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

class Threshold : public ::testing::TestWithParam<PixelRule> {};

TEST_P(Threshold, MatchesPerPixelRule) { checkPixelRule(GetParam(), 5); }

INSTANTIATE_TEST_SUITE_P(Operations, Threshold, ::testing::Values(
    PixelRule{"TresholdAbove", [](CSSEMatrix& m) { m.TresholdAbove(2.0f, 7.0f); },
              [](float p, int) { return 2.0f < p ? 7.0f : 0.0f; }, around(2.0f)},
    PixelRule{"TresholdBelow", [](CSSEMatrix& m) { m.TresholdBelow(2.0f, 7.0f); },
              [](float p, int) { return p < 2.0f ? 7.0f : 0.0f; }, around(2.0f)},
    PixelRule{"TresholdAboveLeadingColumns", [](CSSEMatrix& m) { m.TresholdAbove(2.0f, 7.0f, std::min(3, m.GetSizeX())); },
              [](float p, int x) { return x >= 3 && 2.0f < p ? 7.0f : 0.0f; }, around(2.0f)},
    PixelRule{"TresholdBelowLeadingColumns", [](CSSEMatrix& m) { m.TresholdBelow(2.0f, 7.0f, std::min(5, m.GetSizeX())); },
              [](float p, int x) { return x >= 5 && p < 2.0f ? 7.0f : 0.0f; }, around(2.0f)},
    PixelRule{"TresholdAboveKeep", [](CSSEMatrix& m) { m.TresholdAboveKeep(2.0f, 7.0f); },
              [](float p, int) { return 2.0f < p ? 7.0f : p; }, around(2.0f)},
    PixelRule{"ResetPixelsGreaterWithValue", [](CSSEMatrix& m) { m.ResetPixelsGreaterWithValue(2.0f, 7.0f); },
              [](float p, int) { return 2.0f < p ? 7.0f : p; }, around(2.0f)},
    PixelRule{"ResetPixelsLowerWithValue", [](CSSEMatrix& m) { m.ResetPixelsLowerWithValue(-1.0f, 7.0f); },
              [](float p, int) { return p < -1.0f ? 7.0f : p; }, around(-1.0f)},
    PixelRule{"ResetPixelsInInterval", [](CSSEMatrix& m) { m.ResetPixelsInInterval(-1.0f, 3.0f, 7.0f); },
              [](float p, int) { return -1.0f < p && p < 3.0f ? 7.0f : p; }, join(around(-1.0f), around(3.0f))},
    PixelRule{"ErasePixelsGreater", [](CSSEMatrix& m) { m.ErasePixelsGreater(2.0f); },
              [](float p, int) { return 2.0f < p ? 0.0f : p; }, around(2.0f)},
    PixelRule{"ErasePixelsLower", [](CSSEMatrix& m) { m.ErasePixelsLower(-1.0f); },
              [](float p, int) { return p < -1.0f ? 0.0f : p; }, around(-1.0f)},
    PixelRule{"EraseOtherValuePixels", [](CSSEMatrix& m) { m.EraseOtherValuePixels(2.0f, 0.3f); },
              [](float p, int) { return p > 2.0f + 0.3f || p < 2.0f - 0.3f ? 0.0f : p; },
              join(around(2.0f + 0.3f), around(2.0f - 0.3f))},
    PixelRule{"ReplaceValueWithValue", [](CSSEMatrix& m) { m.ReplaceValueWithValue(3.0f, 9.0f); },
              [](float p, int) { return -0.002f < 3.0f - p && 3.0f - p < 0.002f ? 9.0f : p; },
              join(around(3.0f + 0.002f), around(3.0f - 0.002f))},
    PixelRule{"ReplaceValueWithValueTolerance", [](CSSEMatrix& m) { m.ReplaceValueWithValue(1.0f, -4.0f, 0.5f); },
              [](float p, int) { return -0.5f < 1.0f - p && 1.0f - p < 0.5f ? -4.0f : p; },
              join(around(0.5f), around(1.5f))},
    PixelRule{"ReplaceValueWithValueInfinite", [](CSSEMatrix& m) { m.ReplaceValueWithValue(inf, 1.0f, 1.0f); },
              [](float p, int) { return -1.0f < inf - p && inf - p < 1.0f ? 1.0f : p; }, {inf, -inf}}),
    ruleName);

TEST(Threshold, BinarisesStrictlyAbove)
{
    CSSEMatrix m = column({5.0f, 6.0f, 4.0f, 7.0f});
    m.TresholdAbove(5.0f, 1.0f);
    EXPECT_EQ(realColumn(m), (std::vector<float>{0.0f, 1.0f, 0.0f, 1.0f}));
}

TEST(Threshold, BinarisingEmptiesNaNWhileKeepingLeavesIt)
{
    CSSEMatrix binarised = column({nan, nan, 3.0f, 1.0f});
    CSSEMatrix kept = column({nan, nan, 3.0f, 1.0f});
    binarised.TresholdBelow(2.0f, 8.0f);
    kept.ResetPixelsLowerWithValue(2.0f, 8.0f);
    EXPECT_EQ(realColumn(binarised), (std::vector<float>{0.0f, 0.0f, 0.0f, 8.0f}));
    const std::vector<float> got = realColumn(kept);
    EXPECT_TRUE(std::isnan(got[0]) && std::isnan(got[1]));
    EXPECT_EQ(got[2], 3.0f);
    EXPECT_EQ(got[3], 8.0f);
}

TEST(ReplaceValueWithValue, FixedToleranceIsStrict)
{
    CSSEMatrix m = column({3.0019f, 3.002f, 2.9981f, 2.998f});
    m.ReplaceValueWithValue(3.0f, 9.0f);
    EXPECT_EQ(realColumn(m), (std::vector<float>{9.0f, 3.002f, 9.0f, 2.998f}));
}

TEST(EraseOtherValuePixels, KeepsTheClosedInterval)
{
    CSSEMatrix m = column({9.0f, 11.0f, 8.99f, 11.01f});
    m.EraseOtherValuePixels(10.0f, 1.0f);
    EXPECT_EQ(realColumn(m), (std::vector<float>{9.0f, 11.0f, 0.0f, 0.0f}));
}

// Only the clamped row changes, padding rows and other rows keep their values; a matrix
// of height 0 has no row to change.
TEST(ReplaceLineAbove, ChangesOnlyTheClampedRow)
{
    std::mt19937 rng(7);
    for (int iteration = 0; iteration < 60; ++iteration) {
        int sizeX, sizeY;
        randomShape(rng, sizeX, sizeY);
        const int y = std::uniform_int_distribution<int>(-3, sizeY + 3)(rng);
        CSSEMatrix m;
        m.Create(sizeX, sizeY);
        fillWithSpecials(m, rng, around(1.0f));
        std::vector<float> expected = storedFloats(m);
        for (int x = 0; x < sizeX && sizeY > 0; ++x) {
            float& p = expected[storedIndex(m, x, std::clamp(y, 0, sizeY - 1))];
            p = p > 1.0f ? -6.0f : p;
        }
        m.ReplaceLineAbove(1.0f, -6.0f, y);
        ASSERT_TRUE(sameFloats(expected, storedFloats(m))) << sizeX << " x " << sizeY << ", y " << y;
    }
}

} // namespace
