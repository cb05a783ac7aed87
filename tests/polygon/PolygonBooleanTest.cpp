// Simplification, median filter, dilation, overlap, merge and assembly of closed polygons,
// checked against Boost.Geometry on stars, combs, collinear runs, touching and shared edges
// and a contour of the sample elevation grid.

#include <filesystem>

// Boost 1.74's round join leaves a point unset on a path g++ 12 cannot rule out.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <boost/geometry.hpp>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif

#include "polygon/PolygonTestUtil.h"
#include "qzsse/contour/CPixelChain.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "support/NpyReader.h"

namespace {

namespace bg = boost::geometry;
using BPoint = bg::model::d2::point_xy<double>;
using BLine = bg::model::linestring<BPoint>;
using BPolygon = bg::model::polygon<BPoint, false, false>; // counter-clockwise, open
using BMulti = bg::model::multi_polygon<BPolygon>;

BLine AsLine(const Pts& o, bool closed)
{
    BLine l;
    for (const P3& p : o)
        l.push_back({p.x, p.y});
    if (closed)
        l.push_back({o[0].x, o[0].y});
    return l;
}

Pts Ccw(Pts o)
{
    CSSE3dPolygon p;
    Fill(p, o);
    if (p.CalcXYArea() < 0)
        std::reverse(o.begin(), o.end());
    return o;
}

BMulti AsMulti(const Pts& o)
{
    BMulti m;
    m.resize(1);
    for (const P3& p : Ccw(o))
        m[0].outer().push_back({p.x, p.y});
    return m;
}

// Outlines as the dilation and overlap return them: an outer, then its holes.
BMulti AsMulti(const std::vector<CSSE3dPolygon>& outlines)
{
    BMulti m;
    for (const CSSE3dPolygon& o : outlines) {
        const bool hole = o.CalcXYArea() < 0;
        if (!hole)
            m.emplace_back();
        auto& ring = hole ? (m.back().inners().emplace_back()) : m.back().outer();
        for (const P3& p : Points(o))
            ring.push_back({p.x, p.y});
    }
    return m;
}

double SymmetricDifferenceArea(const BMulti& a, const BMulti& b)
{
    BMulti d;
    bg::sym_difference(a, b, d);
    return bg::area(d);
}

// Largest distance from a vertex of either to the outline of the other.
double OutlineHausdorff(const BMulti& a, const BMulti& b)
{
    const auto rings = [](const BMulti& m) {
        bg::model::multi_linestring<BLine> out;
        const auto add = [&](const auto& r) {
            BLine l(r.begin(), r.end());
            l.push_back(r.front());
            out.push_back(l);
        };
        for (const BPolygon& p : m) {
            add(p.outer());
            for (const auto& r : p.inners())
                add(r);
        }
        return out;
    };
    const auto ra = rings(a), rb = rings(b);
    double worst = 0.0;
    for (const auto& [from, to] : {std::pair{&ra, &rb}, std::pair{&rb, &ra}})
        for (const BLine& l : *from)
            for (const BPoint& p : l)
                worst = std::max(worst, static_cast<double>(bg::distance(p, *to)));
    return worst;
}

Pts Star(unsigned seed, int n, float cx = 0, float cy = 0)
{
    std::mt19937 rng(seed);
    Pts o = StarOutline(rng, n, cx, cy, 20.0f, 60.0f);
    for (P3& p : o)
        p.z = 7.0f;
    return o;
}

// Teeth of width 2 and gaps of 2, 10 deep, on a base 4 high; extra points along the base make
// collinear runs.
Pts Comb(int teeth, float x0 = 0)
{
    Pts o{{x0, 0, 7}};
    for (int k = 0; k <= 4 * teeth; ++k)
        o.push_back({x0 + static_cast<float>(k), 0, 7});
    for (int k = teeth - 1; k >= 0; --k) {
        const float x = x0 + 4.0f * static_cast<float>(k) + 2.0f;
        o.push_back({x + 2, 4, 7});
        o.push_back({x + 2, 14, 7});
        o.push_back({x, 14, 7});
        o.push_back({x, 4, 7});
    }
    o.erase(o.begin());
    return o;
}

// The jacksboro grid's contour at 816 through the first crossing of row 220 (439 pixels).
Pts DemContour()
{
    const auto grid = qzsse::detail::ReadNpy(std::filesystem::path(__FILE__).parent_path().parent_path() / "storage" /
                                             "data" / "jacksboro_fault_dem.npy");
    CSSEMatrix m;
    m.Create(grid.width, grid.height);
    for (int y = 0; y < grid.height; ++y)
        for (int x = 0; x < grid.width; ++x)
            m.SetPoint(x, y, grid.at(x, y));
    const int y = 220;
    int x = 4;
    while (x < grid.width - 4 && !(grid.at(x, y) >= 816.0f && grid.at(x - 1, y) < 816.0f))
        ++x;
    CPixelChain chain;
    chain.CreatePixelChain(&m, 816.0f, x, y, 100000, true, true, 0);
    CSSE3dPolygon p(chain, 1);
    p.RemoveEqualPointsXY();
    // Pixel chains go out and back along one-pixel spurs; without them the outline is simple.
    BPolygon ring;
    for (const P3& q : Points(p))
        ring.outer().push_back({q.x, q.y});
    bg::correct(ring);
    bg::remove_spikes(ring);
    Pts o;
    for (const BPoint& q : ring.outer())
        o.push_back({static_cast<float>(q.x()), static_cast<float>(q.y()), static_cast<float>(o.size())});
    return o;
}

const Pts& Dem()
{
    static const Pts o = DemContour();
    return o;
}

} // namespace

TEST(PolygonReducePoints, KeepsThePointsBoostSimplifyKeeps)
{
    ASSERT_GT(Dem().size(), 400u);
    for (const auto& [name, o] : {std::pair{"star", Star(1, 400)}, std::pair{"comb", Comb(6)}, std::pair{"dem", Dem()}})
        for (const float deviation : {0.4f, 1.5f, 6.0f})
            for (const bool closed : {false, true}) {
                // Closed: the two halves split at point 0 and the point farthest from it.
                std::vector<std::pair<size_t, size_t>> runs{{0, o.size() - 1}};
                Pts ring = o;
                if (closed) {
                    size_t far = 0;
                    for (size_t i = 1; i < o.size(); ++i)
                        if (bg::comparable_distance(BPoint(o[i].x, o[i].y), BPoint(o[0].x, o[0].y)) >
                            bg::comparable_distance(BPoint(o[far].x, o[far].y), BPoint(o[0].x, o[0].y)))
                            far = i;
                    ring.push_back(o[0]);
                    runs = {{0, far}, {far, o.size()}};
                }
                Pts expected;
                for (const auto& [a, b] : runs) {
                    BLine simplified;
                    bg::simplify(AsLine(Pts(ring.begin() + long(a), ring.begin() + long(b) + 1), false), simplified,
                                 deviation);
                    // Back to the source points (z included), in order, the shared end once.
                    size_t at = a;
                    for (size_t k = expected.empty() ? 0 : 1; k < simplified.size(); ++k) {
                        while (k + 1 == simplified.size() ? at != b
                                                         : ring[at].x != simplified[k].x() || ring[at].y != simplified[k].y())
                            ++at;
                        expected.push_back(ring[at]);
                    }
                }
                if (closed)
                    expected.pop_back();
                CSSE3dPolygon p;
                Fill(p, o);
                p.ReducePoints(deviation, closed);
                const Pts got = Points(p);
                size_t same = 0;
                while (same < std::min(got.size(), expected.size()) && got[same] == expected[same])
                    ++same;
                EXPECT_TRUE(got == expected) << name << " " << deviation << " closed " << closed << ": " << got.size()
                                             << " points, Boost " << expected.size() << ", first difference at "
                                             << same << " of " << o.size();
            }
}

TEST(PolygonFilterMedian3, EachCoordinateBecomesTheMedianOfItsNeighbourhood)
{
    const Pts in{{0, 5, 1}, {4, 1, 9}, {2, 8, 3}, {9, 0, 2}, {1, 3, 3}};
    struct Case {
        bool closed;
        Pts expected; // worked by hand
    } cases[] = {
        {false, {{0, 5, 1}, {2, 5, 3}, {4, 1, 3}, {2, 3, 3}, {1, 3, 3}}},
        {true, {{1, 3, 3}, {2, 5, 3}, {4, 1, 3}, {2, 3, 3}, {1, 3, 2}}},
    };
    for (const Case& c : cases) {
        CSSE3dPolygon p;
        Fill(p, in);
        p.CalcBoundingBox();
        p.FilterMedian3(c.closed);
        EXPECT_EQ(Points(p), c.expected) << c.closed;
        EXPECT_FALSE(p.IsBoundingBoxCalculated());
    }
}

// Boost's rounds have 720 points per circle; ours stay within 0.001 |distance| of the arc.
// Tolerances: outlines within 0.0012 |d| + 1e-3 of each other, areas within that times the
// outline length.
TEST(PolygonDilateExact, MatchesBoostBuffer)
{
    Pts dem = Dem();
    {
        CSSE3dPolygon p; // pixel steps: reduced to keep the oracle's quadratic check short
        Fill(p, dem);
        p.ReducePoints(0.5f, true);
        dem = Points(p);
    }
    struct Case {
        const char* name;
        Pts outline;
        float distance;
        size_t pieces; // outer outlines and holes, as Boost has them
    } cases[] = {
        {"star grown", Star(2, 80), 4.0f, 1},
        {"star shrunk", Star(3, 80), -3.0f, 1},
        {"comb grown", Comb(5), 0.6f, 1},
        {"comb grown shut", Comb(5), 1.5f, 1},
        {"comb teeth gone", Comb(5), -1.2f, 1},
        {"dumbbell split", {{0, 0, 7}, {10, 0, 7}, {10, 4, 7}, {14, 4, 7}, {14, 0, 7}, {24, 0, 7}, {24, 10, 7},
                            {14, 10, 7}, {14, 6, 7}, {10, 6, 7}, {10, 10, 7}, {0, 10, 7}}, -1.5f, 2},
        {"slot closed to a hole", {{0, 0, 7}, {20, 0, 7}, {20, 20, 7}, {10.5f, 20, 7}, {10.5f, 16, 7}, {16, 16, 7},
                                   {16, 4, 7}, {4, 4, 7}, {4, 16, 7}, {9.5f, 16, 7}, {9.5f, 20, 7}, {0, 20, 7}}, 1.0f, 2},
        {"dem contour grown", dem, 2.0f, 1},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        ASSERT_TRUE(bg::is_valid(AsMulti(c.outline)));
        BMulti expected;
        const double d = c.distance;
        bg::buffer(AsMulti(c.outline), expected, bg::strategy::buffer::distance_symmetric<double>(d),
                   bg::strategy::buffer::side_straight(), bg::strategy::buffer::join_round(720),
                   bg::strategy::buffer::end_round(720), bg::strategy::buffer::point_circle(720));
        CSSE3dPolygon p;
        Fill(p, c.outline);
        const std::vector<CSSE3dPolygon> grown = p.DilateExact(c.distance);
        const BMulti ours = AsMulti(grown);
        double length = 0.0;
        for (const CSSE3dPolygon& g : grown) {
            length += g.CalcCircumference();
            for (const P3& q : Points(g))
                ASSERT_EQ(q.z, c.name[0] == 'd' ? q.z : 7.0f) << c.name; // z carried along
        }
        size_t rings = 0;
        for (const BPolygon& q : expected)
            rings += 1 + q.inners().size();
        EXPECT_EQ(rings, c.pieces) << c.name;
        EXPECT_EQ(grown.size(), rings) << c.name;
        const double tolerance = 0.0012 * std::fabs(d) + 1e-3;
        EXPECT_NEAR(bg::area(ours), bg::area(expected), tolerance * length) << c.name;
        EXPECT_LE(OutlineHausdorff(ours, expected), tolerance) << c.name;
    }
}

TEST(PolygonBooleans, OverlapAndMergeMatchBoost)
{
    struct Case {
        const char* name;
        Pts a, b;
        bool merges;
    } cases[] = {
        {"stars", Star(4, 300), Star(5, 300, 25, 10), true},
        {"combs crossed", Comb(6), Ccw({{1, -3, 0}, {23, 2, 0}, {22, 9, 0}, {0, 6, 0}}), true},
        {"comb and star", Comb(6, -12), Star(6, 50, 0, 3), true},
        {"shared edge", {{0, 0, 1}, {4, 0, 1}, {4, 3, 1}, {0, 3, 1}}, {{4, 0, 2}, {9, 0, 2}, {9, 3, 2}, {4, 3, 2}}, true},
        {"touching vertex", {{0, 0, 1}, {4, 0, 1}, {4, 3, 1}, {0, 3, 1}}, {{4, 3, 2}, {9, 3, 2}, {9, 6, 2}, {4, 6, 2}}, false},
        {"apart", Star(7, 40), Star(8, 40, 200, 0), false},
        {"dem and star", Dem(), Star(9, 200, Dem()[0].x, Dem()[0].y), true},
    };
    for (const Case& c : cases) {
        ASSERT_TRUE(bg::is_valid(AsMulti(c.a)) && bg::is_valid(AsMulti(c.b))) << c.name;
        CSSE3dPolygon a, b;
        Fill(a, c.a);
        Fill(b, c.b);
        const double perimeter = a.CalcCircumference() + b.CalcCircumference();
        BMulti expected;
        bg::intersection(AsMulti(c.a), AsMulti(c.b), expected);
        std::vector<qzsse::PolygonCrossing> crossings;
        std::vector<CSSE3dPolygon> overlap;
        EXPECT_EQ(a.FindIntersectionWithAnotherPolygon(b, crossings, overlap), bg::area(expected) > 0) << c.name;
        EXPECT_LE(SymmetricDifferenceArea(AsMulti(overlap), expected), 1e-4 * perimeter) << c.name;

        expected.clear();
        bg::union_(AsMulti(c.a), AsMulti(c.b), expected);
        CSSE3dPolygon merged;
        ASSERT_EQ(merged.CreateMergePolygon(a, b), c.merges) << c.name;
        ASSERT_EQ(expected.size(), c.merges ? 1u : 2u) << c.name;
        if (c.merges) {
            expected[0].inners().clear();
            EXPECT_LE(SymmetricDifferenceArea(AsMulti(Points(merged)), expected), 1e-4 * perimeter) << c.name;
            EXPECT_GT(merged.CalcXYArea(), 0) << c.name;
        }
    }
}

// Random stars are in general position, so the outlines' shared points are proper crossings
// that Boost finds too; each must lie on both edges at the parameters given.
TEST(PolygonBooleans, CrossingsMatchBoostAndTheirEdges)
{
    for (unsigned seed = 10; seed < 16; ++seed) {
        const Pts a = Star(seed, 150), b = Star(seed + 100, 150, 15, -8);
        bg::model::multi_point<BPoint> expected;
        bg::intersection(AsLine(a, true), AsLine(b, true), expected);
        CSSE3dPolygon pa, pb;
        Fill(pa, a);
        Fill(pb, b);
        std::vector<qzsse::PolygonCrossing> crossings;
        std::vector<CSSE3dPolygon> overlap;
        pa.FindIntersectionWithAnotherPolygon(pb, crossings, overlap);
        ASSERT_EQ(crossings.size(), expected.size()) << seed;
        for (const qzsse::PolygonCrossing& c : crossings) {
            double nearest = 1e9;
            for (const BPoint& e : expected)
                nearest = std::min(nearest, static_cast<double>(bg::distance(e, BPoint(c.x, c.y))));
            EXPECT_LT(nearest, 1e-3) << seed;
            const auto onEdge = [&](const Pts& o, int edge, float t) {
                const P3 p = o[size_t(edge)], q = o[(size_t(edge) + 1) % o.size()];
                return std::hypot(p.x + t * (q.x - p.x) - c.x, p.y + t * (q.y - p.y) - c.y);
            };
            EXPECT_LT(onEdge(a, c.edge, c.t), 1e-3) << seed;
            EXPECT_LT(onEdge(b, c.otherEdge, c.otherT), 1e-3) << seed;
        }
    }
}

TEST(PolygonCreateFromCutPolygones, ReassemblesShuffledReversedPieces)
{
    std::mt19937 rng(21);
    for (const Pts& outline : {Star(30, 90), Comb(4), Dem()}) {
        for (int trial = 0; trial < 4; ++trial) {
            const size_t n = outline.size();
            std::vector<size_t> cuts{0};
            for (int k = 0; k < 5; ++k)
                cuts.push_back(1 + rng() % (n - 1));
            std::sort(cuts.begin(), cuts.end());
            cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
            std::vector<CSSE3dPolygon> pieces(cuts.size());
            for (size_t k = 0; k < cuts.size(); ++k) {
                const size_t end = k + 1 < cuts.size() ? cuts[k + 1] : n;
                Pts piece(outline.begin() + long(cuts[k]), outline.begin() + long(std::min(end, n - 1)) + 1);
                if (end == n)
                    piece.push_back(outline[0]);
                piece.back().x += 0.0015f; // the cut left the ends a little apart
                if (rng() & 1)
                    std::reverse(piece.begin(), piece.end());
                Fill(pieces[k], piece);
            }
            std::shuffle(pieces.begin(), pieces.end(), rng);
            CSSE3dPolygon p;
            ASSERT_TRUE(p.CreateFromCutPolygones(pieces));
            EXPECT_EQ(p.GetNumPoints(), int(n));
            EXPECT_GT(p.CalcXYArea(), 0);
            EXPECT_LE(SymmetricDifferenceArea(AsMulti(Points(p)), AsMulti(outline)), 0.002 * p.CalcCircumference());

            // One end moved beyond the tolerance: nothing changes.
            Fill(pieces[1], [&] { Pts q = Points(pieces[1]); q.back().y += 0.01f; return q; }());
            const Pts before = Points(p);
            EXPECT_FALSE(p.CreateFromCutPolygones(pieces));
            EXPECT_EQ(Points(p), before);
        }
    }
}
