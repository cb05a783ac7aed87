#include <map>
#include <random>
#include <vector>

#include <CGAL/AABB_face_graph_triangle_primitive.h>
#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Side_of_triangle_mesh.h>
#include <CGAL/Surface_mesh.h>
#include <gtest/gtest.h>

#include "MeshQueryTestUtil.h"
#include "qzsse/geometry/CHDecideRyTriInRyTri.h"

namespace {

using qzsse::test::OnGrid;
using qzsse::test::Tri;
using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using Mesh = CGAL::Surface_mesh<K::Point_3>;
using Tree = CGAL::AABB_tree<CGAL::AABB_traits<K, CGAL::AABB_face_graph_triangle_primitive<Mesh>>>;

// Every coordinate below is a multiple of 1/2048, so this scale snaps without moving anything
// and both sides answer for the same points.
constexpr double kScale = 2048.0;

SSEPoint Point(float x, float y, float z)
{
    SSEPoint p;
    p.m = _mm_setr_ps(x, y, z, 0.0f);
    return p;
}

struct Oracle {
    explicit Oracle(const std::vector<Tri>& tris)
    {
        std::map<std::array<float, 3>, Mesh::Vertex_index> index;
        const auto vertex = [&](const Tri& t, int k) {
            const std::array<float, 3> key{t[3 * k], t[3 * k + 1], t[3 * k + 2]};
            const auto found = index.find(key);
            if (found != index.end())
                return found->second;
            return index[key] = mesh.add_vertex(K::Point_3(key[0], key[1], key[2]));
        };
        for (const Tri& t : tris)
            mesh.add_face(vertex(t, 0), vertex(t, 1), vertex(t, 2));
        tree.rebuild(faces(mesh).first, faces(mesh).second, mesh);
        side = std::make_unique<CGAL::Side_of_triangle_mesh<Mesh, K>>(mesh);
    }
    int decide(const K::Point_3& p) const
    {
        const CGAL::Bounded_side s = (*side)(p);
        return s == CGAL::ON_BOUNDED_SIDE ? 1 : (s == CGAL::ON_BOUNDARY ? 0 : -1);
    }
    Mesh mesh;
    Tree tree;
    std::unique_ptr<CGAL::Side_of_triangle_mesh<Mesh, K>> side;
};

K::Point_3 Of(const SSEPoint& p)
{
    return {p.x, p.y, p.z};
}

std::vector<Tri> Slab(bool inward)
{
    auto tris = qzsse::support::Slab(16, 0.5f, 0.25f, qzsse::test::Bumps);
    if (inward)
        for (Tri& t : tris)
            for (int a = 0; a < 3; ++a)
                std::swap(t[3 + a], t[6 + a]);
    return tris;
}

// Random points, points on the surface (corners, edge midpoints) and points whose vertical
// ray runs exactly through corners and edges of the mesh.
std::vector<SSEPoint> Queries(const std::vector<Tri>& tris, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> xy(-0.5f, 8.5f), z(-0.5f, 3.5f);
    std::uniform_int_distribution<int> cell(0, 16);
    std::vector<SSEPoint> out;
    for (int i = 0; i < 3000; ++i)
        out.push_back(Point(OnGrid(xy(rng)), OnGrid(xy(rng)), OnGrid(z(rng))));
    for (int i = 0; i < 3000; ++i)
        out.push_back(Point(0.5f * cell(rng), (i % 2 ? 0.5f : 0.25f) * cell(rng), OnGrid(z(rng))));
    for (size_t t = 0; t < tris.size(); t += 7)
        for (int k = 0; k < 3; ++k) {
            const int l = (k + 1) % 3;
            out.push_back(Point(tris[t][3 * k], tris[t][3 * k + 1], tris[t][3 * k + 2]));
            out.push_back(Point((tris[t][3 * k] + tris[t][3 * l]) / 2, (tris[t][3 * k + 1] + tris[t][3 * l + 1]) / 2,
                                (tris[t][3 * k + 2] + tris[t][3 * l + 2]) / 2));
        }
    return out;
}

TEST(MeshContainment, PointsMatchSideOfTriangleMesh)
{
    for (const bool inward : {false, true}) {
        SCOPED_TRACE(inward ? "inward" : "outward");
        const auto tris = Slab(inward);
        const auto mesh = qzsse::test::MeshOf(tris);
        const CHDecideRyTriInRyTri decide(mesh.get(), kScale);
        ASSERT_TRUE(decide.IsClosed());
        const Oracle oracle(tris);
        int counts[3] = {0, 0, 0};
        for (const SSEPoint& p : Queries(tris, 3)) {
            const int expected = oracle.decide(Of(p));
            ASSERT_EQ(decide.DecidePoint(p), expected) << p.x << " " << p.y << " " << p.z;
            ++counts[expected + 1];
        }
        EXPECT_GT(counts[0], 1000);
        EXPECT_GT(counts[1], 500);
        EXPECT_GT(counts[2], 1000);
    }
}

// A triangle is inside or outside only when its corners are and it meets no surface triangle.
TEST(MeshContainment, TrianglesMatchSideAndIntersection)
{
    const auto tris = Slab(false);
    const auto mesh = qzsse::test::MeshOf(tris);
    const CHDecideRyTriInRyTri decide(mesh.get(), kScale);
    const Oracle oracle(tris);
    std::mt19937 rng(9);
    std::uniform_real_distribution<float> xy(-0.5f, 8.5f), z(-0.5f, 3.5f), size(-0.6f, 0.6f);
    int counts[3] = {0, 0, 0};
    for (int i = 0; i < 3000; ++i) {
        const float c[3] = {xy(rng), xy(rng), z(rng)};
        SSEPoint p[3];
        for (SSEPoint& q : p)
            q = Point(OnGrid(c[0] + size(rng)), OnGrid(c[1] + size(rng)), OnGrid(c[2] + size(rng) / 3));
        const int sides[3] = {oracle.decide(Of(p[0])), oracle.decide(Of(p[1])), oracle.decide(Of(p[2]))};
        int expected = sides[0];
        if (sides[1] != expected || sides[2] != expected ||
            oracle.tree.do_intersect(K::Triangle_3(Of(p[0]), Of(p[1]), Of(p[2]))))
            expected = 0;
        ASSERT_EQ(decide.DecideTriangle(p[0], p[1], p[2]), expected) << i;
        ++counts[expected + 1];
    }
    for (const int n : counts)
        EXPECT_GT(n, 300);
}

// Whole meshes: a small copy of the slab moved inside, outside, across the surface; and a
// mesh with a hole, on which nothing is decided.
TEST(MeshContainment, WholeMeshesAndOpenMeshes)
{
    const auto big = qzsse::test::MeshOf(Slab(false));
    const CHDecideRyTriInRyTri decide(big.get(), kScale);
    const auto moved = [](float dx, float dy, float dz) {
        auto tris = qzsse::support::Slab(4, 0.25f, 0.0f, [](float, float) { return 0.5f; });
        for (Tri& t : tris)
            for (int k = 0; k < 9; k += 3)
                t[k] += dx, t[k + 1] += dy, t[k + 2] += dz;
        return qzsse::test::MeshOf(tris);
    };
    const struct {
        float dx, dy, dz;
        int expected;
    } cases[] = {{3.0f, 3.0f, 0.5f, 1}, {3.0f, 3.0f, 4.0f, -1}, {-2.0f, 3.0f, 0.5f, -1}, {7.5f, 3.0f, 0.5f, 0},
                 {3.0f, 3.0f, -0.25f, 0}};
    for (const auto& c : cases)
        EXPECT_EQ(decide.DecideTriangulation(moved(c.dx, c.dy, c.dz).get()), c.expected) << c.dx << " " << c.dz;

    auto open = Slab(false);
    open.erase(open.begin() + 40);
    const auto holed = qzsse::test::MeshOf(open);
    const CHDecideRyTriInRyTri none(holed.get(), kScale);
    EXPECT_FALSE(none.IsClosed());
    EXPECT_EQ(none.DecidePoint(Point(3, 3, 1)), CHDecideRyTriInRyTri::c_iNotClosed);
    EXPECT_EQ(none.DecideTriangulation(big.get()), CHDecideRyTriInRyTri::c_iNotClosed);
}

} // namespace
