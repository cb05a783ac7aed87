#include <cmath>
#include <numbers>
#include <random>

#include <gtest/gtest.h>

#include "qzsse/geometry/CHSimpleBasisFcns.h"

namespace {

SSEPoint Pt(float x, float y, float z = 0.0f, float w = 0.0f)
{
    SSEPoint p;
    p.x = x;
    p.y = y;
    p.z = z;
    p.w = w;
    return p;
}

void ExpectPoint(const t_h2dpoint& p, float x, float y)
{
    EXPECT_FLOAT_EQ(p.x, x);
    EXPECT_FLOAT_EQ(p.y, y);
}

}  // namespace

TEST(BasisFcns, OrientationCountsAreasWithinToleranceAsCollinear)
{
    const CHSimpleBasisFcns f;
    const t_h2dpoint a{0, 0}, b{1, 0};
    // Doubled areas 0.0004 and -0.0004 are inside the tolerance although exactly non-zero.
    for (const float y : {0.0004f, -0.0004f}) {
        const t_h2dpoint c{0.5f, y};
        EXPECT_TRUE(f.Collinear(a, b, c));
        EXPECT_FALSE(f.Left(a, b, c));
        EXPECT_TRUE(f.LeftOn(a, b, c));
        EXPECT_EQ(f.AreaSign(a, b, c), 0.0f);
    }
    const t_h2dpoint above{0.5f, 0.0006f}, below{0.5f, -0.0006f};
    EXPECT_TRUE(f.Left(a, b, above));
    EXPECT_EQ(f.AreaSign(a, b, above), 1.0f);
    EXPECT_FALSE(f.Collinear(a, b, above));
    EXPECT_FALSE(f.LeftOn(a, b, below));
    EXPECT_EQ(f.AreaSign(a, b, below), -1.0f);
    EXPECT_EQ(f.AreaSign(b, a, above), -1.0f);
}

TEST(BasisFcns, BetweenReadsXUnlessTheSegmentIsVertical)
{
    const CHSimpleBasisFcns f;
    // Almost vertical but not vertical: only x is compared, so a far-off y still counts.
    const t_h2dpoint a{0, 0}, b{0.0001f, 1};
    EXPECT_TRUE(f.Between(a, b, {0.00005f, 3.0f}));
    EXPECT_TRUE(f.Between(b, a, {0.00005f, 3.0f}));
    // Vertical: y decides, ends included.
    const t_h2dpoint v0{0, 0}, v1{0, 1};
    EXPECT_FALSE(f.Between(v0, v1, {0, 3}));
    EXPECT_TRUE(f.Between(v1, v0, {0, 0.5f}));
    EXPECT_TRUE(f.Between(v0, v1, {0.0004f, 0.5f}));
    // Not collinear: false whatever the ranges.
    EXPECT_FALSE(f.Between({0, 0}, {4, 0}, {2, 1}));
    EXPECT_TRUE(f.Between({0, 0}, {4, 0}, {2, 0.0001f}));
    EXPECT_FALSE(f.Between({0, 0}, {4, 0}, {5, 0}));
}

TEST(BasisFcns, IntersectAcceptsTouchingButIntersectPropOnlyCrossing)
{
    const CHSimpleBasisFcns f;
    EXPECT_TRUE(f.IntersectProp({0, 0}, {2, 2}, {0, 2}, {2, 0}));
    EXPECT_TRUE(f.Intersect({0, 0}, {2, 2}, {0, 2}, {2, 0}));
    // T junction: an end point on the other segment.
    EXPECT_FALSE(f.IntersectProp({0, 0}, {2, 0}, {1, 0}, {1, 1}));
    EXPECT_TRUE(f.Intersect({0, 0}, {2, 0}, {1, 0}, {1, 1}));
    // Collinear overlap and disjoint segments.
    EXPECT_TRUE(f.Intersect({0, 0}, {2, 0}, {1, 0}, {3, 0}));
    EXPECT_FALSE(f.Intersect({0, 0}, {2, 0}, {3, 0}, {4, 0}));
    EXPECT_FALSE(f.Intersect({0, 0}, {2, 0}, {0, 1}, {2, 3}));

    t_h2dpoint p{-7, -7};
    EXPECT_TRUE(f.ParallelInt({0, 0}, {2, 0}, {1, 0}, {3, 0}, p));
    ExpectPoint(p, 1, 0);
    EXPECT_TRUE(f.ParallelInt({0, 0}, {2, 0}, {3, 0}, {1, 0}, p));
    ExpectPoint(p, 1, 0);
    EXPECT_TRUE(f.ParallelInt({0, 0}, {2, 0}, {-1, 0}, {5, 0}, p));
    ExpectPoint(p, 0, 0);
    p = {-7, -7};
    EXPECT_FALSE(f.ParallelInt({0, 0}, {2, 0}, {3, 0}, {4, 0}, p));
    ExpectPoint(p, -7, -7);
}

TEST(BasisFcns, InConeSeparatesInteriorFromExteriorDirections)
{
    const CHSimpleBasisFcns f;
    // Counter-clockwise arrow with a reflex vertex at (2, 1).
    const t_h2dpoint corners[5] = {{0, 0}, {4, 0}, {4, 4}, {2, 1}, {0, 4}};
    t_hvertex v[5];
    for (int i = 0; i < 5; ++i)
        v[i] = {corners[i], false, &v[(i + 1) % 5], &v[(i + 4) % 5], i};
    t_hvertex probe = v[0];
    EXPECT_TRUE(f.InCone(&v[0], &v[2]));
    probe.position = {-1, 1};
    EXPECT_FALSE(f.InCone(&v[0], &probe));
    EXPECT_TRUE(f.InCone(&v[3], &v[0]));
    EXPECT_TRUE(f.InCone(&v[3], &v[1]));
    probe.position = {2, 3};
    EXPECT_FALSE(f.InCone(&v[3], &probe));
}

TEST(BasisFcns, GetIntersectionHonoursParameterSlack)
{
    const CHSimpleBasisFcns f;
    t_h2dpoint p{};
    EXPECT_TRUE(f.GetIntersection({0, 0}, {2, 2}, {0, 2}, {2, 0}, p));
    ExpectPoint(p, 1, 1);
    // Crossing just past b, within 0.0001 of the end.
    EXPECT_TRUE(f.GetIntersection({0, 0}, {1, 0}, {1.00005f, -1}, {1.00005f, 1}, p));
    ExpectPoint(p, 1.00005f, 0);
    // Past the slack: no intersection, but the point on the line ab is still written.
    EXPECT_FALSE(f.GetIntersection({0, 0}, {1, 0}, {1.0002f, -1}, {1.0002f, 1}, p));
    ExpectPoint(p, 1.0002f, 0);
    EXPECT_FALSE(f.GetIntersection({0, 0}, {1, 0}, {0.5f, -2}, {0.5f, -1.0002f}, p));

    SSEPoint q = Pt(9, 9, 9, 5);
    EXPECT_TRUE(CHSimpleBasisFcns::GetIntersection(Pt(0, 0, 3), Pt(2, 2, 3), Pt(0, 2, 3), Pt(2, 0, 3), q));
    EXPECT_FLOAT_EQ(q.x, 1);
    EXPECT_FLOAT_EQ(q.y, 1);
    EXPECT_EQ(q.z, 0.0f);
    EXPECT_EQ(q.w, 5.0f);
}

TEST(BasisFcns, GetIntersectionOfParallelSegmentsReportsAnEndPoint)
{
    const CHSimpleBasisFcns f;
    t_h2dpoint p{};
    // ab longer than cd: c, or d when c coincides with an end of ab.
    EXPECT_FALSE(f.GetIntersection({0, 0}, {4, 0}, {1, 1}, {2, 1}, p));
    ExpectPoint(p, 1, 1);
    EXPECT_FALSE(f.GetIntersection({0, 0}, {4, 0}, {0, 0}, {1, 0}, p));
    ExpectPoint(p, 1, 0);
    EXPECT_FALSE(f.GetIntersection({0, 0}, {4, 0}, {4, 0}, {5, 0}, p));
    ExpectPoint(p, 5, 0);
    // ab not longer: b when a and c share x and both y are non-zero, even though the y differ.
    EXPECT_FALSE(f.GetIntersection({1, 1}, {2, 1}, {1, 3}, {4, 3}, p));
    ExpectPoint(p, 2, 1);
    // Same x but a.y is zero: that rule does not fire, and a is the answer.
    EXPECT_FALSE(f.GetIntersection({1, 0}, {2, 0}, {1, 3}, {4, 3}, p));
    ExpectPoint(p, 1, 0);
    // b when a coincides with d, else a.
    EXPECT_FALSE(f.GetIntersection({0, 0}, {1, 0}, {-3, 0}, {0, 0}, p));
    ExpectPoint(p, 1, 0);
    EXPECT_FALSE(f.GetIntersection({0, 0}, {1, 0}, {5, 1}, {8, 1}, p));
    ExpectPoint(p, 0, 0);

    SSEPoint q = Pt(9, 9, 9);
    EXPECT_FALSE(CHSimpleBasisFcns::GetIntersection(Pt(0, 0), Pt(4, 0), Pt(1, 1), Pt(2, 1), q));
    EXPECT_EQ(q.x, 1.0f);
    EXPECT_EQ(q.y, 1.0f);
    EXPECT_EQ(q.z, 0.0f);
}

TEST(BasisFcns, VertexAlreadyThereMatchesAllFourLanes)
{
    const SSEPoint array[3] = {Pt(1, 2, 3, 0), Pt(5, 5, 5, 0), Pt(5, 5, 5.00005f, 0.00005f)};
    EXPECT_EQ(CHSimpleBasisFcns::VertexAlreadyThereInArray(array, Pt(1, 2, 3), 0), -1);
    EXPECT_EQ(CHSimpleBasisFcns::VertexAlreadyThereInArray(array, Pt(1, 2, 3.00009f), 3), 0);
    EXPECT_EQ(CHSimpleBasisFcns::VertexAlreadyThereInArray(array, Pt(1, 2, 3.0002f), 3), -1);
    EXPECT_EQ(CHSimpleBasisFcns::VertexAlreadyThereInArray(array, Pt(1, 2, 3, 0.0002f), 3), -1);
    EXPECT_EQ(CHSimpleBasisFcns::VertexAlreadyThereInArray(array, Pt(5, 5, 5.00004f), 3), 1);
    EXPECT_EQ(CHSimpleBasisFcns::VertexAlreadyThereInArray(array, Pt(5, 5, 5.00008f, 0.0001f), 3), 2);
    EXPECT_EQ(CHSimpleBasisFcns::VertexAlreadyThereInArray(array, Pt(5, 5, 5.00008f, 0.0001f), 2), -1);
}

TEST(BasisFcns, LineHelpersProjectAndParametrise)
{
    t_vector out{7, 7, 7};
    CHSimpleBasisFcns::FindOrthogonal({1, 0, 0}, out);
    EXPECT_EQ(out.x, 0.0f);
    EXPECT_EQ(out.y, 1.0f);
    EXPECT_EQ(out.z, 0.0f);
    CHSimpleBasisFcns::FindOrthogonal({0, 2, 0}, out);
    EXPECT_EQ(out.x, 1.0f);
    EXPECT_EQ(out.y, 0.0f);
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
    EXPECT_EQ(out.x, 0.0f);
    EXPECT_EQ(out.y, 0.0f);

    SSEPoint foot = Pt(9, 9, 9, 9);
    CHSimpleBasisFcns::FindFoodPoint({1, 1, 0}, Pt(0, 0), Pt(2, 0, 5), foot);
    EXPECT_FLOAT_EQ(foot.x, 1);
    EXPECT_FLOAT_EQ(foot.y, 1);
    EXPECT_EQ(foot.z, 0.0f);
    CHSimpleBasisFcns::FindFoodPoint({0.0001f, 0, 0}, Pt(1, 1), Pt(2, 0), foot);
    EXPECT_EQ(foot.x, 0.0f);
    EXPECT_EQ(foot.y, 0.0f);

    CHSimpleBasisFcns::FindPointOnLine({2, 0, 0}, Pt(1, 1), 1.5f, foot);
    EXPECT_FLOAT_EQ(foot.x, 4);
    EXPECT_FLOAT_EQ(foot.y, 1);
    float t = -1;
    CHSimpleBasisFcns::FindParameterOfPoint({2, 0, 0}, Pt(1, 1), Pt(5, 1), t);
    EXPECT_FLOAT_EQ(t, 2);
    CHSimpleBasisFcns::FindParameterOfPoint({0, 2, 0}, Pt(1, 1), Pt(1.00005f, 5), t);
    EXPECT_FLOAT_EQ(t, 2);
    CHSimpleBasisFcns::FindParameterOfPoint({0, 2, 0}, Pt(1, 1), Pt(1, 1), t);
    EXPECT_EQ(t, 0.0f);

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
    EXPECT_NEAR(CHSimpleBasisFcns::GetRealAngle(1.5f * pi), -0.5f * pi, 1e-5);
    EXPECT_NEAR(CHSimpleBasisFcns::GetRealAngle(-1.5f * pi), 0.5f * pi, 1e-5);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> angle(-40, 40);
    for (int k = 0; k < 200; ++k) {
        const float a = angle(rng);
        const float r = CHSimpleBasisFcns::GetRealAngle(a);
        EXPECT_LT(r, pi - 0.0001f);
        EXPECT_GT(r, -pi - 0.0002f);
        const double turns = (static_cast<double>(a) - r) / (2 * std::numbers::pi);
        EXPECT_NEAR(turns, std::round(turns), 1e-4);
    }
    EXPECT_TRUE(std::isinf(CHSimpleBasisFcns::GetRealAngle(INFINITY)));
}
