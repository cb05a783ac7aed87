#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <random>
#include <set>
#include <type_traits>
#include <vector>

#include <boost/multiprecision/cpp_int.hpp>
#include <gtest/gtest.h>

#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Surface_mesh.h>
#include <CGAL/convex_hull_3.h>

#include "geometry/HullTestUtil.h"
#include "qzsse/geometry/CHConvexHull3D.h"

namespace {

using qzsse::test::Faces;
using qzsse::test::Vertices;

using Exact = boost::multiprecision::checked_int256_t;
using Coord = std::array<long long, 3>;
using Triangle = std::array<Coord, 3>;

Coord At(const tVertexStructure* v) { return {v->x, v->y, v->z}; }

// det[a - p; b - p; c - p] in 256-bit integers.
Exact Det(const Coord& a, const Coord& b, const Coord& c, const Coord& p)
{
    Exact m[3][3];
    const Coord* rows[3] = {&a, &b, &c};
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k)
            m[r][k] = Exact((*rows[r])[k]) - Exact(p[k]);
    return m[0][0] * (m[1][1] * m[2][2] - m[1][2] * m[2][1]) - m[0][1] * (m[1][0] * m[2][2] - m[1][2] * m[2][0]) +
           m[0][2] * (m[1][0] * m[2][1] - m[1][1] * m[2][0]);
}

int Sign(const Exact& v) { return v > 0 ? 1 : (v < 0 ? -1 : 0); }

// A hull whose only face is (a, b, c), for asking VolumeSign directly.
struct OneFace {
    tVertexStructure v[4]{};
    tFaceStructure face{};
    OneFace(const Coord& a, const Coord& b, const Coord& c, const Coord& p)
    {
        const Coord* in[4] = {&a, &b, &c, &p};
        for (int i = 0; i < 4; ++i) {
            v[i].x = (*in[i])[0];
            v[i].y = (*in[i])[1];
            v[i].z = (*in[i])[2];
        }
        for (int i = 0; i < 3; ++i)
            face.vertex[i] = &v[i];
    }
};

Triangle SortedFace(Coord a, Coord b, Coord c)
{
    Triangle t{a, b, c};
    std::sort(t.begin(), t.end());
    return t;
}

} // namespace

TEST(Hull3DInput, AppendVertex2DRoundsToTenthsAndKeepsTheFirstOfDuplicates)
{
    CHConvexHull3D hull;
    hull.AppendVertex2D(1.0f, 2.0f, -1, true);    // (10, 20), counter 0
    hull.AppendVertex2D(1.0f, 2.0f, 5, false);    // same point: ignored
    hull.AppendVertex2D(1.04f, 1.96f, 6, false);  // 10.9 -> 10, 20.1 -> 20: ignored
    hull.AppendVertex2D(1.06f, 2.0f, -1, false);  // (11, 20), counter 1
    hull.AppendVertex2D(-0.06f, 0.06f, 9, false); // (0, 1)
    hull.AppendVertex2D(-0.04f, 0.04f, 3, false); // (0, 0)
    hull.AppendVertex2D(0.04f, -0.04f, 4, false); // (0, 0) again: ignored
    hull.AppendVertex2D(-1.26f, 0.0f, -1, false); // -12.1 -> -12, counter 4

    const std::vector<tVertexStructure*> v = Vertices(hull);
    ASSERT_EQ(v.size(), 5u);
    ASSERT_EQ(hull.CalcNumVertices(), 5);
    const long long expected[5][3] = {{10, 20, 500}, {11, 20, 521}, {0, 1, 1}, {0, 0, 0}, {-12, 0, 144}};
    const int indices[5] = {0, 1, 9, 3, 4};
    for (int i = 0; i < 5; ++i) {
        EXPECT_EQ(v[i]->x, expected[i][0]) << i;
        EXPECT_EQ(v[i]->y, expected[i][1]) << i;
        EXPECT_EQ(v[i]->z, expected[i][2]) << i;
        EXPECT_EQ(v[i]->iIndex, indices[i]) << i;
    }
    EXPECT_TRUE(v[0]->bFlag);
    EXPECT_FALSE(v[1]->bFlag);
    // The newest vertex sits at the end of the cycle, just before the head.
    EXPECT_EQ(hull.GetVertices()->prev, v[4]);
}

TEST(Hull3DInput, AppendVertex3DScalesRoundsAndDropsDuplicates)
{
    CHConvexHull3D hull;
    hull.AppendVertex3D(1.26f, -0.26f, 2.0f, 10.0f); // (13, -2, 20)
    hull.AppendVertex3D(1.3f, -0.2f, 2.0f, 10.0f);   // (13, -1, 20)
    hull.AppendVertex3D(1.25f, -0.24f, 2.0f, 10.0f); // 13.0 -> 13, -1.9 -> -1: duplicate
    const std::vector<tVertexStructure*> v = Vertices(hull);
    ASSERT_EQ(v.size(), 2u);
    EXPECT_EQ(At(v[0]), (Coord{13, -2, 20}));
    EXPECT_EQ(At(v[1]), (Coord{13, -1, 20}));
    EXPECT_EQ(v[1]->iIndex, 0);
    EXPECT_FALSE(v[1]->bFlag);
}

TEST(Hull3DDegenerate, ThrowsForTooFewCollinearOrCoplanarPoints)
{
    const auto hullOf = [](const std::vector<Coord>& points) {
        CHConvexHull3D hull;
        for (const Coord& p : points)
            hull.AppendVertex3D(float(p[0]), float(p[1]), float(p[2]), 1.0f);
        hull.CalcConvexHull();
    };
    EXPECT_THROW(hullOf({}), CHDegenerateHullException);
    EXPECT_THROW(hullOf({{1, 2, 3}}), CHDegenerateHullException);
    EXPECT_THROW(hullOf({{1, 2, 3}, {4, 5, 6}}), CHDegenerateHullException);
    EXPECT_THROW(hullOf({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}}), CHDegenerateHullException);
    EXPECT_THROW(hullOf({{0, 0, 0}, {1, 1, 1}, {2, 2, 2}, {5, 5, 5}, {-3, -3, -3}}), CHDegenerateHullException);
    EXPECT_THROW(hullOf({{0, 0, 5}, {4, 0, 5}, {4, 3, 5}, {0, 3, 5}}), CHDegenerateHullException);
    EXPECT_THROW(hullOf({{0, 0, 0}, {1, 2, 3}, {2, 4, 6}, {1, 0, 1}, {3, 4, 7}, {2, 1, 3}}),
                 CHDegenerateHullException); // all on the plane x + y - z = 0
    EXPECT_NO_THROW(hullOf({{0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1}}));
}

TEST(Hull3DPredicates, VolumeSignIsExactWhereSixtyFourBitProductsOverflow)
{
    // Orientation convention: a point in front of a counter-clockwise face gives -1.
    {
        OneFace f({0, 0, 0}, {1, 0, 0}, {0, 1, 0}, {0, 0, 1});
        CHConvexHull3D hull;
        EXPECT_EQ(hull.VolumeSign(&f.face, &f.v[3]), -1);
    }
    std::mt19937_64 rng(7);
    CHConvexHull3D hull;
    // 52 and 53 straddle the largest coordinates that double holds exactly.
    const int bits[] = {20, 30, 41, 50, 52, 53, 62};
    for (int b : bits) {
        const long long range = (1LL << b) - 1;
        std::uniform_int_distribution<long long> any(-range, range);
        std::uniform_int_distribution<long long> small(-3, 3);
        for (int trial = 0; trial < 400; ++trial) {
            Coord p{any(rng), any(rng), any(rng)};
            // Multiples of 4, so that the halves and quarters below are exact.
            Coord u{4 * (any(rng) / 8), 4 * (any(rng) / 8), 4 * (any(rng) / 8)};
            Coord w{4 * (any(rng) / 8), 4 * (any(rng) / 8), 4 * (any(rng) / 8)};
            Coord a = p, bb = p, c = p;
            for (int k = 0; k < 3; ++k) {
                // Coplanar or nearly coplanar: det is 0 or tiny against the huge products.
                a[k] = p[k] + u[k] / 2;
                bb[k] = p[k] + w[k] / 2;
                c[k] = p[k] + u[k] / 4 + w[k] / 4 + (trial % 3 == 0 ? 0 : small(rng));
            }
            if (trial % 5 == 0)
                c = {any(rng), any(rng), any(rng)};
            OneFace f(a, bb, c, p);
            ASSERT_EQ(hull.VolumeSign(&f.face, &f.v[3]), Sign(Det(a, bb, c, p))) << "bits " << b << " trial " << trial;
        }
    }
    // The extreme corners of the 64-bit range.
    const long long M = INT64_MAX, m = INT64_MIN;
    const Coord extremes[][4] = {{{m, m, m}, {M, m, m}, {m, M, m}, {m, m, M}},
                                 {{M, M, M}, {m, M, M}, {M, m, M}, {M, M, m}},
                                 {{m, 0, M}, {M, 0, m}, {0, 1, 0}, {1, 0, 0}},
                                 {{m, m, 0}, {M, M, 0}, {0, 0, 0}, {5, -5, 1}}};
    for (const auto& q : extremes) {
        OneFace f(q[0], q[1], q[2], q[3]);
        EXPECT_EQ(hull.VolumeSign(&f.face, &f.v[3]), Sign(Det(q[0], q[1], q[2], q[3])));
    }
}

TEST(Hull3DPredicates, CollinearIsExactForLargeCoordinates)
{
    CHConvexHull3D hull;
    const long long big = 3037000499LL * 1000; // squares overflow 64 bits
    tVertexStructure a{}, b{}, c{};
    a.x = -big, a.y = 7, a.z = big;
    b.x = 0, b.y = 7 + big / 1000, b.z = 0;
    c.x = big, c.y = 7 + 2 * (big / 1000), c.z = -big;
    EXPECT_TRUE(hull.Collinear(&a, &b, &c));
    c.z += 1;
    EXPECT_FALSE(hull.Collinear(&a, &b, &c));
    c = b;
    EXPECT_TRUE(hull.Collinear(&a, &b, &c));
    c.x = INT64_MAX, c.y = INT64_MIN, c.z = INT64_MAX;
    a.x = INT64_MIN, a.y = INT64_MAX, a.z = INT64_MIN;
    b.x = 0, b.y = 0, b.z = 0;
    EXPECT_FALSE(hull.Collinear(&a, &b, &c));
    c.x = INT64_MAX, c.y = INT64_MIN + 1, c.z = INT64_MAX;
    a.y = INT64_MAX, a.x = INT64_MIN + 1, a.z = INT64_MIN + 1;
    EXPECT_TRUE(hull.Collinear(&a, &b, &c));
}

TEST(Hull3D, CubeKeepsCornersAndDropsInteriorAndFacePoints)
{
    CHConvexHull3D hull;
    for (int i = 0; i < 8; ++i)
        hull.AppendVertex3D(float(i & 1) * 4, float((i >> 1) & 1) * 4, float((i >> 2) & 1) * 4, 1.0f);
    hull.AppendVertex3D(2, 2, 2, 1.0f); // centre
    hull.AppendVertex3D(1, 3, 2, 1.0f); // inside
    hull.AppendVertex3D(2, 2, 4, 1.0f); // middle of the top face
    hull.AppendVertex3D(4, 1, 3, 1.0f); // on the +x face
    hull.CalcConvexHull();
    EXPECT_EQ(hull.GetNumVertices(), 8);
    EXPECT_EQ(hull.GetNumFaces(), 12);
    EXPECT_EQ(hull.GetNumEdges(), 18);
    for (tVertexStructure* v : Vertices(hull))
        for (int k = 0; k < 3; ++k)
            EXPECT_TRUE(At(v)[k] == 0 || At(v)[k] == 4);
    EXPECT_TRUE(hull.Consistency());
    EXPECT_TRUE(hull.CheckEndpts());
    for (tFaceStructure* f : Faces(hull))
        for (int i = 0; i < 3; ++i) {
            const tEdgeStructure* e = f->edge[i];
            const std::set<const tVertexStructure*> ends{e->endpts[0], e->endpts[1]};
            EXPECT_EQ(ends, (std::set<const tVertexStructure*>{f->vertex[i], f->vertex[(i + 1) % 3]}));
        }

    // Corner access: grid units over 10, or over a per-lane scale.
    tFaceStructure* f = hull.GetFaces();
    SSEPoint scale;
    scale.x = 2, scale.y = 4, scale.z = 8, scale.w = 0;
    for (int k = 0; k < 3; ++k) {
        const SSEPoint p = hull.GetVertexFromFace(f, k);
        EXPECT_EQ(p.x, float(f->vertex[k]->x) / 10.0f);
        EXPECT_EQ(p.y, float(f->vertex[k]->y) / 10.0f);
        EXPECT_EQ(p.z, float(f->vertex[k]->z) / 10.0f);
        EXPECT_EQ(p.w, 0.0f);
        const SSEPoint q = hull.GetVertexFromFace3D(f, k, scale);
        EXPECT_EQ(q.x, float(f->vertex[k]->x) / 2.0f);
        EXPECT_EQ(q.y, float(f->vertex[k]->y) / 4.0f);
        EXPECT_EQ(q.z, float(f->vertex[k]->z) / 8.0f);
        EXPECT_EQ(q.w, 0.0f);
    }
}

// Random points in general position (a ball of radius 1e6, shifted to positive coordinates
// since appending rounds negative values up): the face set must be CGAL's, every input
// point on or behind every face, and V - E + F = 2.
TEST(Hull3D, MatchesCgalHullOnRandomPoints)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    for (unsigned seed : {1u, 2u, 3u}) {
        std::mt19937 rng(seed);
        std::uniform_int_distribution<int> coord(-1000000, 1000000);
        std::vector<Coord> points;
        while (points.size() < (seed == 3 ? 400u : 150u)) {
            const Coord p{coord(rng), coord(rng), coord(rng)};
            const double r2 = double(p[0]) * p[0] + double(p[1]) * p[1] + double(p[2]) * p[2];
            if (r2 <= 1e12)
                points.push_back({p[0] + 1000000, p[1] + 1000000, p[2] + 1000000});
        }
        CHConvexHull3D hull;
        hull.SetCheckFlag(seed == 1);
        for (const Coord& p : points)
            hull.AppendVertex3D(float(p[0]), float(p[1]), float(p[2]), 1.0f);
        testing::internal::CaptureStderr();
        hull.CalcConvexHull();
        EXPECT_EQ(testing::internal::GetCapturedStderr(), "");

        std::vector<K::Point_3> cgalPoints;
        for (const Coord& p : points)
            cgalPoints.emplace_back(p[0], p[1], p[2]);
        CGAL::Surface_mesh<K::Point_3> mesh;
        CGAL::convex_hull_3(cgalPoints.begin(), cgalPoints.end(), mesh);
        std::set<Triangle> expected;
        for (auto face : mesh.faces()) {
            std::vector<Coord> corners;
            for (auto v : mesh.vertices_around_face(mesh.halfedge(face))) {
                const K::Point_3& q = mesh.point(v);
                corners.push_back({(long long)q.x(), (long long)q.y(), (long long)q.z()});
            }
            ASSERT_EQ(corners.size(), 3u);
            expected.insert(SortedFace(corners[0], corners[1], corners[2]));
        }

        std::set<Triangle> ours;
        for (tFaceStructure* f : Faces(hull)) {
            ours.insert(SortedFace(At(f->vertex[0]), At(f->vertex[1]), At(f->vertex[2])));
            for (const Coord& p : points)
                ASSERT_GE(Sign(Det(At(f->vertex[0]), At(f->vertex[1]), At(f->vertex[2]), p)), 0);
        }
        EXPECT_EQ(hull.GetNumFaces(), (int)mesh.number_of_faces()) << seed;
        EXPECT_EQ(ours, expected) << seed;
        EXPECT_EQ(hull.GetNumVertices() - hull.GetNumEdges() + hull.GetNumFaces(), 2);
        EXPECT_EQ(hull.GetNumVertices(), (int)mesh.number_of_vertices());
        EXPECT_TRUE(hull.Checks());
    }
}

// --- the conflict-graph construction against the plain scans of every face and edge ---------

#include "qzsse/geometry/CH2DDelaunay.h"

namespace {

template <class Base>
struct FullScan : Base {
    FullScan() { this->m_bFullScan = true; }
};

template <class T>
int PositionIn(const T* head, const T* p)
{
    if (!p)
        return -1;
    int i = 0;
    for (const T* q = head;; q = q->next, ++i) {
        if (q == p)
            return i;
        if (q->next == head)
            return -2; // not in the list: a dangling link
    }
}

// Every list in order with every field, links written as list positions.
std::vector<long long> Snapshot(const CHConvexHull3D& hull)
{
    std::vector<long long> out{hull.GetNumVertices(), hull.GetNumEdges(), hull.GetNumFaces()};
    const tVertexStructure* vh = hull.GetVertices();
    const tEdgeStructure* eh = hull.GetEdges();
    const tFaceStructure* fh = hull.GetFaces();
    if (vh)
        for (const tVertexStructure* v = vh;;) {
            out.insert(out.end(), {v->x, v->y, v->z, v->iIndex, v->bOnHull, v->bProcessed, v->bFlag,
                                   PositionIn(eh, v->duplicate), v->prev == vh->prev ? 1 : 0});
            if ((v = v->next) == vh)
                break;
        }
    if (eh)
        for (const tEdgeStructure* e = eh;;) {
            out.insert(out.end(), {PositionIn(vh, e->endpts[0]), PositionIn(vh, e->endpts[1]),
                                   PositionIn(fh, e->adjface[0]), PositionIn(fh, e->adjface[1]),
                                   PositionIn(fh, e->newface), e->bDelete});
            if ((e = e->next) == eh)
                break;
        }
    if (fh)
        for (const tFaceStructure* f = fh;;) {
            for (int i = 0; i < 3; ++i)
                out.insert(out.end(), {PositionIn(vh, f->vertex[i]), PositionIn(eh, f->edge[i])});
            out.insert(out.end(), {f->bVisible, f->bLowerFace});
            if ((f = f->next) == fh)
                break;
        }
    return out;
}

// Builds both ways; a degenerate set must throw both ways. inspect sees the fast object.
template <class Fast, class Slow, class Fill, class Build, class Inspect>
void ExpectSameBothWays(Fill fill, Build build, const char* what, int trial, Inspect inspect)
{
    Fast fast;
    Slow slow;
    fill(fast);
    fill(slow);
    bool fastThrew = false, slowThrew = false;
    try {
        build(fast);
    } catch (const CHDegenerateHullException&) {
        fastThrew = true;
    }
    try {
        build(slow);
    } catch (const CHDegenerateHullException&) {
        slowThrew = true;
    }
    ASSERT_EQ(fastThrew, slowThrew) << what << ' ' << trial;
    if (!fastThrew) {
        const auto expected = Snapshot(slow);
        ASSERT_GT(expected.size(), 3u);
        ASSERT_EQ(Snapshot(fast), expected) << what << ' ' << trial;
    }
    inspect(fast);
}

template <class Fast, class Slow, class Fill, class Build>
void ExpectSameBothWays(Fill fill, Build build, const char* what, int trial)
{
    ExpectSameBothWays<Fast, Slow>(fill, build, what, trial, [](const Fast&) {});
}

} // namespace

TEST(Hull3DConflicts, ListsAndFieldsEqualThoseOfTheFullScansIn3D)
{
    std::mt19937 rng(4242);
    const auto calc = [](CHConvexHull3D& h) { h.CalcConvexHull(); };
    for (int trial = 0; trial < 128; ++trial) {
        // Small ranges put many points on shared planes and lines; large ones are generic.
        const int range = std::array<int, 4>{3, 8, 60, 1 << 20}[trial % 4];
        const int n = 4 + int(rng() % (trial % 16 == 3 || trial % 16 == 6 ? 800 : 200));
        std::uniform_int_distribution<int> coord(0, range);
        std::vector<std::array<float, 3>> pts(n);
        for (auto& p : pts)
            p = {float(coord(rng)), float(coord(rng)), float(coord(rng))};
        if (trial % 5 == 1) // points on a sphere-like shell: most stay on the hull
            for (auto& p : pts) {
                const float t = float(rng() % 6283) / 1000.0f, u = float(rng() % 3141) / 1000.0f;
                p = {std::round(500 + 400 * std::cos(t) * std::sin(u)), std::round(500 + 400 * std::sin(t) * std::sin(u)),
                     std::round(500 + 400 * std::cos(u))};
            }
        ExpectSameBothWays<CHConvexHull3D, FullScan<CHConvexHull3D>>(
            [&](CHConvexHull3D& h) {
                for (const auto& p : pts)
                    h.AppendVertex3D(p[0], p[1], p[2], 1.0f);
            },
            calc, "3-D", trial);
    }
    // The cube's lattice: every point on a plane with many others, the inner ones hidden.
    ExpectSameBothWays<CHConvexHull3D, FullScan<CHConvexHull3D>>(
        [](CHConvexHull3D& h) {
            for (int i = 0; i < 125; ++i)
                h.AppendVertex3D(float(i % 5), float(i / 5 % 5), float(i / 25), 1.0f);
        },
        calc, "lattice", 0);
}

TEST(Hull3DConflicts, DelaunayListsEqualThoseOfTheFullScans)
{
    std::mt19937 rng(99);
    const auto calc = [](CH2DDelaunay& d) { d.CalcDelaunayTriangulation(); };
    for (int trial = 0; trial < 80; ++trial) {
        const int n = 3 + int(rng() % (trial % 20 == 0 ? 1200 : 250));
        // Coarse grids make many cocircular quadruples and duplicates (merged on append).
        const float step = std::array<float, 4>{0.1f, 0.5f, 1.0f, 0.37f}[trial % 4];
        const int cells = std::array<int, 3>{5, 30, 2000}[trial % 3];
        std::vector<std::pair<float, float>> pts(n);
        for (auto& p : pts)
            p = {step * float(rng() % cells), step * float(rng() % cells)};
        ExpectSameBothWays<CH2DDelaunay, FullScan<CH2DDelaunay>>(
            [&](CH2DDelaunay& d) {
                for (int i = 0; i < n; ++i)
                    d.AppendVertex(pts[i].first, pts[i].second, trial % 2 ? i : -1, i % 3 == 0);
            },
            calc, "Delaunay", trial);
    }
    // A full square grid: every grid square is a cocircular quadruple.
    ExpectSameBothWays<CH2DDelaunay, FullScan<CH2DDelaunay>>(
        [](CH2DDelaunay& d) {
            for (int i = 0; i < 400; ++i)
                d.AppendVertex(float(i % 20), float(i / 20), -1, false);
        },
        calc, "grid", 0);
}

// The duplicate test must follow the list as construction removes vertices and moves the head.
TEST(Hull3DInput, DuplicateTestFollowsTheListAfterConstruction)
{
    CHConvexHull3D hull;
    for (int i = 0; i < 8; ++i)
        hull.AppendVertex3D(float(i & 1) * 4, float((i >> 1) & 1) * 4, float((i >> 2) & 1) * 4, 1.0f);
    hull.AppendVertex3D(2, 2, 2, 1.0f); // inside: freed by the construction
    hull.CalcConvexHull();
    ASSERT_EQ(hull.CalcNumVertices(), 8);
    hull.AppendVertex3D(4, 4, 4, 1.0f); // a hull corner: still there
    EXPECT_EQ(hull.CalcNumVertices(), 8);
    hull.AppendVertex3D(2, 2, 2, 1.0f); // the freed point: gone, so added again
    EXPECT_EQ(hull.CalcNumVertices(), 9);
    EXPECT_EQ(At(hull.GetVertices()->prev), (Coord{2, 2, 2}));
    hull.AppendVertex3D(2, 2, 2, 1.0f);
    EXPECT_EQ(hull.CalcNumVertices(), 9);
}

// Larger inputs, where each point's face changes many times and the block array is
// squeezed over and over: random, clustered and scan-ordered plane points, and points in a
// ball and on a sphere.
TEST(Hull3DConflicts, LargerInputsEqualTheFullScans)
{
    std::mt19937 rng(2024);
    std::normal_distribution<float> blob(0.0f, 15.0f);
    for (int kind = 0; kind < 3; ++kind) {
        std::vector<std::pair<float, float>> pts(2000);
        for (std::size_t i = 0; i < pts.size(); ++i) {
            if (kind == 1) {
                const float cx = float(i % 7) * 900.0f, cy = float(i % 5) * 700.0f;
                pts[i] = {std::round((cx + blob(rng)) * 10.0f) / 10.0f, std::round((cy + blob(rng)) * 10.0f) / 10.0f};
            } else {
                pts[i] = {float(rng() % 100000) / 10.0f, float(rng() % 100000) / 10.0f};
            }
        }
        if (kind == 2) // scan order: every point lands outside the hull built so far
            std::sort(pts.begin(), pts.end(), [](const auto& a, const auto& b) {
                return a.second != b.second ? a.second < b.second : a.first < b.first;
            });
        ExpectSameBothWays<CH2DDelaunay, FullScan<CH2DDelaunay>>(
            [&](CH2DDelaunay& d) {
                for (std::size_t i = 0; i < pts.size(); ++i)
                    d.AppendVertex(pts[i].first, pts[i].second, int(i), false);
            },
            [](CH2DDelaunay& d) { d.CalcDelaunayTriangulation(); }, "plane", kind);
    }
    std::uniform_real_distribution<float> unit(-1.0f, 1.0f);
    for (int shell = 0; shell < 2; ++shell) {
        std::vector<std::array<float, 3>> ball;
        while (ball.size() < 2000) {
            std::array<float, 3> p{unit(rng), unit(rng), unit(rng)};
            const float r = std::sqrt(p[0] * p[0] + p[1] * p[1] + p[2] * p[2]);
            if (r > 1.0f || r < 0.01f)
                continue;
            if (shell)
                p = {p[0] / r, p[1] / r, p[2] / r};
            ball.push_back(p);
        }
        ExpectSameBothWays<CHConvexHull3D, FullScan<CHConvexHull3D>>(
            [&](CHConvexHull3D& h) {
                for (const auto& p : ball)
                    h.AppendVertex3D(p[0], p[1], p[2], 1e5f);
            },
            [](CHConvexHull3D& h) { h.CalcConvexHull(); }, shell ? "sphere" : "ball", 0);
    }
}

namespace {

// The closing steps called one by one, with the counts walked from the finished lists.
template <class Base>
struct StepByStep : Base {
    void Steps()
    {
        this->DoubleTriangle();
        this->ConstructHull();
        this->EdgeOrderOnFaces();
        if constexpr (std::is_base_of_v<CH2DDelaunay, Base>)
            this->LowerFaces();
        this->storeCounts();
    }
};

} // namespace

TEST(Hull3DConflicts, OnePassFinishEqualsTheStepsWithWalkedCounts)
{
    std::mt19937 rng(77);
    const auto delaunay = [](auto& d) {
        if constexpr (requires { d.Steps(); })
            d.Steps();
        else
            d.CalcDelaunayTriangulation();
    };
    const auto hull = [](auto& h) {
        if constexpr (requires { h.Steps(); })
            h.Steps();
        else
            h.CalcConvexHull();
    };
    // Coarse cells give cocircular and coplanar sets and duplicates; one cell is degenerate.
    for (int trial = 0; trial < 24; ++trial) {
        const int n = 3 + int(rng() % (trial % 6 == 0 ? 3000 : 300));
        const int cells = std::array<int, 4>{1, 6, 40, 100000}[trial % 4];
        std::vector<std::array<float, 3>> pts(static_cast<std::size_t>(n));
        for (auto& p : pts)
            p = {float(rng() % cells) / 10.0f, float(rng() % cells) / 10.0f, float(rng() % cells) / 10.0f};
        ExpectSameBothWays<CH2DDelaunay, StepByStep<CH2DDelaunay>>(
            [&](CH2DDelaunay& d) {
                for (int i = 0; i < n; ++i)
                    d.AppendVertex(pts[std::size_t(i)][0], pts[std::size_t(i)][1], i, i % 2 == 0);
            },
            delaunay, "Delaunay", trial);
        ExpectSameBothWays<CHConvexHull3D, StepByStep<CHConvexHull3D>>(
            [&](CHConvexHull3D& h) {
                for (const auto& p : pts)
                    h.AppendVertex3D(p[0], p[1], p[2], 10.0f);
            },
            hull, "3-D", trial);
    }
}

namespace {

// The class's own predicates, with the construction's counters readable.
struct Counted : CH2DDelaunay {
    Counted() { m_bOwnVolumeSign = true; }
    std::size_t Walked() const { return m_nWalkedPoints; }
    std::size_t Fallbacks() const { return m_nWalkFallbacks; }
    std::size_t GiveUps() const { return m_nFlatGiveUps; }
};

} // namespace

// Lifted plane points are placed by the walk over the downward faces; its answers are
// checked, so the lists must equal the full scans' whatever it does, and on these sets it
// should never need the scan of every face.
TEST(Hull3DWalk, PlanePointsEqualTheFullScansAndNeedNoFallback)
{
    std::mt19937 rng(31337);
    std::normal_distribution<float> blob(0.0f, 8.0f);
    const auto byRows = [](auto& pts) {
        std::sort(pts.begin(), pts.end(), [](const auto& a, const auto& b) {
            return a.second != b.second ? a.second < b.second : a.first < b.first;
        });
    };
    enum Kind { Random, Clustered, GridRows, RandomRows, GridShuffled, FewLines, kKinds };
    for (int kind = 0; kind < kKinds; ++kind) {
        std::vector<std::pair<float, float>> pts(2000);
        for (std::size_t i = 0; i < pts.size(); ++i) {
            const float r = float(rng() % 60000) / 10.0f, t = float(rng() % 60000) / 10.0f;
            switch (kind) {
            case Clustered:
                pts[i] = {std::round((float(i % 4) * 300.0f + blob(rng)) * 10.0f) / 10.0f,
                          std::round((float(i % 3) * 200.0f + blob(rng)) * 10.0f) / 10.0f};
                break;
            case GridRows:
            case GridShuffled: // every grid square cocircular, boundaries collinear
                pts[i] = {float(i % 50), float(i / 50)};
                break;
            case FewLines: // three parallel lines: long collinear runs on the boundary
                pts[i] = {r, float(rng() % 3) * 50.0f};
                break;
            default:
                pts[i] = {r, t};
            }
        }
        if (kind == GridRows || kind == RandomRows)
            byRows(pts);
        if (kind == GridShuffled)
            std::shuffle(pts.begin(), pts.end(), rng);
        ExpectSameBothWays<Counted, FullScan<CH2DDelaunay>>(
            [&](CH2DDelaunay& d) {
                for (std::size_t i = 0; i < pts.size(); ++i)
                    d.AppendVertex(pts[i].first, pts[i].second, int(i), false);
            },
            [](CH2DDelaunay& d) { d.CalcDelaunayTriangulation(); }, "walk", kind,
            [&](const Counted& d) {
                EXPECT_GT(d.Walked(), 1000u) << kind;
                EXPECT_EQ(d.Fallbacks(), 0u) << kind;
            });
    }
}

// A point off the paraboloid makes the set an ordinary 3-D one: the conflict graph builds it.
TEST(Hull3DWalk, OnePointOffTheParaboloidTakesTheConflictGraph)
{
    std::mt19937 rng(8);
    std::vector<int> coords(1000);
    for (int& c : coords)
        c = int(rng() % 1000);
    for (int off = 0; off < 2; ++off) {
        ExpectSameBothWays<Counted, FullScan<CH2DDelaunay>>(
            [&](CH2DDelaunay& d) {
                for (int i = 0; i < 500; ++i)
                    d.AppendVertex(float(coords[2 * i]) / 10.0f, float(coords[2 * i + 1]) / 10.0f, i, false);
                // (3, 4) lifted is (3, 4, 25); 26 is one step above the paraboloid.
                d.AppendVertex3D(3.0f, 4.0f, off ? 26.0f : 25.0f, 1.0f);
            },
            [](CH2DDelaunay& d) { d.CalcDelaunayTriangulation(); }, "off", off,
            [&](const Counted& d) { EXPECT_EQ(d.Walked() == 0, off == 1); });
    }
}

// Where the flat arrays do not follow (a point equal to a vertex, made by hand, sees no face
// and is dropped) or the hull is checked after every point, the conflict graph builds it.
TEST(Hull3DWalk, ConflictGraphTakesOverFromTheFlatArrays)
{
    std::mt19937 rng(5);
    std::vector<int> coords(800);
    for (int& c : coords)
        c = int(rng() % 2000);
    for (int checked = 0; checked < 2; ++checked) {
        ExpectSameBothWays<Counted, FullScan<CH2DDelaunay>>(
            [&](CH2DDelaunay& d) {
                for (int i = 0; i < 300; ++i)
                    d.AppendVertex(float(coords[2 * i]) / 10.0f, float(coords[2 * i + 1]) / 10.0f, i, false);
                d.SetCheckFlag(checked == 1);
                const std::vector<tVertexStructure*> v = Vertices(d);
                ASSERT_EQ(v.size(), 300u);
                v[250]->x = v[7]->x, v[250]->y = v[7]->y, v[250]->z = v[7]->z;
            },
            [](CH2DDelaunay& d) { d.CalcDelaunayTriangulation(); }, "take over", checked,
            [&](const Counted& d) {
                EXPECT_EQ(d.GetNumVertices(), 299);
                EXPECT_EQ(d.GiveUps(), checked ? 0u : 1u);
                EXPECT_EQ(d.Walked() > 200, checked == 0); // the walk stops at the duplicate
            });
    }
}
