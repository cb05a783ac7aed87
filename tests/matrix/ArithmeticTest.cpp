#include <algorithm>
#include <cmath>
#include <random>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"

using namespace qzsse::test;

namespace {

// The packed maximum and minimum: the second operand wins unless the first is strictly
// larger (smaller), so NaN in either place and equal zeros give the second.
float packedMax(float a, float b) { return a > b ? a : b; }
float packedMin(float a, float b) { return a < b ? a : b; }

Rule pairRule(const char* name, bool thisExtent, void (*op)(CSSEMatrix&, CSSEMatrix&), float (*f)(float, float),
              std::vector<float> specials)
{
    return inPlace(name, thisExtent, op, lanewise(f), std::move(specials));
}

} // namespace

class Arithmetic : public ::testing::TestWithParam<Rule> {};

TEST_P(Arithmetic, MatchesPerPixelRuleOverItsExtent) { checkRule(GetParam(), 11); }

// Every lane of every band both matrices store, padding rows included. "this" extent: the
// partner is at least as large; the others take any partner and leave the rest alone.
INSTANTIATE_TEST_SUITE_P(Operations, Arithmetic, ::testing::Values(
    pixelRule("OffsetMatrix", [](CSSEMatrix& m) { m.OffsetMatrix(2.5f); }, [](float p) { return p + 2.5f; },
              {kInf, -kInf, -2.5f}),
    pixelRule("OffsetMatrixAbove", [](CSSEMatrix& m) { m.OffsetMatrixAbove(1.0f, 2.5f); },
              [](float p) { return 1.0f < p ? p + 2.5f : p; }, around(1.0f)),
    pixelRule("OffsetMatrixBelow", [](CSSEMatrix& m) { m.OffsetMatrixBelow(-0.5f, -3.0f); },
              [](float p) { return p < -0.5f ? p + -3.0f : p; }, around(-0.5f)),
    pixelRule("LiftWhereNonZero", [](CSSEMatrix& m) { m.LiftWhereNonZero(4.0f); },
              [](float p) { return 0.005f < p ? p + 4.0f : p; }, around(0.005f)),
    pixelRule("ScalarMultiply", [](CSSEMatrix& m) { m.ScalarMultiply(-1.5f); }, [](float p) { return p * -1.5f; },
              {kInf, 3e38f}),
    pixelRule("InvertSign", [](CSSEMatrix& m) { m.InvertSign(); }, [](float p) { return 0.0f - p; }, {kInf, -kInf}),
    pixelRule("Absolute", [](CSSEMatrix& m) { m.Absolute(); }, [](float p) { return std::sqrt(p * p); },
              {-3e20f, 3e20f, 1e-30f, -1e-30f, -kInf}),
    pairRule("AddMatrix", true, [](CSSEMatrix& m, CSSEMatrix& o) { m.AddMatrix(o); },
             [](float p, float o) { return p + o; }, {kInf, -kInf}),
    pairRule("SubMatrix", false, [](CSSEMatrix& m, CSSEMatrix& o) { m.SubMatrix(o); },
             [](float p, float o) { return p - o; }, {kInf}),
    pairRule("SubMatrixValidate", false, [](CSSEMatrix& m, CSSEMatrix& o) { m.SubMatrixValidate(o); },
             [](float p, float o) { return p > 0.0f ? p - o : p; }, around(0.0f)),
    pairRule("AddMatrixOffseted", true, [](CSSEMatrix& m, CSSEMatrix& o) { m.AddMatrixOffseted(o, 1.5f); },
             [](float p, float o) { return p + packedMax(0.0f, o - 1.5f); }, around(1.5f)),
    pairRule("AddMatrixOffsetedNormed", true,
             [](CSSEMatrix& m, CSSEMatrix& o) { m.AddMatrixOffsetedNormed(o, 1.5f, 0.3f); },
             [](float p, float o) { return p + packedMax(0.0f, o - 1.5f) * 0.3f; }, around(1.5f)),
    pairRule("AddMatrixOffsetedConstrained", true,
             [](CSSEMatrix& m, CSSEMatrix& o) { m.AddMatrixOffsetedConstrained(o, -1.0f, 0.7f, 3.0f); },
             [](float p, float o) { return packedMax(0.0f, (p >= 0.001f ? o : 0.0f) - -1.0f) * 3.0f + p * 0.7f; },
             around(0.001f)),
    pairRule("MaximumOf", false, [](CSSEMatrix& m, CSSEMatrix& o) { m.MaximumOf(o); },
             [](float p, float o) { return packedMax(o, p); }, {kInf, -kInf}),
    pairRule("MinimumOf", false, [](CSSEMatrix& m, CSSEMatrix& o) { m.MinimumOf(o); },
             [](float p, float o) { return packedMin(o, p); }, {kInf, -kInf}),
    pairRule("CombineAbsolute", false, [](CSSEMatrix& m, CSSEMatrix& o) { m.CombineAbsolute(o); },
             [](float p, float o) { return std::sqrt(o * o + p * p); }, {3e20f, -2e19f, 1e-25f}),
    pairRule("CombineMultiplicative", false, [](CSSEMatrix& m, CSSEMatrix& o) { m.CombineMultiplicative(o, false); },
             [](float p, float o) { return p * o; }, {kInf, 1e30f}),
    pairRule("CombineMultiplicativeAbsolute", false,
             [](CSSEMatrix& m, CSSEMatrix& o) { m.CombineMultiplicative(o, true); },
             [](float p, float o) { return std::sqrt((p * o) * (p * o)); }, {-1e10f, 1e-12f, kInf}),
    // Each difference reads neighbours not yet overwritten; the last column (X) and the last
    // band (Y) keep their values.
    inPlace("CalcDerivativeX", false, [](CSSEMatrix& m, CSSEMatrix&) { m.CalcDerivativeX(); },
            [](const Pixels& p, const Pixels&, int x, int y) {
                return x + 1 < p.width() ? p(x + 1, y) - p(x, y) : p(x, y);
            },
            {3e38f, -3e38f}),
    inPlace("CalcDerivativeY", false, [](CSSEMatrix& m, CSSEMatrix&) { m.CalcDerivativeY(); },
            [](const Pixels& p, const Pixels&, int x, int y) {
                return p.stores(x, y + 4) ? p(x, y + 1) - p(x, y) : p(x, y);
            },
            {3e38f, -3e38f})),
    ruleName);

// The square root of the square, not a sign-bit clear: huge values saturate, tiny ones vanish.
TEST(Absolute, IsTheRootOfTheSquare)
{
    CSSEMatrix m = matrixOf(1, 4, {-3e20f, 1e-30f, -0.0f, -2.0f});
    m.Absolute();
    EXPECT_EQ(realPixels(m), (std::vector<float>{kInf, 0.0f, 0.0f, 2.0f}));
}

TEST(CalcDifferenceMatrixConstrained, SubtractsOrEmptiesOverTheCommonExtent)
{
    std::mt19937 rng(22);
    for (int iteration = 0; iteration < 80; ++iteration) {
        int w[3], h[3];
        for (int i = 0; i < 3; ++i)
            randomShape(rng, w[i], h[i]);
        CSSEMatrix m = randomMatrix(rng, w[0], h[0], {0.0f, -0.0f});
        CSSEMatrix a = randomMatrix(rng, w[1], h[1], {0.0f, -0.0f});
        CSSEMatrix b = randomMatrix(rng, w[2], h[2], {0.0f, -0.0f});
        const bool validA = iteration % 2 == 0, validB = iteration % 4 < 2;
        CSSEMatrix& target = iteration % 5 == 0 ? a : m; // this may be a
        const Pixels pa(a), pb(b);
        std::vector<float> want = storedFloats(target);
        const int cols = std::min({target.GetSizeX(), a.GetSizeX(), b.GetSizeX()});
        const int bands = std::min({target.GetSSESizeY(), a.GetSSESizeY(), b.GetSSESizeY()});
        for (int y = 0; y < 4 * bands; ++y)
            for (int x = 0; x < cols; ++x) {
                const bool empty = (validA && !(pa(x, y) > 0.0f)) || (validB && !(pb(x, y) > 0.0f));
                want[storedIndex(target, x, y)] = empty ? 0.0f : pa(x, y) - pb(x, y);
            }
        target.CalcDifferenceMatrixConstrained(a, b, validA, validB);
        ASSERT_TRUE(sameFloats(want, storedFloats(target))) << iteration;
    }
}
