#include "qzsse/core/CSSEFns.h"

#include <cmath>
#include <cstring>
#include <limits>
#include <random>

#include <gtest/gtest.h>

namespace {

__m128 vec(float x, float y, float z, float w)
{
    return _mm_setr_ps(x, y, z, w);
}

SSEPoint point(__m128 m)
{
    SSEPoint p;
    p.m = m;
    return p;
}

// The horizontal sum the library promises: pairs (0,3) and (1,2) first.
float pairedSum(float a, float b, float c, float d)
{
    volatile float s03 = a + d;
    volatile float s12 = b + c;
    return s03 + s12;
}

TEST(CSSEFns, SumsIncludeTheFourthLane)
{
    EXPECT_EQ(CSSEFns::scalarproduct(vec(1, 2, 3, 4), vec(1, 1, 1, 1)), 10.0f);
    EXPECT_EQ(CSSEFns::internal_addition_of_m128(vec(1, 2, 3, 4)), 10.0f);
    EXPECT_EQ(CSSEFns::vectorlen(vec(0, 0, 0, 2)), 2.0f);
    EXPECT_EQ(CSSEFns::euclideansqr(vec(1, 1, 1, 1), vec(0, 0, 0, 3)), 7.0f);
    EXPECT_EQ(CSSEFns::euclideandistance(vec(3, 0, 0, 4), vec(0, 0, 0, 0)), 5.0f);
}

// With values where rounding depends on the grouping, only (p0+p3)+(p1+p2) reproduces
// the result; a left-to-right sum gives a different float.
TEST(CSSEFns, HorizontalSumPairsOuterAndInnerLanes)
{
    const float a = 1.0f, b = 1e8f, c = -1e8f, d = 1e-8f;
    ASSERT_NE(pairedSum(a, b, c, d), ((a + b) + c) + d);
    EXPECT_EQ(CSSEFns::internal_addition_of_m128(vec(a, b, c, d)), pairedSum(a, b, c, d));

    std::mt19937 rng(7);
    std::uniform_real_distribution<float> dist(-1e4f, 1e4f);
    for (int i = 0; i < 1000; ++i) {
        float p[4], q[4];
        for (int k = 0; k < 4; ++k) {
            p[k] = dist(rng);
            q[k] = dist(rng);
        }
        __m128 vp = _mm_loadu_ps(p), vq = _mm_loadu_ps(q);
        volatile float m0 = p[0] * q[0], m1 = p[1] * q[1], m2 = p[2] * q[2], m3 = p[3] * q[3];
        EXPECT_EQ(CSSEFns::scalarproduct(vp, vq), pairedSum(m0, m1, m2, m3));
        volatile float d0 = p[0] - q[0], d1 = p[1] - q[1], d2 = p[2] - q[2], d3 = p[3] - q[3];
        volatile float s0 = d0 * d0, s1 = d1 * d1, s2 = d2 * d2, s3 = d3 * d3;
        const float sq = pairedSum(s0, s1, s2, s3);
        EXPECT_EQ(CSSEFns::euclideansqr(vp, vq), sq);
        EXPECT_EQ(CSSEFns::euclideandistance(vp, vq), std::sqrt(sq));
    }
}

TEST(CSSEFns, NormalizeDividesEveryLaneAndLeavesZeroToTheCaller)
{
    SSEPoint n = point(CSSEFns::normalizevector(vec(3, 4, 0, 0)));
    EXPECT_EQ(n.x, 0.6f);
    EXPECT_EQ(n.y, 0.8f);
    EXPECT_EQ(n.z, 0.0f);
    EXPECT_EQ(n.w, 0.0f);

    SSEPoint z = point(CSSEFns::normalizevector(vec(0, 0, 0, 0)));
    EXPECT_TRUE(std::isnan(z.x) && std::isnan(z.y) && std::isnan(z.z) && std::isnan(z.w));

    SSEPoint w = point(CSSEFns::normalizevector(vec(0, 0, 0, 2)));
    EXPECT_EQ(w.w, 1.0f);
}

TEST(CSSEFns, CrossProductAndVolumeFollowOrientation)
{
    SSEPoint c = point(CSSEFns::vectorproduct(vec(1, 0, 0, 5), vec(0, 1, 0, 7)));
    EXPECT_EQ(c.x, 0.0f);
    EXPECT_EQ(c.y, 0.0f);
    EXPECT_EQ(c.z, 1.0f);
    EXPECT_EQ(c.w, 0.0f);

    SSEPoint g = point(CSSEFns::vectorproduct(vec(2, 3, 4, 0), vec(5, 6, 7, 0)));
    EXPECT_EQ(g.x, 3 * 7 - 4 * 6);
    EXPECT_EQ(g.y, 4 * 5 - 2 * 7);
    EXPECT_EQ(g.z, 2 * 6 - 3 * 5);

    const float inf = std::numeric_limits<float>::infinity();
    EXPECT_TRUE(std::isnan(point(CSSEFns::vectorproduct(vec(1, 0, 0, inf), vec(0, 1, 0, 1))).w));

    EXPECT_EQ(CSSEFns::volume(vec(0, 0, 1, 0), vec(1, 0, 0, 0), vec(0, 1, 0, 0)), 1.0f);
    EXPECT_EQ(CSSEFns::volume(vec(0, 0, 1, 0), vec(0, 1, 0, 0), vec(1, 0, 0, 0)), -1.0f);
    // Lane 3 of a meets the cross product's lane 3, which is 0.
    EXPECT_EQ(CSSEFns::volume(vec(0, 0, 1, 9), vec(1, 0, 0, 3), vec(0, 1, 0, 4)), 1.0f);
    // Not divided by 6: the unit cube's triple product is 1, a 2-cube's 8.
    EXPECT_EQ(CSSEFns::volume(vec(2, 0, 0, 0), vec(0, 2, 0, 0), vec(0, 0, 2, 0)), 8.0f);
}

TEST(CSSEFns, TransformIsAffineWithUnitFourthLane)
{
    t_ssematrix3 m;
    m.row[0] = vec(1, 0, 0, 10);
    m.row[1] = vec(0, 1, 0, 20);
    m.row[2] = vec(0, 0, 1, 30);
    SSEPoint t = point(CSSEFns::transform(vec(1, 2, 3, 1), m));
    EXPECT_EQ(t.x, 11.0f);
    EXPECT_EQ(t.y, 22.0f);
    EXPECT_EQ(t.z, 33.0f);
    EXPECT_EQ(t.w, 0.0f);

    SSEPoint l = point(CSSEFns::transform(vec(1, 2, 3, 0), m));
    EXPECT_EQ(l.x, 1.0f);
    EXPECT_EQ(l.y, 2.0f);
    EXPECT_EQ(l.z, 3.0f);

    m.row[0] = vec(0, 1, 0, 0); // swap x and y
    m.row[1] = vec(1, 0, 0, 0);
    m.row[2] = vec(2, 2, 2, 0);
    SSEPoint s = point(CSSEFns::transform(vec(1, 2, 3, 0), m));
    EXPECT_EQ(s.x, 2.0f);
    EXPECT_EQ(s.y, 1.0f);
    EXPECT_EQ(s.z, 12.0f);
}

TEST(CSSEFns, MinMaxOfLanesPickTheDescribedLaneWithNaN)
{
    float out = 0;
    CSSEFns::min_of_m128(vec(4, 3, 2, 1), &out);
    EXPECT_EQ(out, 1.0f);
    CSSEFns::max_of_m128(vec(4, 3, 2, 1), &out);
    EXPECT_EQ(out, 4.0f);
    CSSEFns::min_of_m128(vec(-1, 5, 7, 9), &out);
    EXPECT_EQ(out, -1.0f);
    CSSEFns::max_of_m128(vec(-1, 5, 7, -9), &out);
    EXPECT_EQ(out, 7.0f);

    // m02 = a0 < a2 ? a0 : a2, m13 likewise, result = m13 < m02 ? m13 : m02: a NaN makes
    // the comparison false and the second operand wins.
    const float nan = std::numeric_limits<float>::quiet_NaN();
    CSSEFns::min_of_m128(vec(nan, 3, 2, 5), &out); // m02 = 2, m13 = 3
    EXPECT_EQ(out, 2.0f);
    CSSEFns::min_of_m128(vec(1, 3, nan, 5), &out); // m02 = NaN, m13 = 3 -> m02
    EXPECT_TRUE(std::isnan(out));
    CSSEFns::max_of_m128(vec(1, nan, 2, 0), &out); // m02 = 2, m13 = 0 -> 2
    EXPECT_EQ(out, 2.0f);
    CSSEFns::max_of_m128(vec(1, 8, 2, nan), &out); // m13 = NaN: m13 > m02 false -> m02 = 2
    EXPECT_EQ(out, 2.0f);
}

} // namespace
