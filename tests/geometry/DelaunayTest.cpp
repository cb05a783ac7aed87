#include <algorithm>
#include <array>
#include <cmath>
#include <random>
#include <set>
#include <vector>

#include <gtest/gtest.h>

#include <CGAL/Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Triangulation_vertex_base_with_info_2.h>

#include "geometry/HullTestUtil.h"
#include "qzsse/geometry/CH2DDelaunay.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

using qzsse::test::Faces;

using Index3 = std::array<int, 3>;

Index3 SortedIndices(const tFaceStructure* f)
{
    Index3 t{f->vertex[0]->iIndex, f->vertex[1]->iIndex, f->vertex[2]->iIndex};
    std::sort(t.begin(), t.end());
    return t;
}

std::set<Index3> IndexTriangles(const CHConvexHull3D& hull)
{
    std::set<Index3> out;
    for (const tFaceStructure* f : Faces(hull))
        out.insert(SortedIndices(f));
    return out;
}

// Twice the signed area of the face's plane projection, from the grid coordinates.
long long DoubledArea(const tFaceStructure* f)
{
    const tVertexStructure *a = f->vertex[0], *b = f->vertex[1], *c = f->vertex[2];
    return (b->x - a->x) * (c->y - a->y) - (b->y - a->y) * (c->x - a->x);
}

tVertexStructure* FindVertex(const CHConvexHull3D& hull, long long x, long long y)
{
    tVertexStructure* v = hull.GetVertices();
    do {
        if (v->x == x && v->y == y)
            return v;
        v = v->next;
    } while (v != hull.GetVertices());
    return nullptr;
}

void SetLine(CSSE2dPolygon& line, const std::vector<std::array<float, 2>>& points)
{
    line.Create(int(points.size()));
    for (int i = 0; i < int(points.size()); ++i)
        line.SetPoint(i, points[i][0], points[i][1]);
}

} // namespace

// Random points on the 0.1 grid against CGAL, on sets where no four points are cocircular
// (so the triangulation is unique); the kept faces run clockwise seen from above.
TEST(Delaunay, MatchesCgalOnGridSnappedRandomPoints)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    using Vb = CGAL::Triangulation_vertex_base_with_info_2<int, K>;
    using Tds = CGAL::Triangulation_data_structure_2<Vb>;
    using DT = CGAL::Delaunay_triangulation_2<K, Tds>;

    int checkedSets = 0;
    for (unsigned seed = 1; checkedSets < 4 && seed < 40; ++seed) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> coord(0, 2000);
        std::set<std::array<int, 2>> seen;
        std::vector<std::pair<K::Point_2, int>> points;
        CH2DDelaunay delaunay;
        while (points.size() < 300) {
            const std::array<int, 2> g{coord(rng), coord(rng)};
            if (!seen.insert(g).second)
                continue;
            const int index = int(points.size());
            points.emplace_back(K::Point_2(g[0], g[1]), index);
            delaunay.AppendVertex(float(g[0]) / 10.0f, float(g[1]) / 10.0f, index, false);
        }
        DT dt(points.begin(), points.end());
        bool cocircular = false;
        const auto inCircle = dt.geom_traits().side_of_oriented_circle_2_object();
        for (auto e = dt.finite_edges_begin(); e != dt.finite_edges_end() && !cocircular; ++e) {
            const auto f = e->first;
            const auto n = f->neighbor(e->second);
            if (dt.is_infinite(f) || dt.is_infinite(n))
                continue;
            const auto q = n->vertex(n->index(f))->point();
            cocircular = inCircle(f->vertex(0)->point(), f->vertex(1)->point(), f->vertex(2)->point(), q) ==
                         CGAL::ON_ORIENTED_BOUNDARY;
        }
        if (cocircular)
            continue;
        ++checkedSets;

        std::set<Index3> expected;
        for (auto f : dt.finite_face_handles()) {
            Index3 t{f->vertex(0)->info(), f->vertex(1)->info(), f->vertex(2)->info()};
            std::sort(t.begin(), t.end());
            expected.insert(t);
        }
        delaunay.CalcDelaunayTriangulation();
        EXPECT_EQ(IndexTriangles(delaunay), expected) << "seed " << seed;
        EXPECT_EQ(delaunay.GetNumFaces(), int(dt.number_of_faces()));
        EXPECT_EQ(delaunay.GetNumVertices(), 300);
        for (tFaceStructure* f : Faces(delaunay)) {
            EXPECT_TRUE(f->bLowerFace);
            EXPECT_LT(DoubledArea(f), 0);
            EXPECT_EQ(delaunay.NormZ(f), DoubledArea(f));
        }
    }
    EXPECT_EQ(checkedSets, 4);
}

TEST(Delaunay, SquareWithCentreGivesFourClockwiseFansAndMergesNearPoints)
{
    CH2DDelaunay delaunay;
    delaunay.AppendVertex(0.0f, 0.0f, 0, false);
    delaunay.AppendVertex(2.0f, 0.0f, 1, false);
    delaunay.AppendVertex(2.0f, 2.0f, 2, false);
    delaunay.AppendVertex(0.0f, 2.0f, 3, false);
    delaunay.AppendVertex(1.0f, 1.0f, 4, false);
    delaunay.AppendVertex(1.04f, 0.96f, 5, false); // same grid point as (1, 1)
    delaunay.CalcDelaunayTriangulation();
    EXPECT_EQ(delaunay.GetNumVertices(), 5);
    EXPECT_EQ(IndexTriangles(delaunay), (std::set<Index3>{{0, 1, 4}, {1, 2, 4}, {2, 3, 4}, {0, 3, 4}}));
    for (tFaceStructure* f : Faces(delaunay))
        EXPECT_LT(DoubledArea(f), 0);
}

TEST(Delaunay, CollinearPointsThrow)
{
    CH2DDelaunay delaunay;
    for (int i = 0; i < 6; ++i)
        delaunay.AppendVertex(float(i), 1.0f + 2.0f * float(i), i, false);
    EXPECT_THROW(delaunay.CalcDelaunayTriangulation(), CHDegenerateHullException);
}

// Corners come from the first mesh for flagged vertices, else the second, at 3 * triangle +
// corner, truncated (not rounded) to tenths.
TEST(Lofting, TakesMeshCornersTruncatedWithoutRounding)
{
    CHTriangulation first(2, 1.0f, 1.0f, 1.0f), second(1, 1.0f, 1.0f, 1.0f);
    auto set = [](CHTriangulation& mesh, int t, int k, float x, float y, float z) {
        SSEPoint& p = *mesh.GetTriangle(t)->pPoint[k];
        p.x = x, p.y = y, p.z = z, p.w = 0.0f;
    };
    set(first, 1, 2, 1.27f, 0.36f, 5.99f);  // index 5
    set(second, 0, 1, -1.27f, 2.04f, 0.96f); // index 1
    CH2DDelaunay delaunay;
    delaunay.AppendVertex(0.0f, 0.0f, 5, true);
    delaunay.AppendVertex(4.0f, 0.0f, 1, false);
    delaunay.AppendVertex(0.0f, 3.0f, 7, true); // triangle 2 of a two-triangle mesh: stays
    delaunay.AppendVertex(3.0f, 4.0f, 1, true); // first mesh's triangle 0, corner 1 (zeros)
    delaunay.CalcDelaunayTriangulation();
    delaunay.LoftWith3DTriangulation(&first, &second);
    EXPECT_EQ(delaunay.GetNumFaces(), 2);
    const auto at = [&](int index, bool flag) {
        tVertexStructure* v = delaunay.GetVertices();
        while (v->iIndex != index || v->bFlag != flag)
            v = v->next;
        return std::array<long long, 3>{v->x, v->y, v->z};
    };
    using P = std::array<long long, 3>;
    EXPECT_EQ(at(5, true), (P{12, 3, 59}));
    EXPECT_EQ(at(1, false), (P{-12, 20, 9}));
    EXPECT_EQ(at(7, true), (P{0, 30, 900}));
    EXPECT_EQ(at(1, true), (P{0, 0, 0}));
}

// Triangles ABC (above AB) and ABD (below): ABC's edge test point (20, 20) is the only one
// of its nine that rises above the upper line, whose point nearest in x (20) lies at 19.
TEST(BorderLines, FaceCrossingTheUpperLineAtOneTestPointIsRemoved)
{
    const auto build = [](CH2DDelaunay& d) {
        d.AppendVertex(0.0f, 0.0f, 0, false);
        d.AppendVertex(3.0f, 0.0f, 1, false);
        d.AppendVertex(1.5f, 3.0f, 2, false);
        d.AppendVertex(1.5f, -3.0f, 3, false);
        d.CalcDelaunayTriangulation();
        // Odd positions are never read by ClosestPointX, nor is the last point.
        SetLine(d.GetUpperBorderLine(), {{0, 30}, {99, -99}, {10, 30}, {99, -99}, {20, 19}, {99, -99}, {30, 30}, {99, 0}});
        SetLine(d.GetLowerBorderLine(), {{0, -40}, {99, 99}, {20, -40}, {99, 99}, {40, -40}, {99, 0}});
    };
    {
        CH2DDelaunay d;
        build(d);
        ASSERT_EQ(IndexTriangles(d), (std::set<Index3>{{0, 1, 2}, {0, 1, 3}}));
        d.RemoveFacesOutOfBorderLines(0.5f);
        EXPECT_EQ(IndexTriangles(d), (std::set<Index3>{{0, 1, 3}}));
        EXPECT_EQ(d.GetNumFaces(), 1);
    }
    {
        CH2DDelaunay d;
        build(d);
        d.RemoveFacesOutOfBorderLines(1.5f); // 20 <= 19 + 1.5: kept
        EXPECT_EQ(d.GetNumFaces(), 2);
    }
    {
        CH2DDelaunay d;
        build(d);
        // D rounds to (15, -29) (the +0.5 before truncation); its edge to B has the test
        // point (20, -19.33).
        SetLine(d.GetUpperBorderLine(), {{0, 30}, {99, -99}, {20, 30}, {99, -99}, {40, 30}, {99, 0}});
        SetLine(d.GetLowerBorderLine(), {{0, -40}, {99, 99}, {20, -18}, {99, 99}, {40, -40}, {99, 0}});
        d.RemoveFacesOutOfBorderLines(0.5f);
        EXPECT_EQ(IndexTriangles(d), (std::set<Index3>{{0, 1, 2}}));
    }
}

// A band between a lower row and an upper row with a dip of two grid steps at x = 2: the
// triangle bridging the dip is removed, every other one stays (the slopes beside the dip
// stay within the tolerance of one grid step at the test points).
TEST(BorderLines, TwoPolygonsGiveTheBandWithoutTheDip)
{
    // Every point twice, so the even positions ClosestPointX reads cover all of them.
    const float upperXY[5][2] = {{0, 2}, {1, 2}, {2, 1.8f}, {3, 2}, {4, 2}};
    const float lowerXY[4][2] = {{0.3f, 0}, {1.3f, 0}, {2.3f, 0}, {3.3f, 0}};
    CSSE3dPolygon upper, lower;
    upper.Create(10);
    for (int i = 0; i < 10; ++i)
        upper.SetPoint(i, upperXY[i / 2][0], upperXY[i / 2][1], 7.0f);
    lower.Create(8);
    for (int i = 0; i < 8; ++i)
        lower.SetPoint(i, lowerXY[i / 2][0], lowerXY[i / 2][1], 0.0f);

    CH2DDelaunay d;
    d.CreateTriangulationFromTwoBorderPolygons(&upper, &lower, true);
    // 9 points, 8 on the convex boundary: 2 * 9 - 2 - 8 = 8 triangles, one of them removed.
    EXPECT_EQ(d.GetNumFaces(), 7);
    EXPECT_EQ(d.GetNumVertices(), 9);
    const tVertexStructure* left = FindVertex(d, 10, 20);
    const tVertexStructure* right = FindVertex(d, 30, 20);
    ASSERT_TRUE(left && right);
    EXPECT_TRUE(left->bFlag);
    EXPECT_EQ(left->iIndex, 2);
    EXPECT_FALSE(FindVertex(d, 13, 0)->bFlag);
    for (tFaceStructure* f : Faces(d)) {
        bool hasLeft = false, hasRight = false;
        for (const tVertexStructure* v : f->vertex) {
            hasLeft = hasLeft || v == left;
            hasRight = hasRight || v == right;
        }
        EXPECT_FALSE(hasLeft && hasRight);
    }
    float x = 0, y = 0;
    d.GetUpperBorderLine().GetPoint(4, x, y);
    EXPECT_FLOAT_EQ(x, 20.0f);
    EXPECT_FLOAT_EQ(y, 18.0f);
    EXPECT_EQ(d.GetLowerBorderLine().GetNumPoints(), 8);
}

TEST(MeshFromDelaunay, OneTrianglePerFaceWithCornersInPlaneUnitsAndUnitNormals)
{
    CH2DDelaunay d;
    const float xy[6][2] = {{0, 0}, {2.5f, 0.3f}, {2.1f, 2.2f}, {0.2f, 1.9f}, {1.2f, 1.1f}, {3.4f, 1.5f}};
    for (int i = 0; i < 6; ++i)
        d.AppendVertex(xy[i][0], xy[i][1], i, false);
    d.CalcDelaunayTriangulation();
    CHTriangulation mesh(&d, 2.0f, 3.0f, 4.0f);
    const std::vector<tFaceStructure*> faces = Faces(d);
    ASSERT_EQ(mesh.GetNumTriangles(), int(faces.size()));
    ASSERT_GT(faces.size(), 3u);
    EXPECT_EQ(mesh.GetScaleX(), 2.0f);
    float lowZ = 1e30f, highZ = -1e30f;
    for (int i = 0; i < int(faces.size()); ++i) {
        const t_htriangle* t = mesh.GetTriangle(i);
        double c[3][3];
        for (int k = 0; k < 3; ++k) {
            const tVertexStructure* v = faces[i]->vertex[k];
            EXPECT_EQ(t->pPoint[k]->x, float(v->x) / 10.0f);
            EXPECT_EQ(t->pPoint[k]->y, float(v->y) / 10.0f);
            EXPECT_EQ(t->pPoint[k]->z, float(v->z) / 10.0f);
            c[k][0] = v->x / 10.0, c[k][1] = v->y / 10.0, c[k][2] = v->z / 10.0;
            lowZ = std::min(lowZ, t->pPoint[k]->z);
            highZ = std::max(highZ, t->pPoint[k]->z);
        }
        const double s[3] = {c[1][0] - c[0][0], c[1][1] - c[0][1], c[1][2] - c[0][2]};
        const double u[3] = {c[2][0] - c[0][0], c[2][1] - c[0][1], c[2][2] - c[0][2]};
        double n[3] = {s[1] * u[2] - s[2] * u[1], s[2] * u[0] - s[0] * u[2], s[0] * u[1] - s[1] * u[0]};
        const double len = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
        for (int k = 0; k < 3; ++k) {
            EXPECT_NEAR(t->pMainNormal->m[k], n[k] / len, 1e-5);
            for (int j = 0; j < 3; ++j)
                EXPECT_EQ(t->pNormal[j]->m[k], t->pMainNormal->m[k]);
            EXPECT_FLOAT_EQ(t->pS->m[k], t->pPoint[1]->m[k] - t->pPoint[0]->m[k]);
            EXPECT_FLOAT_EQ(t->pT->m[k], t->pPoint[2]->m[k] - t->pPoint[0]->m[k]);
        }
        EXPECT_LT(t->pMainNormal->z, 0.0f); // clockwise seen from above
    }
    EXPECT_EQ(mesh.GetMinPoint().x, 0.0f);
    EXPECT_EQ(mesh.GetMaxPoint().x, 3.4f);
    EXPECT_EQ(mesh.GetMinPoint().z, lowZ);
    EXPECT_EQ(mesh.GetMaxPoint().z, highZ);
}
