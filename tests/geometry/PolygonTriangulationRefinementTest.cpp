#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <cmath>
#include <numbers>
#include <random>
#include <set>
#include <vector>

#include <CGAL/Constrained_Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Polygon_2_algorithms.h>
#include <CGAL/Triangulation_vertex_base_with_info_2.h>
#include <gtest/gtest.h>

#include "qzsse/geometry/CHPolygonTriangulationRefinement.h"
#include "qzsse/geometry/CHPolygonTriangulator.h"
#include "qzsse/geometry/detail/PolygonTriangulationRefinementPredicates.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using Vb = CGAL::Triangulation_vertex_base_with_info_2<int, K>;
using Tds = CGAL::Triangulation_data_structure_2<Vb, CGAL::Constrained_triangulation_face_base_2<K>>;
using Cdt = CGAL::Constrained_Delaunay_triangulation_2<K, Tds, CGAL::Exact_predicates_tag>;
using Triangles = std::set<std::array<int, 3>>;

// Rotated so the smallest index leads, keeping the orientation.
std::array<int, 3> Canonical(int a, int b, int c)
{
    if (b < a && b < c)
        return {b, c, a};
    if (c < a && c < b)
        return {c, a, b};
    return {a, b, c};
}

std::vector<K::Point_2> Points(const std::vector<std::array<float, 2>>& polygon)
{
    std::vector<K::Point_2> out;
    for (const auto& p : polygon)
        out.emplace_back(p[0], p[1]);
    return out;
}

// The constrained Delaunay triangles inside the polygon, as vertex index triples.
Triangles CgalConstrainedDelaunay(const std::vector<std::array<float, 2>>& polygon)
{
    const std::vector<K::Point_2> points = Points(polygon);
    Cdt cdt;
    std::vector<Cdt::Vertex_handle> handles;
    for (size_t i = 0; i < points.size(); ++i) {
        handles.push_back(cdt.insert(points[i]));
        handles.back()->info() = static_cast<int>(i);
    }
    for (size_t i = 0; i < handles.size(); ++i)
        cdt.insert_constraint(handles[i], handles[(i + 1) % handles.size()]);
    Triangles out;
    for (auto f = cdt.finite_faces_begin(); f != cdt.finite_faces_end(); ++f) {
        const K::Point_2 centroid = CGAL::centroid(f->vertex(0)->point(), f->vertex(1)->point(), f->vertex(2)->point());
        if (CGAL::bounded_side_2(points.begin(), points.end(), centroid, K()) == CGAL::ON_BOUNDED_SIDE)
            out.insert(Canonical(f->vertex(0)->info(), f->vertex(1)->info(), f->vertex(2)->info()));
    }
    return out;
}

Triangles TrianglesOf(const CHPolygonTriangulationRefinement& r)
{
    Triangles out;
    for (int i = 0; i < r.GetNumTriangles(); ++i) {
        int a = 0, b = 0, c = 0;
        r.GetTriangle(i, a, b, c);
        out.insert(Canonical(a, b, c));
    }
    return out;
}

struct Refined {
    CSSE2dPolygon polygon;
    std::unique_ptr<CHPolygonTriangulator> triangulator;
    std::unique_ptr<CHPolygonTriangulationRefinement> refinement;

    explicit Refined(const std::vector<std::array<float, 2>>& points)
    {
        polygon.Create(static_cast<int>(points.size()));
        for (size_t i = 0; i < points.size(); ++i)
            polygon.SetPoint(static_cast<int>(i), points[i][0], points[i][1]);
        triangulator = std::make_unique<CHPolygonTriangulator>(&polygon, 1, 1.0f, 1.0f, false);
        refinement = std::make_unique<CHPolygonTriangulationRefinement>(*triangulator, polygon);
    }
};

// A triangulation of the polygon whose every interior edge is locally Delaunay: counter-
// clockwise triangles tiling the area, each polygon edge used once, each other edge twice and
// its opposite vertex not strictly inside the neighbour's circumcircle (CGAL's predicates).
void ExpectConstrainedDelaunay(const std::vector<std::array<float, 2>>& polygon, const Triangles& triangles)
{
    const std::vector<K::Point_2> p = Points(polygon);
    const size_t n = p.size();
    ASSERT_EQ(triangles.size(), n - 2);
    double area = 0;
    std::map<std::pair<int, int>, int> opposite;
    for (const auto& t : triangles) {
        ASSERT_EQ(CGAL::orientation(p[t[0]], p[t[1]], p[t[2]]), CGAL::LEFT_TURN);
        area += CGAL::to_double(CGAL::area(p[t[0]], p[t[1]], p[t[2]]));
        for (int k = 0; k < 3; ++k)
            ASSERT_TRUE(opposite.emplace(std::pair(t[k], t[(k + 1) % 3]), t[(k + 2) % 3]).second);
    }
    EXPECT_NEAR(area, CGAL::to_double(CGAL::polygon_area_2(p.begin(), p.end(), K())), 1e-9 * std::abs(area));
    for (const auto& [edge, c] : opposite) {
        const auto reverse = opposite.find({edge.second, edge.first});
        const bool border = static_cast<size_t>((edge.first + 1) % static_cast<int>(n)) == static_cast<size_t>(edge.second);
        EXPECT_EQ(reverse == opposite.end(), border) << edge.first << "-" << edge.second;
        if (reverse != opposite.end()) {
            EXPECT_NE(CGAL::side_of_oriented_circle(p[edge.first], p[edge.second], p[c], p[reverse->second]),
                      CGAL::ON_POSITIVE_SIDE);
        }
    }
}

std::vector<std::array<float, 2>> Star(std::mt19937& rng, int n)
{
    std::uniform_real_distribution<double> jitter(0, 0.4), radius(20, 100);
    std::vector<std::array<float, 2>> out;
    for (int k = 0; k < n; ++k) {
        const double a = (k + jitter(rng)) * 2 * std::numbers::pi / n, r = radius(rng);
        out.push_back({static_cast<float>(r * std::cos(a)), static_cast<float>(r * std::sin(a))});
    }
    return out;
}

std::vector<std::array<float, 2>> Convex(std::mt19937& rng, int n)
{
    std::uniform_real_distribution<double> jitter(0, 0.4);
    std::vector<std::array<float, 2>> out;
    for (int k = 0; k < n; ++k) {
        const double a = (k + jitter(rng)) * 2 * std::numbers::pi / n;
        out.push_back({static_cast<float>(70 * std::cos(a)), static_cast<float>(40 * std::sin(a))});
    }
    return out;
}

// Teeth along the x axis, heights and corners jittered; counter-clockwise (right to left on
// top).
std::vector<std::array<float, 2>> Comb(std::mt19937& rng, int teeth)
{
    std::uniform_real_distribution<double> jitter(-0.3, 0.3), height(5, 40);
    std::vector<std::array<float, 2>> out;
    out.push_back({static_cast<float>(teeth * 4 + jitter(rng)), static_cast<float>(-10 + jitter(rng))});
    for (int k = teeth - 1; k >= 0; --k) {
        const double h = height(rng);
        out.push_back({static_cast<float>(4 * k + 3 + jitter(rng)), static_cast<float>(h)});
        out.push_back({static_cast<float>(4 * k + 1 + jitter(rng)), static_cast<float>(h + jitter(rng))});
        out.push_back({static_cast<float>(4 * k + jitter(rng)), static_cast<float>(jitter(rng))});
    }
    out.push_back({static_cast<float>(jitter(rng) - 1), static_cast<float>(-10 + jitter(rng))});
    return out;
}

// A band winding around the origin: out along one spiral, back along a parallel one.
std::vector<std::array<float, 2>> Spiral(std::mt19937& rng, int n)
{
    std::uniform_real_distribution<double> jitter(-0.05, 0.05);
    std::vector<std::array<float, 2>> out;
    const double turns = 2.5 * 2 * std::numbers::pi;
    for (int k = 0; k < n; ++k) {
        const double a = turns * k / (n - 1), r = 10 + 6 * a + jitter(rng);
        out.push_back({static_cast<float>(r * std::cos(a)), static_cast<float>(r * std::sin(a))});
    }
    for (int k = n - 1; k >= 0; --k) {
        const double a = turns * k / (n - 1), r = 13 + 6 * a + jitter(rng);
        out.push_back({static_cast<float>(r * std::cos(a)), static_cast<float>(r * std::sin(a))});
    }
    std::reverse(out.begin(), out.end());
    return out;
}

TEST(PolygonTriangulationRefinement, FlipsToCgalConstrainedDelaunay)
{
    std::mt19937 rng(7);
    const struct {
        const char* name;
        std::vector<std::array<float, 2>> (*make)(std::mt19937&, int);
        int size;
    } cases[] = {{"star", Star, 12}, {"star", Star, 300}, {"convex", Convex, 40}, {"comb", Comb, 25},
                 {"spiral", Spiral, 60}};
    for (const auto& c : cases) {
        for (int round = 0; round < 5; ++round) {
            const auto polygon = c.make(rng, c.size);
            Refined r(polygon);
            ASSERT_EQ(r.refinement->GetNumTriangles(), static_cast<int>(polygon.size()) - 2) << c.name;
            const Triangles earClipped = TrianglesOf(*r.refinement);
            const int flips = r.refinement->FlipToConstrainedDelaunay();
            const Triangles refined = TrianglesOf(*r.refinement);
            EXPECT_EQ(refined, CgalConstrainedDelaunay(polygon)) << c.name << " " << c.size << " round " << round;
            EXPECT_EQ(flips == 0, refined == earClipped) << c.name;
            EXPECT_EQ(r.refinement->FlipToConstrainedDelaunay(), 0) << c.name;
        }
    }
}

// Where the result is not unique (cocircular vertices) or ear clipping leaves zero-area
// triangles (collinear runs), any constrained Delaunay triangulation will do.
TEST(PolygonTriangulationRefinement, DegenerateInputsEndConstrainedDelaunay)
{
    std::vector<std::array<float, 2>> grid;  // square with every unit point of its sides
    for (int i = 0; i < 6; ++i)
        grid.push_back({static_cast<float>(i), 0});
    for (int i = 1; i < 6; ++i)
        grid.push_back({6, static_cast<float>(i)});
    for (int i = 6; i > 0; --i)
        grid.push_back({static_cast<float>(i), 6});
    for (int i = 6; i > 0; --i)
        grid.push_back({0, static_cast<float>(i)});
    std::vector<std::array<float, 2>> octagon;  // exactly cocircular (radius 5)
    for (const auto& [x, y] : {std::pair{5, 0}, {4, 3}, {3, 4}, {0, 5}, {-3, 4}, {-4, 3}, {-5, 0}, {-4, -3}, {-3, -4}, {0, -5}, {3, -4}, {4, -3}})
        octagon.push_back({static_cast<float>(x), static_cast<float>(y)});
    std::vector<std::array<float, 2>> lShape = {{0, 0}, {1, 0}, {2, 0}, {3, 0}, {4, 0}, {4, 1}, {2.5f, 1}, {1, 1}, {1, 2}, {1, 3}, {1, 4}, {0, 4}, {0, 2}};
    std::vector<std::array<float, 2>> rectangle = {{0, 0}, {4, 0}, {4, 3}, {0, 3}};
    std::vector<std::array<float, 2>> thinQuad = {{0, 0}, {10, 0}, {10, 1e-3f}, {0, 2e-3f}};
    // Near 1e7 the float spacing is 1: the double filter cannot decide, the exact path must.
    std::vector<std::array<float, 2>> farAway = {{1e7f, 1e7f}, {1e7f + 4, 1e7f}, {1e7f + 5, 1e7f + 3}, {1e7f + 2, 1e7f + 5}, {1e7f - 1, 1e7f + 3}};
    for (const auto* polygon : {&grid, &octagon, &lShape, &rectangle, &thinQuad, &farAway}) {
        Refined r(*polygon);
        r.refinement->FlipToConstrainedDelaunay();
        ExpectConstrainedDelaunay(*polygon, TrianglesOf(*r.refinement));
    }
}

// Clipper output with a zero-area triangle on a collinear side, which flips must remove.
struct InjectedTriangulator : CHPolygonTriangulator {
    explicit InjectedTriangulator(CSSE2dPolygon* polygon) : CHPolygonTriangulator(polygon, 1, 1.0f, 1.0f, false) {}
    void Set(const std::vector<std::array<int, 3>>& triangles)
    {
        m_nNumTriangles = static_cast<int>(triangles.size());
        for (size_t i = 0; i < triangles.size(); ++i)
            m_pTriangles[i] = {triangles[i][0], triangles[i][1], triangles[i][2]};
    }
};

TEST(PolygonTriangulationRefinement, FlipsAwayZeroAreaTriangles)
{
    const std::vector<std::array<float, 2>> points = {{0, 0}, {3, 0}, {6, 0}, {10, 0}, {5, 8}};
    CSSE2dPolygon polygon;
    polygon.Create(static_cast<int>(points.size()));
    for (size_t i = 0; i < points.size(); ++i)
        polygon.SetPoint(static_cast<int>(i), points[i][0], points[i][1]);
    InjectedTriangulator triangulator(&polygon);
    triangulator.Set({{0, 1, 2}, {0, 2, 3}, {0, 3, 4}});
    CHPolygonTriangulationRefinement r(triangulator, polygon);
    EXPECT_GE(r.FlipToConstrainedDelaunay(), 2);
    EXPECT_EQ(TrianglesOf(r), CgalConstrainedDelaunay(points));
}

TEST(PolygonTriangulationRefinement, PredicatesAgreeWithCgalAcrossScales)
{
    std::mt19937 rng(11);
    for (float scale : {1e-30f, 1e-3f, 1.0f, 1e6f, 1e30f}) {
        // Small integer grids make ties (collinear, cocircular) frequent; one point far off
        // the others' scale exercises the wide integer path.
        std::uniform_int_distribution<int> coordinate(-3, 3);
        for (int round = 0; round < 2000; ++round) {
            float v[8];
            for (float& x : v)
                x = static_cast<float>(coordinate(rng)) * scale;
            if (round % 4 == 0)
                v[round % 8] = 1e-38f;
            const K::Point_2 a(v[0], v[1]), b(v[2], v[3]), c(v[4], v[5]), d(v[6], v[7]);
            EXPECT_EQ(qzsse::detail::RefinementOrientation(v[0], v[1], v[2], v[3], v[4], v[5]),
                      static_cast<int>(CGAL::orientation(a, b, c)));
            EXPECT_EQ(qzsse::detail::RefinementInCircle(v[0], v[1], v[2], v[3], v[4], v[5], v[6], v[7]),
                      static_cast<int>(CGAL::side_of_oriented_circle(a, b, c, d)));
        }
    }
}

TEST(PolygonTriangulationRefinement, CollapsesSliversIntoTheConstrainedDelaunayOfTheBorder)
{
    // A rectangle whose top side has a 0.05-long step: every triangle on that edge sees it
    // under about 0.15 degrees. Of its ends, (10.05, 10.0001) is convex and (10, 10) reflex,
    // so only the first may go. A 3-D source: z goes with each point.
    const std::vector<std::array<float, 3>> points = {
        {0, 0, 1}, {20, 0, 2}, {20, 10, 3}, {10.05f, 10.0001f, 4}, {10, 10, 5}, {0, 10, 6}};
    CSSE3dPolygon polygon;
    polygon.Create(static_cast<int>(points.size()));
    for (size_t i = 0; i < points.size(); ++i)
        polygon.SetPoint(static_cast<int>(i), points[i][0], points[i][1], points[i][2]);
    CHPolygonTriangulator triangulator(&polygon, 1, 1.0f, 1.0f, 1.0f, false);
    CHPolygonTriangulationRefinement r(triangulator, polygon);
    r.FlipToConstrainedDelaunay();
    EXPECT_EQ(r.CollapseSlivers(0.05f, 0.0f), 0);
    EXPECT_EQ(r.CollapseSlivers(1.0f, 0.0f), 1);

    CSSE3dPolygon border;
    r.GetBorderLinePolygon(border);
    std::vector<std::array<float, 3>> kept;
    std::vector<std::array<float, 2>> kept2d;
    for (int i = 0; i < border.GetNumPoints(); ++i) {
        float x, y, z;
        border.GetPoint(i, x, y, z);
        kept.push_back({x, y, z});
        kept2d.push_back({x, y});
    }
    const std::vector<std::array<float, 3>> expected = {{0, 0, 1}, {20, 0, 2}, {20, 10, 3}, {10, 10, 5}, {0, 10, 6}};
    EXPECT_EQ(kept, expected);
    EXPECT_EQ(r.GetNumBorderVertices(), 5);

    // The triangles, renumbered to border positions, are the border's constrained Delaunay.
    const std::vector<int> borderIndex = {0, 1, 2, -1, 3, 4};
    Triangles renumbered;
    for (const auto& t : TrianglesOf(r))
        renumbered.insert(Canonical(borderIndex[t[0]], borderIndex[t[1]], borderIndex[t[2]]));
    EXPECT_EQ(renumbered, CgalConstrainedDelaunay(kept2d));
    SSEPoint a, b, c;
    ASSERT_TRUE(r.GetTriangle3D(0, a, b, c));
    int ia, ib, ic;
    r.GetTriangle(0, ia, ib, ic);
    EXPECT_EQ(a.z, points[static_cast<size_t>(ia)][2]);
    EXPECT_FALSE(r.GetTriangle3D(r.GetNumTriangles(), a, b, c));
}

TEST(PolygonTriangulationRefinement, CollapseByAreaKeepsRandomPolygonsValid)
{
    std::mt19937 rng(3);
    for (int round = 0; round < 10; ++round) {
        const auto polygon = Star(rng, 80);
        Refined r(polygon);
        r.refinement->FlipToConstrainedDelaunay();
        const int removed = r.refinement->CollapseSlivers(10.0f, 20.0f);
        EXPECT_GT(removed, 0);
        CSSE3dPolygon border;
        r.refinement->GetBorderLinePolygon(border);
        ASSERT_EQ(border.GetNumPoints(), static_cast<int>(polygon.size()) - removed);
        std::vector<std::array<float, 2>> kept;
        for (int i = 0; i < border.GetNumPoints(); ++i) {
            float x, y, z;
            border.GetPoint(i, x, y, z);
            kept.push_back({x, y});
        }
        // Renumber the triangles to border positions and check them against the border.
        std::vector<int> index(polygon.size(), -1);
        for (size_t i = 0, j = 0; i < polygon.size() && j < kept.size(); ++i)
            if (polygon[i] == kept[j])
                index[i] = static_cast<int>(j++);
        Triangles renumbered;
        for (const auto& t : TrianglesOf(*r.refinement))
            renumbered.insert(Canonical(index[static_cast<size_t>(t[0])], index[static_cast<size_t>(t[1])], index[static_cast<size_t>(t[2])]));
        ExpectConstrainedDelaunay(kept, renumbered);
        const auto before = Points(polygon), after = Points(kept);
        EXPECT_LE(CGAL::polygon_area_2(after.begin(), after.end(), K()), CGAL::polygon_area_2(before.begin(), before.end(), K()));
    }
}

}  // namespace
