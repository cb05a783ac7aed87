#include <cmath>
#include <random>
#include <vector>

#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/AABB_triangle_primitive.h>
#include <CGAL/Simple_cartesian.h>
#include <gtest/gtest.h>

#include "MeshQueryTestUtil.h"
#include "qzsse/geometry/CRestorationOctree.h"

namespace {

using qzsse::test::Tri;
using K = CGAL::Simple_cartesian<double>;
using Triangles = std::vector<K::Triangle_3>;
using Primitive = CGAL::AABB_triangle_primitive<K, Triangles::const_iterator>;
using Tree = CGAL::AABB_tree<CGAL::AABB_traits<K, Primitive>>;

// The float is forced through memory: with CGAL's -frounding-math the compiler may
// otherwise hand the unrounded double to the oracle while the octree gets the float.
SSEPoint Point(double x, double y, double z)
{
    volatile float v[3] = {static_cast<float>(x), static_cast<float>(y), static_cast<float>(z)};
    SSEPoint p;
    p.m = _mm_setr_ps(v[0], v[1], v[2], 0.0f);
    return p;
}

K::Point_3 Corner(const Tri& t, int k)
{
    return {t[3 * k], t[3 * k + 1], t[3 * k + 2]};
}

struct Oracle {
    explicit Oracle(const std::vector<Tri>& tris)
    {
        for (const Tri& t : tris)
            triangles.emplace_back(Corner(t, 0), Corner(t, 1), Corner(t, 2));
        tree.rebuild(triangles.begin(), triangles.end());
        tree.accelerate_distance_queries();
    }
    double squaredDistanceTo(int t, const K::Point_3& p) const { return CGAL::squared_distance(p, triangles[t]); }
    Triangles triangles;
    Tree tree;
};

std::vector<Tri> RandomSoup(int n, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> where(-50.0f, 50.0f), size(-3.0f, 3.0f);
    std::vector<Tri> tris(static_cast<size_t>(n));
    for (Tri& t : tris) {
        const float c[3] = {where(rng), where(rng), where(rng)};
        for (int k = 0; k < 9; ++k)
            t[k] = c[k % 3] + size(rng);
    }
    return tris;
}

struct Case {
    const char* name;
    std::vector<Tri> tris;
};

std::vector<Case> Cases()
{
    return {{"random soup", RandomSoup(3000, 7)},
            {"closed slab", qzsse::support::Slab(30, 0.5f, 0.0f, qzsse::test::Bumps)},
            {"one triangle", {Tri{0, 0, 0, 1, 0, 0, 0, 1, 0}}}};
}

// Nearest triangle and its distance against the AABB tree; where several triangles are
// equally near, ours must be the lowest index of them.
TEST(RestorationOctree, ClosestPointMatchesAabbTree)
{
    for (const Case& c : Cases()) {
        SCOPED_TRACE(c.name);
        const auto mesh = qzsse::test::MeshOf(c.tris);
        const CRestorationOctree octree(mesh.get(), 4);
        const Oracle oracle(c.tris);
        std::mt19937 rng(11);
        std::uniform_real_distribution<double> where(-60.0, 60.0);
        for (int i = 0; i < 2000; ++i) {
            const SSEPoint p = Point(where(rng) / 4.0 + 7.0, where(rng) / 4.0 + 7.0, where(rng) / 8.0);
            const K::Point_3 q(p.x, p.y, p.z);
            SSEPoint closest;
            double d2 = -1.0;
            const int t = octree.FindClosestPoint(p, &closest, &d2);
            // The tree's constructed point is rounded more coarsely than the distance to its
            // primitive, so the distance is taken from the primitive.
            const auto it = oracle.tree.closest_point_and_primitive(q).second;
            const double expected = oracle.squaredDistanceTo(static_cast<int>(it - oracle.triangles.begin()), q);
            ASSERT_NEAR(d2, expected, 1e-12 * (1.0 + expected)) << i;
            ASSERT_NEAR(oracle.squaredDistanceTo(t, q), expected, 1e-12 * (1.0 + expected)) << i;
            ASSERT_NEAR(CGAL::squared_distance(q, K::Point_3(closest.x, closest.y, closest.z)), expected,
                        1e-5 * (1.0 + expected));
            for (int u = 0; u < t; ++u)
                ASSERT_GT(oracle.squaredDistanceTo(u, q), d2 * (1.0 + 1e-12)) << "lower index " << u << " as near";
        }
    }
}

// Above the corners and edge midpoints of a flat top, up to six triangles are exactly as
// near: the lowest index of them must win, whatever the tree's order.
TEST(RestorationOctree, TiesGoToTheLowestIndex)
{
    const auto tris = qzsse::support::Slab(12, 0.5f, 0.0f, [](float, float) { return 1.0f; });
    const auto mesh = qzsse::test::MeshOf(tris);
    const CRestorationOctree octree(mesh.get(), 3);
    const Oracle oracle(tris);
    int ties = 0;
    for (int j = 0; j <= 24; ++j)
        for (int i = 0; i <= 24; ++i) {
            const K::Point_3 q(i * 0.25, j * 0.25, 2.5);
            double d2 = 0.0;
            const int t = octree.FindClosestPoint(Point(q.x(), q.y(), q.z()), nullptr, &d2);
            int lowest = -1, equal = 0;
            for (int u = 0; u < static_cast<int>(tris.size()); ++u)
                if (oracle.squaredDistanceTo(u, q) == d2) {
                    lowest = lowest < 0 ? u : lowest;
                    ++equal;
                }
            ASSERT_EQ(t, lowest) << i << " " << j;
            ties += equal > 1 ? 1 : 0;
        }
    EXPECT_GT(ties, 300);
}

TEST(RestorationOctree, FirstRayHitMatchesAabbTree)
{
    for (const Case& c : Cases()) {
        SCOPED_TRACE(c.name);
        const auto mesh = qzsse::test::MeshOf(c.tris);
        const CRestorationOctree octree(mesh.get(), 4);
        const Oracle oracle(c.tris);
        std::mt19937 rng(5);
        std::uniform_real_distribution<double> where(-60.0, 60.0), dir(-1.0, 1.0);
        int hits = 0;
        for (int i = 0; i < 2000; ++i) {
            const SSEPoint o = Point(where(rng) / 4.0 + 7.0, where(rng) / 4.0 + 7.0, where(rng) / 8.0);
            const SSEPoint d = Point(dir(rng), dir(rng), dir(rng));
            const K::Ray_3 ray(K::Point_3(o.x, o.y, o.z), K::Vector_3(d.x, d.y, d.z));
            double t = -1.0;
            const int ours = octree.FindFirstRayHit(o, d, nullptr, &t);
            const auto theirs = oracle.tree.first_intersected_primitive(ray);
            ASSERT_EQ(ours >= 0, theirs.has_value()) << i;
            if (ours < 0)
                continue;
            ++hits;
            const int index = static_cast<int>(*theirs - oracle.triangles.begin());
            const auto at = CGAL::intersection(ray, oracle.triangles[index]);
            const K::Point_3* point = at ? boost::get<K::Point_3>(&*at) : nullptr;
            ASSERT_NE(point, nullptr);
            const double expected = std::sqrt(CGAL::squared_distance(ray.source(), *point)) /
                                    std::sqrt(ray.to_vector().squared_length());
            ASSERT_NEAR(t, expected, 1e-9 * (1.0 + expected)) << i;
            if (ours != index) {
                ASSERT_TRUE(CGAL::do_intersect(ray, oracle.triangles[ours])) << i;
            }
        }
        if (c.tris.size() > 1) {
            EXPECT_GT(hits, 100);
        }
    }
}

// Empty trees and degenerate requests answer -1 and write nothing.
TEST(RestorationOctree, EmptyAndDegenerate)
{
    const CRestorationOctree none(nullptr);
    SSEPoint out = Point(9, 9, 9);
    double d = 5.0;
    EXPECT_EQ(none.FindClosestPoint(Point(0, 0, 0), &out, &d), -1);
    EXPECT_EQ(d, 5.0);
    const auto mesh = qzsse::test::MeshOf({Tri{0, 0, 0, 1, 0, 0, 0, 1, 0}});
    const CRestorationOctree one(mesh.get());
    EXPECT_EQ(one.FindFirstRayHit(Point(0.2, 0.2, 1), Point(0, 0, 0), &out, &d), -1);
    // A ray in the triangle's plane does not hit it.
    EXPECT_EQ(one.FindFirstRayHit(Point(-1, 0.2, 0), Point(1, 0, 0), &out, &d), -1);
    EXPECT_EQ(one.FindFirstRayHit(Point(0.2, 0.2, 1), Point(0, 0, -2), &out, &d), 0);
    EXPECT_DOUBLE_EQ(d, 0.5);
}

} // namespace
