#include <algorithm>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"

using namespace qzsse::test;

namespace {

// Columns before n become 0 in every band; the rest are binarised by `pass`.
Rule leadingColumns(const char* name, void (CSSEMatrix::*fn)(float, float, int), int n, bool (*pass)(float))
{
    return inPlace(
        name, false, [fn, n](CSSEMatrix& m, CSSEMatrix&) { (m.*fn)(2.0f, 7.0f, std::min(n, m.GetSizeX())); },
        [n, pass](const Pixels& p, const Pixels&, int x, int y) { return x >= n && pass(p(x, y)) ? 7.0f : 0.0f; },
        around(2.0f));
}

// Only row y (clamped) changes, padding rows never; a matrix of height 0 has no row to change.
Rule replaceLineAbove(const char* name, int row)
{
    return inPlace(
        name, false, [row](CSSEMatrix& m, CSSEMatrix&) { m.ReplaceLineAbove(1.0f, -6.0f, row); },
        [row](const Pixels& p, const Pixels&, int x, int y) {
            return p.height() > 0 && y == std::clamp(row, 0, p.height() - 1) && p(x, y) > 1.0f ? -6.0f : p(x, y);
        },
        around(1.0f));
}

} // namespace

class Threshold : public ::testing::TestWithParam<Rule> {};

TEST_P(Threshold, MatchesPerPixelRule) { checkRule(GetParam(), 5); }

// Every lane, padding included; all tests are strict, so NaN fails each of them.
INSTANTIATE_TEST_SUITE_P(Operations, Threshold, ::testing::Values(
    pixelRule("TresholdAbove", [](CSSEMatrix& m) { m.TresholdAbove(2.0f, 7.0f); },
              [](float p) { return 2.0f < p ? 7.0f : 0.0f; }, around(2.0f)),
    pixelRule("TresholdBelow", [](CSSEMatrix& m) { m.TresholdBelow(2.0f, 7.0f); },
              [](float p) { return p < 2.0f ? 7.0f : 0.0f; }, around(2.0f)),
    leadingColumns("TresholdAboveLeadingColumns", &CSSEMatrix::TresholdAbove, 3, [](float p) { return 2.0f < p; }),
    leadingColumns("TresholdBelowLeadingColumns", &CSSEMatrix::TresholdBelow, 5, [](float p) { return p < 2.0f; }),
    pixelRule("TresholdAboveKeep", [](CSSEMatrix& m) { m.TresholdAboveKeep(2.0f, 7.0f); },
              [](float p) { return 2.0f < p ? 7.0f : p; }, around(2.0f)),
    pixelRule("ResetPixelsGreaterWithValue", [](CSSEMatrix& m) { m.ResetPixelsGreaterWithValue(2.0f, 7.0f); },
              [](float p) { return 2.0f < p ? 7.0f : p; }, around(2.0f)),
    pixelRule("ResetPixelsLowerWithValue", [](CSSEMatrix& m) { m.ResetPixelsLowerWithValue(-1.0f, 7.0f); },
              [](float p) { return p < -1.0f ? 7.0f : p; }, around(-1.0f)),
    pixelRule("ResetPixelsInInterval", [](CSSEMatrix& m) { m.ResetPixelsInInterval(-1.0f, 3.0f, 7.0f); },
              [](float p) { return -1.0f < p && p < 3.0f ? 7.0f : p; }, around(-1.0f, 3.0f)),
    pixelRule("ErasePixelsGreater", [](CSSEMatrix& m) { m.ErasePixelsGreater(2.0f); },
              [](float p) { return 2.0f < p ? 0.0f : p; }, around(2.0f)),
    pixelRule("ErasePixelsLower", [](CSSEMatrix& m) { m.ErasePixelsLower(-1.0f); },
              [](float p) { return p < -1.0f ? 0.0f : p; }, around(-1.0f)),
    pixelRule("EraseOtherValuePixels", [](CSSEMatrix& m) { m.EraseOtherValuePixels(2.0f, 0.3f); },
              [](float p) { return p > 2.0f + 0.3f || p < 2.0f - 0.3f ? 0.0f : p; }, around(2.0f + 0.3f, 2.0f - 0.3f)),
    pixelRule("ReplaceValueWithValue", [](CSSEMatrix& m) { m.ReplaceValueWithValue(3.0f, 9.0f); },
              [](float p) { return -0.002f < 3.0f - p && 3.0f - p < 0.002f ? 9.0f : p; },
              around(3.0f + 0.002f, 3.0f - 0.002f)),
    pixelRule("ReplaceValueWithValueTolerance", [](CSSEMatrix& m) { m.ReplaceValueWithValue(1.0f, -4.0f, 0.5f); },
              [](float p) { return -0.5f < 1.0f - p && 1.0f - p < 0.5f ? -4.0f : p; }, around(0.5f, 1.5f)),
    pixelRule("ReplaceValueWithValueInfinite", [](CSSEMatrix& m) { m.ReplaceValueWithValue(kInf, 1.0f, 1.0f); },
              [](float p) { return -1.0f < kInf - p && kInf - p < 1.0f ? 1.0f : p; }, {kInf, -kInf}),
    pixelRule("BinarizeBackground", [](CSSEMatrix& m) { m.BinarizeBackground(1.5f, -7.0f); },
              [](float p) { return 1.5f < p ? p : -7.0f; }, around(1.5f)),
    replaceLineAbove("ReplaceLineAboveFirstRows", 2), replaceLineAbove("ReplaceLineAboveLastRowOfABand", 7),
    replaceLineAbove("ReplaceLineAboveClampedUp", -3), replaceLineAbove("ReplaceLineAboveClampedDown", 100)),
    ruleName);

TEST(Threshold, BinarisesStrictlyAbove)
{
    CSSEMatrix m = matrixOf(1, 4, {5.0f, 6.0f, 4.0f, 7.0f});
    m.TresholdAbove(5.0f, 1.0f);
    EXPECT_EQ(realPixels(m), (std::vector<float>{0.0f, 1.0f, 0.0f, 1.0f}));
}

// The test is on the difference 3 - p against the fixed 0.002, strictly.
TEST(ReplaceValueWithValue, FixedToleranceIsStrict)
{
    CSSEMatrix m = matrixOf(1, 4, {3.0019f, 3.002f, 2.9981f, 2.998f});
    m.ReplaceValueWithValue(3.0f, 9.0f);
    EXPECT_EQ(realPixels(m), (std::vector<float>{9.0f, 3.002f, 9.0f, 2.998f}));
}
