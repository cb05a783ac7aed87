#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/convex_hull_2.h>
#include <gtest/gtest.h>

#include "qzsse/geometry/CHConvexHull2D.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

struct XY {
    float x, y;
    bool operator==(const XY&) const = default;
};

std::vector<XY> Hull(const std::vector<XY>& points)
{
    CSSE3dPolygon polygon;
    polygon.Create(static_cast<int>(points.size()));
    for (int i = 0; i < static_cast<int>(points.size()); ++i)
        polygon.SetPoint(i, points[i].x, points[i].y, 0.0f);
    CHConvexHull2D hull(&polygon);
    CSSE2dPolygon out;
    hull.ObtainConvexHull2D(&out);
    std::vector<XY> result(static_cast<size_t>(out.GetNumPoints()));
    for (int i = 0; i < out.GetNumPoints(); ++i)
        out.GetPoint(i, result[i].x, result[i].y);
    return result;
}

// The independent answer: extreme points only, counter-clockwise, turned to start at the
// lowest-then-leftmost point and reversed into the clockwise order that ends with it.
std::vector<XY> ReferenceHull(const std::vector<XY>& points)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    std::vector<K::Point_2> in, out;
    for (const XY& p : points)
        in.emplace_back(p.x, p.y);
    CGAL::convex_hull_2(in.begin(), in.end(), std::back_inserter(out));
    std::vector<XY> hull;
    for (const auto& p : out)
        hull.push_back({static_cast<float>(p.x()), static_cast<float>(p.y())});
    const auto pivot = std::min_element(hull.begin(), hull.end(),
                                        [](XY a, XY b) { return a.y < b.y || (a.y == b.y && a.x < b.x); });
    std::rotate(hull.begin(), pivot, hull.end());
    std::reverse(hull.begin(), hull.end());
    return hull;
}

}  // namespace

TEST(ConvexHull2D, WritesClockwiseEndingWithLowestLeftmostPivot)
{
    // (5, 0) and (1, 0) share the lowest y; the smaller x is the pivot.
    EXPECT_EQ(Hull({{5, 0}, {5, 5}, {3, 2}, {1, 0}, {1, 5}}),
              (std::vector<XY>{{1, 5}, {5, 5}, {5, 0}, {1, 0}}));

    // The 3-D form carries each point's z along.
    CSSE3dPolygon polygon, out;
    polygon.Create(4);
    const float in[4][3] = {{0, 0, 7}, {2, 0, 8}, {1, 1, 9}, {1, 0.2f, 10}};
    for (int i = 0; i < 4; ++i)
        polygon.SetPoint(i, in[i][0], in[i][1], in[i][2]);
    CHConvexHull2D(&polygon).ObtainConvexHull3D(&out);
    ASSERT_EQ(out.GetNumPoints(), 3);
    for (int i = 0; i < 3; ++i) {
        float x, y, z;
        out.GetPoint(i, x, y, z);
        EXPECT_TRUE(x == in[2 - i][0] && y == in[2 - i][1] && z == in[2 - i][2]) << i;
    }
}

TEST(ConvexHull2D, DropsCollinearAndRepeatedPoints)
{
    // (4.0001, 2) lies outside the right edge, but by a doubled area of 0.0004 only.
    const std::vector<XY> square = {{0, 0}, {4, 4}, {2, 0}, {4, 0}, {0, 4}, {4, 2}, {2, 4}, {0, 2}, {4, 4},
                                    {2, 0.0001f}, {0, 0}, {1, 1}, {4.0001f, 2}};
    EXPECT_EQ(Hull(square), (std::vector<XY>{{0, 4}, {4, 4}, {4, 0}, {0, 0}}));
    // A run on one ray from the pivot keeps only its farthest point.
    EXPECT_EQ(Hull({{0, 0}, {3, 3}, {1, 1}, {2, 2}, {3, 0}}), (std::vector<XY>{{3, 3}, {3, 0}, {0, 0}}));
}

TEST(ConvexHull2D, FewerThanThreePointsGiveThemBack)
{
    EXPECT_EQ(Hull({{5, 5}, {1, 1}}), (std::vector<XY>{{5, 5}, {1, 1}}));
    EXPECT_EQ(Hull({{5, 5}}), (std::vector<XY>{{5, 5}}));
    EXPECT_TRUE(Hull({}).empty());
    EXPECT_EQ(Hull({{2, 2}, {2, 2}, {2, 2}}).size(), 2u); // three copies of one point squash to two
}

TEST(ConvexHull2D, MatchesCgalOnRandomGridPoints)
{
    // Integer coordinates up to 1000 keep every doubled area exact in float, so the 0.0005
    // tolerance only separates zero from non-zero and the exact hull is the right answer. Points
    // are distinct (repeats are covered below); small ranges give long collinear runs.
    std::mt19937 rng(2024);
    for (const int n : {3, 4, 10, 100, 1000, 20000}) {
        for (const int range : {4, 30, 1000}) {
            std::uniform_int_distribution<int> c(0, range);
            std::vector<XY> points;
            for (int k = 0; k < n; ++k)
                points.push_back({static_cast<float>(c(rng)), static_cast<float>(c(rng))});
            std::sort(points.begin(), points.end(), [](XY a, XY b) { return a.x < b.x || (a.x == b.x && a.y < b.y); });
            points.erase(std::unique(points.begin(), points.end()), points.end());
            std::shuffle(points.begin(), points.end(), rng);
            const auto expected = ReferenceHull(points);
            if (expected.size() < 3)
                continue;
            EXPECT_EQ(Hull(points), expected) << "n " << n << " range " << range;
        }
    }
}

TEST(ConvexHull2D, UnderflowPrintsErrorAndGivesAnEmptyHull)
{
    // A comparison marks only the lower-indexed of two repeats it sees. Here the sort's middle
    // pivot is the lowest-indexed of three repeats of the first hull point and the other two
    // are never compared with each other, so two survive; the second pops the first and the
    // scan runs out of stack.
    testing::internal::CaptureStdout();
    const auto hull = Hull({{2, 0}, {2, 0}, {0, 0}, {2, 0}});
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "Error\n");
    EXPECT_TRUE(hull.empty());
}

namespace {

// Exposes the sorted, squashed records and the deletion count the constructor leaves.
class InspectedHull : public CHConvexHull2D {
public:
    explicit InspectedHull(CSSE3dPolygon* polygon) : CHConvexHull2D(polygon) {}
    std::vector<int> Order() const
    {
        std::vector<int> order;
        for (int i = 0; i < m_nNumPoints; ++i)
            order.push_back(m_pPoints[i].iIndex * 2 + (m_pPoints[i].bDeleted ? 1 : 0));
        return order;
    }
    int Deletions() const { return m_nNumDeleted; }
};

struct HullRun {
    std::vector<int> order;
    int deletions;
    std::vector<XY> hull;
    std::string printed;
};

HullRun RunHull(const std::vector<XY>& points, bool direct)
{
    CSSE3dPolygon polygon;
    polygon.Create(static_cast<int>(points.size()));
    for (int i = 0; i < static_cast<int>(points.size()); ++i)
        polygon.SetPoint(i, points[i].x, points[i].y, 0.0f);
    qzsse::detail::g_bDirectHullSort = direct;
    testing::internal::CaptureStdout();
    InspectedHull hull(&polygon);
    HullRun run{hull.Order(), hull.Deletions(), {}, testing::internal::GetCapturedStdout()};
    qzsse::detail::g_bDirectHullSort = false;
    CSSE2dPolygon out;
    hull.ObtainConvexHull2D(&out);
    for (int i = 0; i < out.GetNumPoints(); ++i) {
        XY p;
        out.GetPoint(i, p.x, p.y);
        run.hull.push_back(p);
    }
    return run;
}

}  // namespace

TEST(ConvexHull2D, FastSortLeavesWhatTheRecordByRecordSortLeaves)
{
    // Sets where many comparisons fall within the tolerance: repeats, lattice runs on rays
    // from the pivot, coordinates so small that every doubled area is below 0.0005, points on
    // a circle, and NaN coordinates (which compare as collinear with everything).
    std::mt19937 rng(99);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    int cases = 0, withDeletions = 0, withError = 0;
    for (int round = 0; round < 600; ++round) {
        const int n = 1 + static_cast<int>(rng() % (round % 10 == 0 ? 5000 : 200));
        const int kind = round % 6;
        const float scale = kind == 2 ? 1e-3f : kind == 3 ? 1e5f : 1.0f;
        std::uniform_int_distribution<int> lattice(0, 2 + round % 7);
        std::uniform_real_distribution<float> real(-1.0f, 1.0f);
        std::vector<XY> points;
        for (int k = 0; k < n; ++k) {
            XY p;
            if (kind == 4) {
                const float angle = static_cast<float>(rng() % 64) * 0.0981748f;
                p = {std::cos(angle), std::sin(angle)};
            } else if (kind == 5 && rng() % 8 == 0) {
                p = {nan, real(rng)};
            } else if (kind <= 1) {
                p = {static_cast<float>(lattice(rng)), static_cast<float>(lattice(rng))};
            } else {
                p = {real(rng), real(rng)};
            }
            p.x *= scale;
            p.y *= scale;
            points.push_back(p);
            if (rng() % 4 == 0)
                points.push_back(points[rng() % points.size()]);
        }
        const HullRun direct = RunHull(points, true);
        const HullRun fast = RunHull(points, false);
        ASSERT_EQ(fast.order, direct.order) << "round " << round;
        ASSERT_EQ(fast.deletions, direct.deletions) << "round " << round;
        ASSERT_EQ(fast.printed, direct.printed) << "round " << round;
        ASSERT_EQ(fast.hull.size(), direct.hull.size()) << "round " << round;
        for (size_t i = 0; i < fast.hull.size(); ++i)
            ASSERT_EQ(std::memcmp(&fast.hull[i], &direct.hull[i], sizeof(XY)), 0) << "round " << round;
        ++cases;
        withDeletions += direct.deletions > 0;
        withError += !direct.printed.empty();
    }
    // The sets must reach the paths they are meant for.
    EXPECT_GT(withDeletions, cases / 2);
    EXPECT_GT(withError, 0);
}
