// Mesh transforms against plain double arithmetic, and meshes from polygons against the
// polygon's own area and points.

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <memory>
#include <vector>

#include "MeshTestUtil.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

using namespace qzsse::test;

namespace {

using D3 = std::array<double, 3>;
using M3 = std::array<D3, 3>;

D3 cross(const D3& a, const D3& b)
{
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

D3 mapThrough(const M3& m, const D3& p)
{
    D3 r{};
    for (int i = 0; i < 3; ++i)
        r[i] = m[i][0] * p[0] + m[i][1] * p[1] + m[i][2] * p[2];
    return r;
}

D3 unit(const D3& v)
{
    const double l = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
    return l > 0 ? D3{v[0] / l, v[1] / l, v[2] / l} : v;
}

D3 xyz(const SSEPoint& p) { return {p.x, p.y, p.z}; }

// Where a unit normal goes: it stays perpendicular to the mapped tangent plane, on the side
// the mapped tangents' cross product gives (tangents t1, t2 = n x t1 with t1 x t2 along n).
D3 expectedNormal(const M3& m, const D3& n)
{
    const D3 helper = std::fabs(n[0]) < 0.6 ? D3{1, 0, 0} : D3{0, 1, 0};
    const D3 t1 = cross(n, helper);
    const D3 t2 = cross(n, t1);
    return unit(cross(mapThrough(m, t1), mapThrough(m, t2)));
}

std::unique_ptr<CHTriangulation> matrixMesh()
{
    CSSEMatrix matrix;
    matrix.Create(8, 6);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 8; ++x)
            matrix.SetPoint(x, y, 2.0f + 0.3f * float(x) - 0.2f * float(y) + 0.05f * float(x * y));
    auto mesh = std::make_unique<CHTriangulation>(&matrix, 1.0f, true, 0.5f, 0.25f, 1.0f, 1, 1);
    mesh->CalcNeighbours();
    return mesh;
}

void expectNear(const D3& expected, const SSEPoint& got, double tolerance, const char* what, int t)
{
    for (int i = 0; i < 3; ++i)
        ASSERT_NEAR(expected[i], (&got.x)[i], tolerance * (1.0 + std::fabs(expected[i]))) << what << " " << t;
    ASSERT_EQ(got.w, 0.0f) << what << " " << t;
}

} // namespace

TEST(MeshTransform, CornersNormalsAndDerivedDataFollowTheMatrix)
{
    const double c = std::cos(0.7), s = std::sin(0.7);
    struct Case {
        const char* what;
        M3 m;
        D3 offset;
        bool viaScale;
    } cases[] = {
        {"rotation about z", {{{c, -s, 0}, {s, c, 0}, {0, 0, 1}}}, {10.5, -3.25, 7}, false},
        {"shear with mirror", {{{1, 0.4, 0}, {0, -1, 0.3}, {0.2, 0, 2}}}, {-1, 2, 0.5}, false},
        {"scale with a negative factor", {{{2, 0, 0}, {0, -0.5, 0}, {0, 0, 3}}}, {0, 0, 0}, true},
    };
    for (const Case& k : cases) {
        SCOPED_TRACE(k.what);
        const auto before = matrixMesh();
        CHTriangulation mesh(before.get());
        mesh.CalcNeighbours();
        if (k.viaScale) {
            mesh.Scale(float(k.m[0][0]), float(k.m[1][1]), float(k.m[2][2]));
        } else {
            t_ssematrix3 m;
            for (int r = 0; r < 3; ++r)
                m.row[r] = _mm_setr_ps(float(k.m[r][0]), float(k.m[r][1]), float(k.m[r][2]), 0.0f);
            SSEPoint offset;
            offset.m = _mm_setr_ps(float(k.offset[0]), float(k.offset[1]), float(k.offset[2]), 0.0f);
            mesh.Rotate(m, offset);
        }
        // The matrix as float, as the mesh receives it.
        M3 mf = k.m;
        for (auto& row : mf)
            for (double& v : row)
                v = float(v);
        D3 lo{1e30, 1e30, 1e30}, hi{-1e30, -1e30, -1e30};
        for (int t = 0; t < mesh.GetNumTriangles(); ++t) {
            const t_htriangle* a = before->GetTriangle(t);
            const t_htriangle* b = mesh.GetTriangle(t);
            for (int i = 0; i < 3; ++i) {
                D3 p = mapThrough(mf, xyz(*a->pPoint[i]));
                for (int j = 0; j < 3; ++j) {
                    p[j] += float(k.offset[j]);
                    lo[j] = std::min(lo[j], double((&b->pPoint[i]->x)[j]));
                    hi[j] = std::max(hi[j], double((&b->pPoint[i]->x)[j]));
                }
                expectNear(p, *b->pPoint[i], 1e-6, "corner", t);
                expectNear(expectedNormal(mf, xyz(*a->pNormal[i])), *b->pNormal[i], 1e-5, "vertex normal", t);
            }
            expectNear(expectedNormal(mf, xyz(*a->pMainNormal)), *b->pMainNormal, 1e-5, "face normal", t);
            const D3 c0 = xyz(*b->pPoint[0]), c1 = xyz(*b->pPoint[1]), c2 = xyz(*b->pPoint[2]);
            expectNear({c1[0] - c0[0], c1[1] - c0[1], c1[2] - c0[2]}, *b->pS, 0, "S", t);
            expectNear({c2[0] - c0[0], c2[1] - c0[1], c2[2] - c0[2]}, *b->pT, 0, "T", t);
            expectNear({c2[0] - c1[0], c2[1] - c1[1], c2[2] - c1[2]}, *b->pV, 0, "V", t);
            for (int j = 0; j < 3; ++j) {
                EXPECT_EQ((&b->pMinPoint->x)[j], std::min({c0[j], c1[j], c2[j]}));
                EXPECT_EQ((&b->pMaxPoint->x)[j], std::max({c0[j], c1[j], c2[j]}));
            }
            for (int i = 0; i < 3; ++i) // neighbours are untouched
                EXPECT_EQ(b->pNeighbour[i] ? b->pNeighbour[i]->iIndex : -1,
                          a->pNeighbour[i] ? a->pNeighbour[i]->iIndex : -1);
        }
        expectNear(lo, mesh.GetMinPoint(), 0, "box minimum", -1);
        expectNear(hi, mesh.GetMaxPoint(), 0, "box maximum", -1);
    }
}

TEST(MeshTransform, MoveAddsTheOffsetAndKeepsNormals)
{
    const auto before = matrixMesh();
    CHTriangulation mesh(before.get());
    mesh.Move(0.1f, -20.0f, 3.5f);
    for (int t = 0; t < mesh.GetNumTriangles(); ++t) {
        for (int k = 0; k < 3; ++k) {
            const Quad p = partOf(*before, t, k);
            EXPECT_EQ(partOf(mesh, t, k), (Quad{p[0] + 0.1f, p[1] - 20.0f, p[2] + 3.5f, 0.0f}));
        }
        for (int part = 3; part < 7; ++part)
            EXPECT_TRUE(sameQuad(partOf(mesh, t, part), partOf(*before, t, part)));
    }
    CHTriangulation empty;
    empty.Move(1, 2, 3); // never initialised: nothing to move, no crash
}

namespace {

double signedArea2(const Quad& a, const Quad& b, const Quad& c)
{
    return (double(b[0]) - a[0]) * (double(c[1]) - a[1]) - (double(b[1]) - a[1]) * (double(c[0]) - a[0]);
}

// The triangles tile the polygon: each counter-clockwise on the polygon's own points (z
// included), their areas summing to the outline's, and n - 2 of them.
void expectTiling(const CHTriangulation& mesh, const std::vector<Quad>& points, int expectedTriangles,
                  double expectedArea)
{
    ASSERT_EQ(mesh.GetNumTriangles(), expectedTriangles);
    double area = 0;
    for (int t = 0; t < mesh.GetNumTriangles(); ++t) {
        const Quad a = partOf(mesh, t, 0), b = partOf(mesh, t, 1), c = partOf(mesh, t, 2);
        const double twice = signedArea2(a, b, c);
        EXPECT_GT(twice, 0.0) << t;
        area += twice / 2;
        for (int k = 0; k < 3; ++k)
            EXPECT_NE(std::find(points.begin(), points.end(), partOf(mesh, t, k)), points.end()) << t << " " << k;
        EXPECT_GT(mesh.GetTriangle(t)->pMainNormal->z, 0.0f);
    }
    EXPECT_NEAR(area, expectedArea, 1e-9 * expectedArea);
}

CSSE3dPolygon polygonOf(const std::vector<Quad>& points)
{
    CSSE3dPolygon p;
    p.Create(static_cast<int>(points.size()));
    for (size_t i = 0; i < points.size(); ++i)
        p.SetPoint(static_cast<int>(i), points[i][0], points[i][1], points[i][2]);
    return p;
}

} // namespace

TEST(MeshFromPolygon, EarClippedInItsPlaneWithTheCornersHeights)
{
    // A comb: concave, counter-clockwise, heights varying along the outline.
    std::vector<Quad> comb = {{0, 0, 1, 0}, {9, 0, 1.5f, 0}, {9, 4, 2, 0}, {7, 4, 2.25f, 0}, {7, 1.5f, 3, 0},
                              {5, 1.5f, 3.5f, 0}, {5, 4, 4, 0}, {3, 4, 4.5f, 0}, {3, 1.5f, 5, 0}, {1.25f, 1.5f, 6, 0},
                              {1.25f, 4, 7, 0}, {0, 4, 8, 0}};
    double area = 0;
    for (size_t i = 0; i < comb.size(); ++i)
        area += signedArea2({0, 0, 0, 0}, comb[i], comb[(i + 1) % comb.size()]) / 2;
    std::vector<Quad> clockwise(comb.rbegin(), comb.rend());
    std::vector<Quad> closed = comb;
    closed.push_back(comb[0]);
    struct Case {
        const char* what;
        const std::vector<Quad>* points;
    } cases[] = {{"counter-clockwise", &comb}, {"clockwise", &clockwise}, {"closing point repeated", &closed}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CSSE3dPolygon polygon = polygonOf(*c.points);
        CHTriangulation mesh;
        mesh.CreateTriangulationFromPolygon(&polygon);
        expectTiling(mesh, comb, static_cast<int>(comb.size()) - 2, area);
    }
    CSSE3dPolygon two = polygonOf({{0, 0, 0, 0}, {1, 0, 0, 0}});
    CHTriangulation mesh;
    mesh.CreateTriangulationFromPolygon(&two);
    EXPECT_EQ(mesh.GetNumTriangles(), 0);
}

TEST(MeshFromPolygon, BandBetweenTwoBorderLinesTakesTheirPoints)
{
    // Lines of different spacing and heights; every point lies on the band's border.
    std::vector<Quad> upper, lower, all;
    for (int i = 0; i <= 10; ++i)
        upper.push_back({float(i), 10.0f, 5.0f + 0.1f * float(i), 0});
    for (int i = 0; i <= 20; ++i)
        lower.push_back({0.5f * float(i), 0.0f, 1.0f - 0.3f * float(i), 0});
    all = upper;
    all.insert(all.end(), lower.begin(), lower.end());
    CSSE3dPolygon up = polygonOf(upper), down = polygonOf(lower);
    CHTriangulation mesh;
    mesh.CreateTriangulationFromTwoBorderPolygons(&up, &down);
    expectTiling(mesh, all, 30, 100.0);
}
