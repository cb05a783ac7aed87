#include <cmath>
#include <limits>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"
#include "matrix/PixelRuleCheck.h"

namespace {

using namespace qzsse::test;

const float inf = std::numeric_limits<float>::infinity();
const float nan = std::numeric_limits<float>::quiet_NaN();

// The packed maximum and minimum: the second operand wins unless the first is strictly
// larger (smaller), so NaN in either place and equal zeros give the second.
float packedMax(float a, float b) { return a > b ? a : b; }
float packedMin(float a, float b) { return a < b ? a : b; }

class ScalarArithmetic : public ::testing::TestWithParam<PixelRule> {};

TEST_P(ScalarArithmetic, MatchesPerPixelRule) { checkPixelRule(GetParam(), 11); }

INSTANTIATE_TEST_SUITE_P(Operations, ScalarArithmetic, ::testing::Values(
    PixelRule{"OffsetMatrix", [](CSSEMatrix& m) { m.OffsetMatrix(2.5f); },
              [](float p, int) { return p + 2.5f; }, {inf, -inf, -2.5f}},
    PixelRule{"OffsetMatrixAbove", [](CSSEMatrix& m) { m.OffsetMatrixAbove(1.0f, 2.5f); },
              [](float p, int) { return 1.0f < p ? p + 2.5f : p; }, around(1.0f)},
    PixelRule{"OffsetMatrixBelow", [](CSSEMatrix& m) { m.OffsetMatrixBelow(-0.5f, -3.0f); },
              [](float p, int) { return p < -0.5f ? p + -3.0f : p; }, around(-0.5f)},
    PixelRule{"LiftWhereNonZero", [](CSSEMatrix& m) { m.LiftWhereNonZero(4.0f); },
              [](float p, int) { return 0.005f < p ? p + 4.0f : p; }, around(0.005f)},
    PixelRule{"ScalarMultiply", [](CSSEMatrix& m) { m.ScalarMultiply(-1.5f); },
              [](float p, int) { return p * -1.5f; }, {inf, 3e38f}},
    PixelRule{"InvertSign", [](CSSEMatrix& m) { m.InvertSign(); },
              [](float p, int) { return 0.0f - p; }, {inf, -inf}},
    PixelRule{"Absolute", [](CSSEMatrix& m) { m.Absolute(); },
              [](float p, int) { return std::sqrt(p * p); }, {-3e20f, 3e20f, 1e-30f, -1e-30f, -inf}}),
    ruleName);

enum class Extent { This, Common };

struct PairRule {
    std::string name;
    Extent extent;
    std::function<void(CSSEMatrix&, CSSEMatrix&)> apply;
    std::function<float(float p, float o)> model;
    std::vector<float> specials;
};

void PrintTo(const PairRule& rule, std::ostream* os) { *os << rule.name; }

class MatrixArithmetic : public ::testing::TestWithParam<PairRule> {};

// "this" extent operations get a partner at least as large; "common" ones any partner,
// and pixels outside the common extent must keep their values. The partner never changes.
TEST_P(MatrixArithmetic, MatchesPerPixelRuleOverItsExtent)
{
    const PairRule& rule = GetParam();
    std::mt19937 rng(23);
    for (int iteration = 0; iteration < 60; ++iteration) {
        int sizeX, sizeY, otherX, otherY;
        randomShape(rng, sizeX, sizeY);
        if (rule.extent == Extent::This)
            randomShape(rng, otherX, otherY, sizeX, sizeY);
        else
            randomShape(rng, otherX, otherY);
        CSSEMatrix m, other;
        m.Create(sizeX, sizeY);
        other.Create(otherX, otherY);
        fillWithSpecials(m, rng, rule.specials);
        fillWithSpecials(other, rng, rule.specials);
        const std::vector<float> before = storedFloats(m);
        const std::vector<float> partner = storedFloats(other);

        std::vector<float> expected = before;
        for (int j = 0; j < m.GetSSESizeY() && j < other.GetSSESizeY(); ++j)
            for (int x = 0; x < sizeX && x < otherX; ++x)
                for (int lane = 0; lane < 4; ++lane) {
                    const size_t i = (static_cast<size_t>(j) * sizeX + x) * 4 + lane;
                    const size_t k = (static_cast<size_t>(j) * otherX + x) * 4 + lane;
                    expected[i] = rule.model(before[i], partner[k]);
                }
        rule.apply(m, other);
        ASSERT_TRUE(sameFloats(expected, storedFloats(m)))
            << sizeX << " x " << sizeY << " with " << otherX << " x " << otherY;
        ASSERT_TRUE(sameFloats(partner, storedFloats(other)));
    }
}

INSTANTIATE_TEST_SUITE_P(Operations, MatrixArithmetic, ::testing::Values(
    PairRule{"AddMatrix", Extent::This, [](CSSEMatrix& m, CSSEMatrix& o) { m.AddMatrix(o); },
             [](float p, float o) { return p + o; }, {inf, -inf}},
    PairRule{"SubMatrix", Extent::Common, [](CSSEMatrix& m, CSSEMatrix& o) { m.SubMatrix(o); },
             [](float p, float o) { return p - o; }, {inf}},
    PairRule{"SubMatrixValidate", Extent::Common, [](CSSEMatrix& m, CSSEMatrix& o) { m.SubMatrixValidate(o); },
             [](float p, float o) { return p > 0.0f ? p - o : p; }, around(0.0f)},
    PairRule{"AddMatrixOffseted", Extent::This,
             [](CSSEMatrix& m, CSSEMatrix& o) { m.AddMatrixOffseted(o, 1.5f); },
             [](float p, float o) { return p + packedMax(0.0f, o - 1.5f); }, around(1.5f)},
    PairRule{"AddMatrixOffsetedNormed", Extent::This,
             [](CSSEMatrix& m, CSSEMatrix& o) { m.AddMatrixOffsetedNormed(o, 1.5f, 0.3f); },
             [](float p, float o) { return p + packedMax(0.0f, o - 1.5f) * 0.3f; }, around(1.5f)},
    PairRule{"AddMatrixOffsetedConstrained", Extent::This,
             [](CSSEMatrix& m, CSSEMatrix& o) { m.AddMatrixOffsetedConstrained(o, -1.0f, 0.7f, 3.0f); },
             [](float p, float o) {
                 const float constrained = p >= 0.001f ? o : 0.0f;
                 return packedMax(0.0f, constrained - -1.0f) * 3.0f + p * 0.7f;
             },
             around(0.001f)},
    PairRule{"MaximumOf", Extent::Common, [](CSSEMatrix& m, CSSEMatrix& o) { m.MaximumOf(o); },
             [](float p, float o) { return packedMax(o, p); }, {inf, -inf}},
    PairRule{"MinimumOf", Extent::Common, [](CSSEMatrix& m, CSSEMatrix& o) { m.MinimumOf(o); },
             [](float p, float o) { return packedMin(o, p); }, {inf, -inf}},
    PairRule{"CombineAbsolute", Extent::Common, [](CSSEMatrix& m, CSSEMatrix& o) { m.CombineAbsolute(o); },
             [](float p, float o) { return std::sqrt(o * o + p * p); }, {3e20f, -2e19f, 1e-25f}},
    PairRule{"CombineMultiplicative", Extent::Common,
             [](CSSEMatrix& m, CSSEMatrix& o) { m.CombineMultiplicative(o, false); },
             [](float p, float o) { return p * o; }, {inf, 1e30f}},
    PairRule{"CombineMultiplicativeAbsolute", Extent::Common,
             [](CSSEMatrix& m, CSSEMatrix& o) { m.CombineMultiplicative(o, true); },
             [](float p, float o) { return std::sqrt((p * o) * (p * o)); }, {-1e10f, 1e-12f, inf}}),
    [](const ::testing::TestParamInfo<PairRule>& info) { return info.param.name; });

TEST(Absolute, IsTheRootOfTheSquare)
{
    CSSEMatrix m = column({-3e20f, 1e-30f, -0.0f, -2.0f});
    m.Absolute();
    const std::vector<float> got = realColumn(m);
    EXPECT_EQ(got[0], inf);
    EXPECT_TRUE(sameBits(got[1], 0.0f));
    EXPECT_TRUE(sameBits(got[2], 0.0f));
    EXPECT_EQ(got[3], 2.0f);
}

TEST(InvertSign, MakesBothZerosPositive)
{
    CSSEMatrix m = column({0.0f, -0.0f, 3.0f, -inf});
    m.InvertSign();
    const std::vector<float> got = realColumn(m);
    EXPECT_TRUE(sameBits(got[0], 0.0f));
    EXPECT_TRUE(sameBits(got[1], 0.0f));
    EXPECT_EQ(got[2], -3.0f);
    EXPECT_EQ(got[3], inf);
}

TEST(SubMatrixValidate, KeepsPixelsNotAboveZero)
{
    CSSEMatrix m = column({0.0f, -0.0f, -1.0f, 2.0f});
    CSSEMatrix other = column({5.0f, 5.0f, 5.0f, 5.0f});
    m.SubMatrixValidate(other);
    const std::vector<float> got = realColumn(m);
    EXPECT_TRUE(sameBits(got[0], 0.0f));
    EXPECT_TRUE(sameBits(got[1], -0.0f));
    EXPECT_EQ(got[2], -1.0f);
    EXPECT_EQ(got[3], -3.0f);
}

// NaN or equal zeros: the pixel of this matrix stays, whichever of the two is asked for.
TEST(MaximumOf, KeepsOwnNaNAndIgnoresPartnerNaN)
{
    CSSEMatrix high = column({nan, 1.0f, -0.0f, 2.0f});
    CSSEMatrix low = column({nan, 1.0f, -0.0f, 2.0f});
    CSSEMatrix other = column({1.0f, nan, 0.0f, 3.0f});
    high.MaximumOf(other);
    low.MinimumOf(other);
    const std::vector<float> max = realColumn(high);
    const std::vector<float> min = realColumn(low);
    EXPECT_TRUE(std::isnan(max[0]) && std::isnan(min[0]));
    EXPECT_EQ(max[1], 1.0f);
    EXPECT_EQ(min[1], 1.0f);
    EXPECT_TRUE(sameBits(max[2], -0.0f) && sameBits(min[2], -0.0f));
    EXPECT_EQ(max[3], 3.0f);
    EXPECT_EQ(min[3], 2.0f);
}

TEST(ScalarArithmetic, WritesPaddingRows)
{
    CSSEMatrix m;
    m.Create(3, 5);
    m.OffsetMatrix(2.0f);
    const std::vector<float> all = storedFloats(m);
    ASSERT_EQ(all.size(), 24u);
    EXPECT_EQ(all[storedIndex(m, 2, 7)], 2.0f);
    EXPECT_EQ(all[storedIndex(m, 0, 5)], 2.0f);
}

} // namespace
