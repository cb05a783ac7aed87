#include <cmath>
#include <numbers>
#include <random>

#include <gtest/gtest.h>

#include "qzsse/geometry/CHSimpleBasisFcns.h"

namespace {

SSEPoint Pt(float x, float y, float z = 0.0f, float w = 0.0f)
{
    SSEPoint p;
    p.m = _mm_setr_ps(x, y, z, w);
    return p;
}

}  // namespace

TEST(BasisFcns, OrientationCountsAreasWithinToleranceAsCollinear)
{
    const CHSimpleBasisFcns f;
    const t_h2dpoint a{0, 0}, b{1, 0};
    // Doubled areas of +-0.0004 are inside the tolerance although exactly non-zero.
    struct Case { float y, sign; };
    for (const Case c : {Case{0.0004f, 0}, {-0.0004f, 0}, {0.0006f, 1}, {-0.0006f, -1}}) {
        const t_h2dpoint p{0.5f, c.y};
        EXPECT_EQ(f.AreaSign(a, b, p), c.sign) << c.y;
        EXPECT_EQ(f.AreaSign(b, a, p), -c.sign + 0.0f) << c.y;
        EXPECT_EQ(f.Collinear(a, b, p), c.sign == 0) << c.y;
        EXPECT_EQ(f.Left(a, b, p), c.sign > 0) << c.y;
        EXPECT_EQ(f.LeftOn(a, b, p), c.sign >= 0) << c.y;
    }
}

TEST(BasisFcns, BetweenReadsXUnlessTheSegmentIsVertical)
{
    const CHSimpleBasisFcns f;
    struct Case { t_h2dpoint a, b, c; bool between; };
    const Case cases[] = {
        // Almost vertical but not vertical: only x is compared, so a far-off y still counts.
        {{0, 0}, {0.0001f, 1}, {0.00005f, 3}, true},
        {{0.0001f, 1}, {0, 0}, {0.00005f, 3}, true},
        // Vertical: y decides, ends included.
        {{0, 0}, {0, 1}, {0, 3}, false},
        {{0, 1}, {0, 0}, {0, 0.5f}, true},
        {{0, 0}, {0, 1}, {0.0004f, 0.5f}, true},
        {{0, 0}, {0, 1}, {0, 1}, true},
        // Not collinear: false whatever the ranges.
        {{0, 0}, {4, 0}, {2, 1}, false},
        {{0, 0}, {4, 0}, {2, 0.0001f}, true},
        {{0, 0}, {4, 0}, {5, 0}, false},
    };
    for (const Case& c : cases)
        EXPECT_EQ(f.Between(c.a, c.b, c.c), c.between) << c.a.x << "," << c.a.y << " " << c.c.x << "," << c.c.y;
}

TEST(BasisFcns, IntersectAcceptsTouchingButIntersectPropOnlyCrossing)
{
    const CHSimpleBasisFcns f;
    struct Case { t_h2dpoint a, b, c, d; bool prop, touch; };
    const Case cases[] = {
        {{0, 0}, {2, 2}, {0, 2}, {2, 0}, true, true},
        {{0, 0}, {2, 0}, {1, 0}, {1, 1}, false, true},   // T junction
        {{0, 0}, {2, 0}, {1, 0}, {3, 0}, false, true},   // collinear overlap
        {{0, 0}, {2, 0}, {3, 0}, {4, 0}, false, false},
        {{0, 0}, {2, 0}, {0, 1}, {2, 3}, false, false},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(f.IntersectProp(c.a, c.b, c.c, c.d), c.prop) << c.c.x << "," << c.c.y;
        EXPECT_EQ(f.Intersect(c.a, c.b, c.c, c.d), c.touch) << c.c.x << "," << c.c.y;
    }
    // Collinear segments: the first end point found on the other segment (c, d, a, b).
    struct Par { t_h2dpoint c, d; bool found; t_h2dpoint p; };
    for (const Par& c : {Par{{1, 0}, {3, 0}, true, {1, 0}}, {{3, 0}, {1, 0}, true, {1, 0}},
                         {{-1, 0}, {5, 0}, true, {0, 0}}, {{3, 0}, {4, 0}, false, {-7, -7}}}) {
        t_h2dpoint p{-7, -7};
        EXPECT_EQ(f.ParallelInt({0, 0}, {2, 0}, c.c, c.d, p), c.found);
        EXPECT_TRUE(p.x == c.p.x && p.y == c.p.y) << c.c.x << " -> " << p.x << "," << p.y;
    }
}

TEST(BasisFcns, InConeSeparatesInteriorFromExteriorDirections)
{
    const CHSimpleBasisFcns f;
    // Counter-clockwise arrow with a reflex vertex at (2, 1).
    const t_h2dpoint corners[5] = {{0, 0}, {4, 0}, {4, 4}, {2, 1}, {0, 4}};
    t_hvertex v[5];
    for (int i = 0; i < 5; ++i)
        v[i] = {corners[i], false, &v[(i + 1) % 5], &v[(i + 4) % 5], i};
    t_hvertex outside = v[0], aboveReflex = v[0];
    outside.position = {-1, 1};
    aboveReflex.position = {2, 3};
    EXPECT_TRUE(f.InCone(&v[0], &v[2]));
    EXPECT_FALSE(f.InCone(&v[0], &outside));
    EXPECT_TRUE(f.InCone(&v[3], &v[0]));
    EXPECT_TRUE(f.InCone(&v[3], &v[1]));
    EXPECT_FALSE(f.InCone(&v[3], &aboveReflex));
}

TEST(BasisFcns, GetIntersectionHonoursSlackAndReportsEndPointsOfParallels)
{
    const CHSimpleBasisFcns f;
    struct Case { t_h2dpoint a, b, c, d; bool meets; t_h2dpoint p; };
    const Case cases[] = {
        {{0, 0}, {2, 2}, {0, 2}, {2, 0}, true, {1, 1}},
        // Crossing just past b, within 0.0001 of the end; past the slack the point on ab is
        // still written.
        {{0, 0}, {1, 0}, {1.00005f, -1}, {1.00005f, 1}, true, {1.00005f, 0}},
        {{0, 0}, {1, 0}, {1.0002f, -1}, {1.0002f, 1}, false, {1.0002f, 0}},
        {{0, 0}, {1, 0}, {0.5f, -2}, {0.5f, -1.0002f}, false, {0.5f, 0}},
        {{0, 0}, {1, 0}, {-0.00005f, -1}, {-0.00005f, 1}, true, {-0.00005f, 0}},
        // Parallel, ab longer than cd: c, or d when c coincides with an end of ab.
        {{0, 0}, {4, 0}, {1, 1}, {2, 1}, false, {1, 1}},
        {{0, 0}, {4, 0}, {0, 0}, {1, 0}, false, {1, 0}},
        {{0, 0}, {4, 0}, {4, 0}, {5, 0}, false, {5, 0}},
        // ab not longer: b when a and c share x and both y are non-zero, even though the y differ.
        {{1, 1}, {2, 1}, {1, 3}, {4, 3}, false, {2, 1}},
        {{1, 0}, {2, 0}, {1, 3}, {4, 3}, false, {1, 0}}, // a.y is zero: a
        // b when a coincides with d, else a.
        {{0, 0}, {1, 0}, {-3, 0}, {0, 0}, false, {1, 0}},
        {{0, 0}, {1, 0}, {5, 1}, {8, 1}, false, {0, 0}},
    };
    for (const Case& c : cases) {
        t_h2dpoint p{-7, -7};
        EXPECT_EQ(f.GetIntersection(c.a, c.b, c.c, c.d, p), c.meets) << c.c.x << "," << c.c.y;
        EXPECT_FLOAT_EQ(p.x, c.p.x) << c.c.x << "," << c.c.y;
        EXPECT_FLOAT_EQ(p.y, c.p.y) << c.c.x << "," << c.c.y;
    }
    // The SSE form writes z = 0 and leaves w alone.
    SSEPoint q = Pt(9, 9, 9, 5);
    EXPECT_TRUE(CHSimpleBasisFcns::GetIntersection(Pt(0, 0, 3), Pt(2, 2, 3), Pt(0, 2, 3), Pt(2, 0, 3), q));
    EXPECT_TRUE(q.x == 1 && q.y == 1 && q.z == 0 && q.w == 5) << q.x << " " << q.y << " " << q.z << " " << q.w;
}

TEST(BasisFcns, VertexAlreadyThereMatchesAllFourLanes)
{
    const SSEPoint array[3] = {Pt(1, 2, 3, 0), Pt(5, 5, 5, 0), Pt(5, 5, 5.00005f, 0.00005f)};
    struct Case { SSEPoint p; int n, found; };
    for (const Case& c : {Case{Pt(1, 2, 3), 0, -1}, {Pt(1, 2, 3.00009f), 3, 0}, {Pt(1, 2, 3.0002f), 3, -1},
                          {Pt(1, 2, 3, 0.0002f), 3, -1}, {Pt(5, 5, 5.00004f), 3, 1},
                          {Pt(5, 5, 5.00008f, 0.0001f), 3, 2}, {Pt(5, 5, 5.00008f, 0.0001f), 2, -1}})
        EXPECT_EQ(CHSimpleBasisFcns::VertexAlreadyThereInArray(array, c.p, c.n), c.found) << c.p.z << " " << c.n;
}

TEST(BasisFcns, LineHelpersProjectAndParametrise)
{
    t_vector out{7, 7, 7};
    CHSimpleBasisFcns::FindOrthogonal({1, 0, 0}, out);
    EXPECT_TRUE(out.x == 0 && out.y == 1 && out.z == 0);
    CHSimpleBasisFcns::FindOrthogonal({0, 2, 0}, out);
    EXPECT_TRUE(out.x == 1 && out.y == 0);
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> c(-10, 10);
    for (int k = 0; k < 100; ++k) {
        const t_vector v{c(rng), c(rng), 0};
        CHSimpleBasisFcns::FindOrthogonal(v, out);
        EXPECT_NEAR(out.x * v.x + out.y * v.y, 0.0, 1e-5 * std::hypot(v.x, v.y));
        EXPECT_NEAR(std::hypot(out.x, out.y), 1.0, 1e-6);
    }
    CHSimpleBasisFcns::FindLine(Pt(4, 6), Pt(1, 2), out);
    EXPECT_FLOAT_EQ(out.x, 0.6f);
    EXPECT_FLOAT_EQ(out.y, 0.8f);
    CHSimpleBasisFcns::FindLine(Pt(1, 2), Pt(1, 2), out);
    EXPECT_TRUE(out.x == 0 && out.y == 0);

    SSEPoint foot = Pt(9, 9, 9, 9);
    CHSimpleBasisFcns::FindFoodPoint({1, 1, 0}, Pt(0, 0), Pt(2, 0, 5), foot);
    EXPECT_TRUE(std::fabs(foot.x - 1) < 1e-6f && std::fabs(foot.y - 1) < 1e-6f && foot.z == 0);
    CHSimpleBasisFcns::FindFoodPoint({0.0001f, 0, 0}, Pt(1, 1), Pt(2, 0), foot);
    EXPECT_TRUE(foot.x == 0 && foot.y == 0);
    CHSimpleBasisFcns::FindPointOnLine({2, 0, 0}, Pt(1, 1), 1.5f, foot);
    EXPECT_TRUE(foot.x == 4 && foot.y == 1);

    // Read from x unless p and base share x (within 0.0001); 0 when they coincide.
    for (const auto& [dir, p, expected] : {std::tuple{t_vector{2, 0, 0}, Pt(5, 1), 2.0f},
                                           {t_vector{0, 2, 0}, Pt(1.00005f, 5), 2.0f}, {t_vector{0, 2, 0}, Pt(1, 1), 0.0f}}) {
        float t = -1;
        CHSimpleBasisFcns::FindParameterOfPoint(dir, Pt(1, 1), p, t);
        EXPECT_FLOAT_EQ(t, expected);
    }
    EXPECT_TRUE(CHSimpleBasisFcns::IsPointInHalfeplain(1, 0, 2, true, Pt(2, 7)));
    EXPECT_FALSE(CHSimpleBasisFcns::IsPointInHalfeplain(1, 0, 2, false, Pt(2, 7)));
    EXPECT_TRUE(CHSimpleBasisFcns::IsPointInHalfeplain(1, 0, 2, false, Pt(1, 7)));
    EXPECT_FLOAT_EQ(CHSimpleBasisFcns::GetDistance(Pt(3, 4, 100), Pt(0, 0, -5)), 5);
}

TEST(BasisFcns, GetRealAngleWrapsIntoHalfOpenRange)
{
    const float pi = std::numbers::pi_v<float>;
    EXPECT_EQ(CHSimpleBasisFcns::GetRealAngle(0.0f), 0.0f);
    EXPECT_NEAR(CHSimpleBasisFcns::GetRealAngle(pi), -pi, 1e-6);
    EXPECT_TRUE(std::isinf(CHSimpleBasisFcns::GetRealAngle(INFINITY)));
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> angle(-40, 40);
    for (int k = 0; k < 200; ++k) {
        const float a = angle(rng), r = CHSimpleBasisFcns::GetRealAngle(a);
        EXPECT_TRUE(r < pi - 0.0001f && r > -pi - 0.0002f) << a << " -> " << r;
        const double turns = (static_cast<double>(a) - r) / (2 * std::numbers::pi);
        EXPECT_NEAR(turns, std::round(turns), 1e-4);
    }
}
