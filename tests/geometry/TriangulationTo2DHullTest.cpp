#include <algorithm>
#include <random>
#include <vector>

#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/convex_hull_2.h>
#include <gtest/gtest.h>

#include "MeshQueryTestUtil.h"
#include "qzsse/geometry/QzRyTriangulationTo2DHull.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

using qzsse::test::Tri;
using K = CGAL::Exact_predicates_inexact_constructions_kernel;

// The mesh's hull points as a sorted set, against CGAL's extreme points of all corners.
TEST(TriangulationTo2DHull, ExtremeCornersMatchConvexHull2)
{
    std::mt19937 rng(4);
    std::uniform_real_distribution<float> where(-100.0f, 100.0f), size(-5.0f, 5.0f);
    const std::vector<std::vector<Tri>> meshes = {
        qzsse::support::Slab(10, 1.0f, 0.0f, qzsse::test::Bumps),
        [&] {
            std::vector<Tri> soup(500);
            for (Tri& t : soup) {
                const float c[3] = {where(rng), where(rng), where(rng)};
                for (int k = 0; k < 9; ++k)
                    t[k] = c[k % 3] + size(rng);
            }
            return soup;
        }()};
    for (const auto& tris : meshes) {
        const auto mesh = qzsse::test::MeshOf(tris);
        QzRyTriangulationTo2DHull hull(mesh.get());
        CSSE3dPolygon out;
        hull.ObtainConvexHull3D(&out);
        std::vector<std::array<float, 3>> ours;
        for (int i = 0; i < out.GetNumPoints(); ++i) {
            std::array<float, 3> p;
            out.GetPoint(i, p[0], p[1], p[2]);
            ours.push_back(p);
        }
        std::vector<K::Point_2> in, extreme;
        for (const Tri& t : tris)
            for (int k = 0; k < 3; ++k)
                in.emplace_back(t[3 * k], t[3 * k + 1]);
        CGAL::convex_hull_2(in.begin(), in.end(), std::back_inserter(extreme));
        ASSERT_EQ(ours.size(), extreme.size());
        std::vector<std::array<float, 2>> a, b;
        for (const auto& p : ours)
            a.push_back({p[0], p[1]});
        for (const auto& p : extreme)
            b.push_back({static_cast<float>(p.x()), static_cast<float>(p.y())});
        std::sort(a.begin(), a.end());
        std::sort(b.begin(), b.end());
        EXPECT_EQ(a, b);
        // Each hull point keeps the z of the first corner at its position.
        for (const auto& p : ours) {
            const auto first = std::find_if(tris.begin(), tris.end(), [&](const Tri& t) {
                return (t[0] == p[0] && t[1] == p[1]) || (t[3] == p[0] && t[4] == p[1]) || (t[6] == p[0] && t[7] == p[1]);
            });
            ASSERT_NE(first, tris.end());
            const int k = (*first)[0] == p[0] && (*first)[1] == p[1] ? 0 : ((*first)[3] == p[0] && (*first)[4] == p[1] ? 1 : 2);
            EXPECT_EQ((*first)[3 * k + 2], p[2]);
        }
    }
}

TEST(TriangulationTo2DHull, EmptyMeshGivesEmptyHull)
{
    QzRyTriangulationTo2DHull hull(nullptr);
    CSSE2dPolygon out;
    hull.ObtainConvexHull2D(&out);
    EXPECT_EQ(hull.GetNumCorners(), 0);
    EXPECT_EQ(out.GetNumPoints(), 0);
}

} // namespace
