#include <gtest/gtest.h>

#include <initializer_list>

#include "qzsse/contour/CPixelChain.h"
#include "qzsse/matrix/CSSEMatrix.h"

namespace {

struct P {
    int x, y;
    float v;
};

void fill(CPixelChain& chain, std::initializer_list<P> points)
{
    chain.RemovePoints();
    for (const P& p : points)
        chain.AddPoint(p.x, p.y, p.v);
}

} // namespace

TEST(PixelChainPoints, AddPointStopsAtTheCapAndCopiesAreIndependent)
{
    CPixelChain chain;
    for (int i = 0; i < 100005; ++i)
        chain.AddPoint(i, -i, 0.5f * static_cast<float>(i % 7));
    ASSERT_EQ(chain.GetCount(), 100000);
    int x = 0, y = 0;
    EXPECT_TRUE(chain.GetPixel(99999, x, y));
    EXPECT_EQ(x, 99999);
    EXPECT_EQ(y, -99999);
    EXPECT_FALSE(chain.GetPixel(100000, x, y));

    CPixelChain copy(chain);
    chain.OffsetChain(1.0f);
    EXPECT_EQ(copy.GetCount(), 100000);
    EXPECT_EQ(copy[6].value, 3.0f);
    EXPECT_EQ(chain[6].value, 4.0f);
    copy = chain;
    EXPECT_EQ(copy[6].value, 4.0f);
}

TEST(PixelChainPoints, CentreRoundsByAddingHalfAndTruncating)
{
    CPixelChain chain;
    // Means -8/3 and 4/3: -2.67 + 0.5 truncates to -2, not the nearest -3.
    fill(chain, {{-3, 0, 0}, {-2, 1, 0}, {-3, 3, 0}});
    long cx = 0, cy = 0;
    chain.CalculateGeomCenter_norm(&cx, &cy);
    EXPECT_EQ(cx, -2);
    EXPECT_EQ(cy, 1);
    float fx = 0, fy = 0;
    chain.CalculateGeomCenter_precis(&fx, &fy);
    EXPECT_FLOAT_EQ(fx, -8.0f / 3.0f);
    EXPECT_FLOAT_EQ(fy, 4.0f / 3.0f);

    fill(chain, {{1, 1, 0}, {2, 2, 0}});
    chain.CalculateGeomCenter_norm();
    EXPECT_EQ(chain.GetCenterX(), 2);
    EXPECT_EQ(chain.GetCenterY(), 2);
}

TEST(PixelChainFilters, ThreePointFilterWrapsAroundAndReadsOldValues)
{
    CPixelChain chain;
    fill(chain, {{0, 0, 3}, {1, 0, 9}, {2, 0, 4}, {3, 0, 8}, {4, 0, 5}, {5, 0, 7}});
    chain.MinimumFilterChain();
    const float minimum[6] = {3, 3, 4, 4, 5, 3};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(chain[i].value, minimum[i]) << i;

    fill(chain, {{0, 0, 3}, {1, 0, 9}, {2, 0, 4}, {3, 0, 8}, {4, 0, 5}, {5, 0, 7}});
    chain.MaximumFilterChain();
    const float maximum[6] = {9, 9, 9, 8, 8, 7};
    for (int i = 0; i < 6; ++i)
        EXPECT_EQ(chain[i].value, maximum[i]) << i;
}

TEST(PixelChainQueries, NearestPointKeepsTheFirstOfEquals)
{
    CPixelChain chain;
    EXPECT_EQ(chain.FindNearestPoint(0, 0), -1);
    fill(chain, {{0, 0, 0}, {2, 0, 0}, {1, 3, 0}});
    EXPECT_EQ(chain.FindNearestPoint(1, 0), 0);
    EXPECT_EQ(chain.FindNearestPoint(1, 2), 2);
    int px = -7, py = -7;
    EXPECT_EQ(chain.GetNearestPixel(2, 1, px, py), 1);
    EXPECT_EQ(px, 2);
    EXPECT_EQ(py, 0);
    // The search starts at 999999.9: nothing farther is ever found.
    fill(chain, {{2000000, 0, 0}});
    EXPECT_EQ(chain.FindNearestPoint(0, 0), -1);
}

TEST(PixelChainQueries, LimitedSearchLooksOnlyStrictlyBelow)
{
    CPixelChain chain;
    fill(chain, {{5, 3, 0}, {9, 8, 0}, {1, 8, 0}, {5, 2, 0}});
    EXPECT_EQ(chain.FindNearestPointLimited(5, 3), 1);
    EXPECT_EQ(chain.FindNearestPointLimited(5, 8), -1);
}

TEST(PixelChainQueries, IntersectionRowAveragesNearestLeftAndRight)
{
    CPixelChain chain;
    // Centre (5, 5). Right of column 5, (10,9) scores 25 + 4*1 and beats (6,6) at 1 + 4*16,
    // which unweighted rows would prefer.
    fill(chain, {{4, 8, 0}, {10, 9, 0}, {2, 8, 0}, {6, 6, 0}, {5, 7, 0}, {3, 0, 0}, {8, 0, 0}, {5, 2, 0}});
    EXPECT_EQ(chain.FindNearestIntersectionPointY(5, 10, true), 8.5f);
    EXPECT_EQ(chain.GetCenterX(), 5);
    EXPECT_EQ(chain.GetCenterY(), 5);
    // Above the centre only (5,2) lies between, on the column itself: the fallback
    // searches below row 1, where (5,7) has distance 0.
    EXPECT_EQ(chain.FindNearestIntersectionPointY(5, 1, false), 7.0f);
    EXPECT_EQ(chain.FindNearestIntersectionPointY(5, 100, false), -1.0f);
}

TEST(PixelChainQueries, PullTowardsOtherChainUsesInverseSquareWeights)
{
    CPixelChain chain, other;
    fill(chain, {{0, 0, 0}});
    fill(other, {{1, 0, 2}, {0, 2, 5}});
    // Pass 1: 2/2 + 5/5 = 2 -> 0.8. Pass 2: 1.2/2 + 4.2/5 = 1.44 -> 0.8 + 0.576.
    chain.SmoothlyPullTogetherChains(&other, 2);
    EXPECT_NEAR(chain[0].value, 1.376f, 1e-6f);
    EXPECT_EQ(other[1].value, 5.0f);

    // Pulled towards itself, the second point sees the first point's old value 0:
    // (0 - 2) / 2 = -1 -> 2 - 0.4.
    fill(chain, {{0, 0, 0}, {1, 0, 2}});
    chain.SmoothlyPullTogetherChains(&chain, 1);
    EXPECT_NEAR(chain[0].value, 0.4f, 1e-6f);
    EXPECT_NEAR(chain[1].value, 1.6f, 1e-6f);
}

TEST(PixelChainQueries, InnerValueSamplesSixPixelsAlongTheLeftNormal)
{
    CSSEMatrix m;
    m.Create(20, 20);
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 20; ++x)
            m.SetPoint(x, y, static_cast<float>(x + 100 * y));
    CPixelChain chain;
    // Probes: (4,4)->(8,4) gives (4,10); (8,4)->(8,7) gives (8 + trunc(-5.5), 4) = (3,4);
    // (8,7)->(4,4), d = (-4,-3): (8 + trunc(4.1), 7 + trunc(-4.3)) = (12,3).
    fill(chain, {{4, 4, 0}, {8, 4, 0}, {8, 7, 0}});
    chain.GetInnerValueForPixelChain(&m, 500.0f, false);
    EXPECT_EQ(chain[0].value, 1004.0f);
    EXPECT_EQ(chain[1].value, 500.0f);
    EXPECT_EQ(chain[2].value, 500.0f);
    chain.GetInnerValueForPixelChain(&m, 500.0f, true);
    EXPECT_EQ(chain[0].value, 500.0f);
    EXPECT_EQ(chain[1].value, 403.0f);
    EXPECT_EQ(chain[2].value, 312.0f);

    // A probe past the right edge reads the last column.
    fill(chain, {{18, 5, 0}, {18, 4, 0}});
    chain.GetInnerValueForPixelChain(&m, -1.0f, false);
    EXPECT_EQ(chain[0].value, 519.0f);
    EXPECT_EQ(chain[1].value, 413.0f);
}

TEST(PixelChainDraw, InsertDrawsTheClosedOutlineInsertSingleThePoints)
{
    CPixelChain chain;
    fill(chain, {{2, 2, 1}, {6, 2, 2}, {2, 6, 3}});
    CSSEMatrix m;
    m.Create(10, 10);
    chain.Insert(&m);
    float expected[10][10] = {};
    for (int x = 2; x <= 5; ++x)
        expected[2][x] = 1;
    for (int k = 0; k < 4; ++k)
        expected[2 + k][6 - k] = 2;
    for (int y = 3; y <= 6; ++y)
        expected[y][2] = 3;
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x)
            EXPECT_EQ(m.GetPoint(x, y), expected[y][x]) << x << "," << y;

    m.Clear();
    chain.InsertSingle(&m);
    EXPECT_EQ(m.GetPoint(6, 2), 2.0f);
    EXPECT_EQ(m.GetPoint(4, 2), 0.0f);
    EXPECT_EQ(m.GetPoint(2, 6), 3.0f);

    chain.InsertSingle(&m, true, 2.5f);
    EXPECT_EQ(m.GetPoint(6, 2), 2.5f);
    EXPECT_EQ(m.GetPoint(2, 6), 3.0f);
    m.Clear();
    chain.InsertSingle(&m);
    chain.InsertSingle(&m, false, 1.5f);
    EXPECT_EQ(m.GetPoint(2, 2), 1.0f);
    EXPECT_EQ(m.GetPoint(6, 2), 1.5f);
    EXPECT_EQ(m.GetPoint(4, 2), 0.0f);
}
