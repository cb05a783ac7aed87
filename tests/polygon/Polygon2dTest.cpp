#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "qzsse/polygon/CSSE2dPolygon.h"

namespace {

void Fill(CSSE2dPolygon& p, const std::vector<t_h2dpoint>& pts)
{
    p.Create(static_cast<int>(pts.size()));
    for (int i = 0; i < static_cast<int>(pts.size()); ++i)
        p.SetPoint(i, pts[i].x, pts[i].y);
}

} // namespace

TEST(Polygon2d, OutOfRangeIndicesAreIgnoredAndAssignmentSharesThePoints)
{
    CSSE2dPolygon p, target;
    EXPECT_EQ(p.GetNumPoints(), 0);
    Fill(p, {{1, 2}, {3, 4}});
    p.SetPoint(2, 9, 9);
    p.SetPoint(-1, 9, 9);
    t_h2dpoint q{6, 6};
    p.GetPoint(-1, q);
    p.GetPoint(2, q.x, q.y);
    EXPECT_EQ(q.x + q.y, 12.0f);
    target = p;
    target.SetPoint(1, 20, 30);
    p.GetPoint(1, q);
    EXPECT_EQ(q.x + q.y, 50.0f);
    target = CSSE2dPolygon(); // only one owner may be destroyed holding the arrays
}

TEST(Polygon2d, MinEuclDistanceUsesOnlyXOfWholeGroupsOfFour)
{
    CSSE2dPolygon p;
    Fill(p, {{0, 0}, {1, 1}, {2, 2}});
    EXPECT_EQ(p.GetMinEuclDistance(0, 0), 1000000.0f); // no whole group
    Fill(p, {{7, 1}, {0, 0}, {9, 2}, {8, 3}, {0.5f, 5}});
    EXPECT_EQ(p.GetMinEuclDistance(0, 5), 0.0f); // y takes no part
    Fill(p, {{-2e6f, 0}, {2e6f, 0}, {3e6f, 0}, {4e6f, 0}});
    EXPECT_EQ(p.GetMinEuclDistance(0, 0), 1000000.0f);

    std::vector<t_h2dpoint> pts; // 37 points: the last one is never looked at
    for (int i = 0; i < 37; ++i)
        pts.push_back({std::sin(static_cast<float>(i)) * 50.0f, static_cast<float>(i)});
    pts[36].x = 17.25f;
    Fill(p, pts);
    for (float x : {-60.0f, -3.3f, 0.0f, 17.25f, 49.0f}) {
        float want = 1000000.0f;
        for (int i = 0; i < 36; ++i) {
            const float d = (x - pts[i].x) * (x - pts[i].x);
            want = std::min(want, std::sqrt(d + d));
        }
        EXPECT_EQ(p.GetMinEuclDistance(x, 1234.0f), want) << x;
    }
}

TEST(Polygon2d, CalcAreaIsTheFixedCombination)
{
    // P = (2,9), A = (1,2), Q = (5,7), c = 3: t1 = (-1)(-6) - (-7)(-6) = -36,
    // t2 = (-3)(-4) - (2)(-4) = 20.
    CSSE2dPolygon p;
    Fill(p, {{1, 2}, {3, 4}, {5, 7}, {2, 9}});
    EXPECT_EQ(p.CalcArea(), -16.0f);
    // P = (0,4), A = (0,0), Q = (4,0), c = 4: t1 = 0 - (-4)(0) = 0, t2 = (-4)(4) - (4)(4) = -32.
    Fill(p, {{0, 0}, {4, 0}, {0, 4}});
    EXPECT_EQ(p.CalcArea(), -32.0f);
    Fill(p, {{0, 0}, {4, 0}});
    EXPECT_EQ(p.CalcArea(), 0.0f);
}

TEST(Polygon2d, ClosestPointLooksAtEverySecondPointButTheLast)
{
    CSSE2dPolygon p;
    Fill(p, {{10, 10}, {5, 5}, {7, 7}, {5, 5}, {6, 6}}); // 1 and 3 skipped, 4 is the last
    EXPECT_EQ(p.ClosestPointY(5), 2);
    EXPECT_EQ(p.ClosestPointX(5), 2);
    EXPECT_EQ(p.ClosestPointX(10), 0);
    Fill(p, {{0, 100}, {0, 1}});
    EXPECT_EQ(p.ClosestPointY(1), 0);
    Fill(p, {{0, 1}});
    EXPECT_EQ(p.ClosestPointY(1), -1);
    Fill(p, {{0, 4}, {0, 0}, {0, 6}, {0, 0}}); // first of equal distances wins
    EXPECT_EQ(p.ClosestPointY(5), 0);
    Fill(p, {{0, 3e7f}, {0, 0}, {0, 4e7f}}); // farther than 1e7 is never found
    EXPECT_EQ(p.ClosestPointY(0), -1);
}
