// Simplification, median filter, dilation, overlap, merge and assembly of polygons against
// Boost.Geometry, on random stars, combs (collinear runs along the base), touching and shared
// edges, splitting and hole-making shapes and a contour of the sample elevation grid.

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
        l.push_back(l.front());
    return l;
}

BMulti AsMulti(const Pts& o)
{
    BMulti m;
    m.resize(1);
    for (const P3& p : o)
        m[0].outer().push_back({p.x, p.y});
    bg::correct(m);
    return m;
}

// Outlines as the dilation and the overlap return them: an outer, then its holes.
BMulti AsMulti(const std::vector<CSSE3dPolygon>& outlines)
{
    BMulti m;
    for (const CSSE3dPolygon& o : outlines) {
        const bool hole = o.CalcXYArea() < 0;
        if (!hole)
            m.emplace_back();
        auto& ring = hole ? m.back().inners().emplace_back() : m.back().outer();
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

// Largest distance from a vertex of either to the outlines of the other.
double OutlineHausdorff(const BMulti& a, const BMulti& b)
{
    const auto rings = [](const BMulti& m) {
        bg::model::multi_linestring<BLine> out;
        const auto add = [&](const auto& r) {
            out.emplace_back(r.begin(), r.end());
            out.back().push_back(r.front());
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

// Teeth 2 wide, 2 apart and 10 high on a base 4 high whose bottom has a point every unit.
Pts Comb(int teeth, float x0 = 0)
{
    Pts o;
    for (int k = 0; k <= 4 * teeth; ++k)
        o.push_back({x0 + static_cast<float>(k), 0, 7});
    for (int k = teeth - 1; k >= 0; --k) {
        const float x = x0 + 4.0f * static_cast<float>(k) + 2.0f;
        for (const auto& [dx, y] : {std::pair{2.0f, 4.0f}, {2.0f, 14.0f}, {0.0f, 14.0f}, {0.0f, 4.0f}})
            o.push_back({x + dx, y, 7});
    }
    return o;
}

// The jacksboro grid's contour at 816 through the first crossing of row 220, z the index.
// Pixel chains go out and back along one-pixel spurs; without them this one is simple.
const Pts& Dem()
{
    static const Pts o = [] {
        const auto grid = qzsse::detail::ReadNpy(std::filesystem::path(__FILE__).parent_path().parent_path() /
                                                 "storage" / "data" / "jacksboro_fault_dem.npy");
        CSSEMatrix m;
        m.Create(grid.width, grid.height);
        for (int y = 0; y < grid.height; ++y)
            for (int x = 0; x < grid.width; ++x)
                m.SetPoint(x, y, grid.at(x, y));
        int x = 4;
        while (!(grid.at(x, 220) >= 816.0f && grid.at(x - 1, 220) < 816.0f))
            ++x;
        CPixelChain chain;
        chain.CreatePixelChain(&m, 816.0f, x, 220, 100000, true, true, 0);
        CSSE3dPolygon p(chain, 1);
        p.RemoveEqualPointsXY();
        BMulti ring = AsMulti(Points(p));
        bg::remove_spikes(ring);
        Pts out;
        for (const BPoint& q : ring[0].outer())
            out.push_back({float(q.x()), float(q.y()), float(out.size())});
        return out;
    }();
    return o;
}

} // namespace

TEST(PolygonReducePoints, KeepsThePointsBoostSimplifyKeeps)
{
    ASSERT_GT(Dem().size(), 400u);
    for (const Pts& o : {Star(1, 400), Comb(6), Dem()})
        for (const float deviation : {0.4f, 1.5f, 6.0f})
            for (const bool closed : {false, true}) {
                // Closed: two open runs, split at point 0 and the point farthest from it.
                size_t far = o.size() - 1;
                Pts ring = o;
                if (closed) {
                    const BPoint first(o[0].x, o[0].y);
                    far = 0;
                    for (size_t i = 1; i < o.size(); ++i)
                        if (bg::distance(BPoint(o[i].x, o[i].y), first) > bg::distance(BPoint(o[far].x, o[far].y), first))
                            far = i;
                    ring.push_back(o[0]);
                }
                Pts expected;
                for (const auto& [a, b] : {std::pair{size_t(0), far}, std::pair{far, ring.size() - 1}}) {
                    if (a == b)
                        continue;
                    BLine kept;
                    bg::simplify(AsLine(Pts(ring.begin() + long(a), ring.begin() + long(b) + 1), false), kept, deviation);
                    // Back to the source points (z included) in order, the shared end once.
                    for (size_t k = expected.empty() ? 0 : 1, at = a; k < kept.size(); ++k) {
                        while (k + 1 == kept.size() ? at != b : ring[at].x != kept[k].x() || ring[at].y != kept[k].y())
                            ++at;
                        expected.push_back(ring[at]);
                    }
                }
                if (closed)
                    expected.pop_back();
                CSSE3dPolygon p;
                Fill(p, o);
                p.ReducePoints(deviation, closed);
                EXPECT_TRUE(Points(p) == expected) << o.size() << " " << deviation << " closed " << closed;
            }
}

TEST(PolygonFilterMedian3, EachCoordinateBecomesTheMedianOfItsNeighbourhood)
{
    const Pts in{{0, 5, 1}, {4, 1, 9}, {2, 8, 3}, {9, 0, 2}, {1, 3, 3}};
    for (const auto& [closed, expected] : {std::pair{false, Pts{{0, 5, 1}, {2, 5, 3}, {4, 1, 3}, {2, 3, 3}, {1, 3, 3}}},
                                           std::pair{true, Pts{{1, 3, 3}, {2, 5, 3}, {4, 1, 3}, {2, 3, 3}, {1, 3, 2}}}}) {
        CSSE3dPolygon p;
        Fill(p, in);
        p.CalcBoundingBox();
        p.FilterMedian3(closed);
        EXPECT_EQ(Points(p), expected) << closed;
        EXPECT_FALSE(p.IsBoundingBoxCalculated());
    }
}

// Boost's rounds have 720 points per circle, ours stay within 0.001 |d| of the arc: outlines
// within 0.0012 |d| + 0.001 of each other, areas within that times the outline length.
TEST(PolygonDilateExact, MatchesBoostBuffer)
{
    CSSE3dPolygon reduced; // fewer points keep the quadratic outline distance short
    Fill(reduced, Dem());
    reduced.ReducePoints(0.5f, true);
    const Pts dumbbell{{0, 0, 7},  {10, 0, 7},  {10, 4, 7},  {14, 4, 7}, {14, 0, 7}, {24, 0, 7},
                       {24, 10, 7}, {14, 10, 7}, {14, 6, 7}, {10, 6, 7}, {10, 10, 7}, {0, 10, 7}};
    const Pts slot{{0, 0, 7},  {20, 0, 7}, {20, 20, 7}, {10.5f, 20, 7}, {10.5f, 16, 7}, {16, 16, 7},
                   {16, 4, 7}, {4, 4, 7},  {4, 16, 7},  {9.5f, 16, 7},  {9.5f, 20, 7},  {0, 20, 7}};
    const struct {
        Pts outline;
        float distance;
        size_t rings; // outer outlines and holes
    } cases[] = {{Star(2, 80), 4.0f, 1},   {Star(3, 80), -3.0f, 1}, {Comb(5), 0.6f, 1},   {Comb(5), 1.5f, 1},
                 {Comb(5), -1.2f, 1},      {dumbbell, -1.5f, 2},    {slot, 1.0f, 2},      {Points(reduced), 2.0f, 1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.outline.size() << " points, distance " << c.distance);
        BMulti expected;
        namespace bs = bg::strategy::buffer;
        bg::buffer(AsMulti(c.outline), expected, bs::distance_symmetric<double>(c.distance), bs::side_straight(),
                   bs::join_round(720), bs::end_round(720), bs::point_circle(720));
        size_t rings = 0;
        for (const BPolygon& q : expected)
            rings += 1 + q.inners().size();
        ASSERT_EQ(rings, c.rings);

        CSSE3dPolygon p;
        Fill(p, c.outline);
        const std::vector<CSSE3dPolygon> grown = p.DilateExact(c.distance);
        ASSERT_EQ(grown.size(), c.rings);
        double length = 0.0;
        for (const CSSE3dPolygon& g : grown) {
            length += g.CalcCircumference();
            for (const P3& q : Points(g))
                ASSERT_TRUE(q.z == 7.0f || c.outline[0].z != 7.0f); // z carried along
        }
        const double tolerance = 0.0012 * std::fabs(c.distance) + 1e-3;
        EXPECT_NEAR(bg::area(AsMulti(grown)), bg::area(expected), tolerance * length);
        EXPECT_LE(OutlineHausdorff(AsMulti(grown), expected), tolerance);
    }
}

// The clipping rounds far below 1e-4 per unit of outline length.
TEST(PolygonBooleans, OverlapAndMergeMatchBoost)
{
    const Pts box{{0, 0, 1}, {4, 0, 1}, {4, 3, 1}, {0, 3, 1}};
    const struct {
        Pts a, b;
        bool merges;
    } cases[] = {
        {Star(4, 300), Star(5, 300, 25, 10), true},
        {Comb(6), {{1, -3, 0}, {23, 2, 0}, {22, 9, 0}, {0, 6, 0}}, true},
        {Comb(6, -12), Star(6, 50, 0, 3), true},
        {box, {{4, 0, 2}, {9, 0, 2}, {9, 3, 2}, {4, 3, 2}}, true},  // shared edge
        {box, {{4, 3, 2}, {9, 3, 2}, {9, 6, 2}, {4, 6, 2}}, false}, // touching corners
        {Star(7, 40), Star(8, 40, 200, 0), false},
        {Dem(), Star(9, 200, Dem()[0].x, Dem()[0].y), true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.a.size() << " and " << c.b.size() << " points");
        ASSERT_TRUE(bg::is_valid(AsMulti(c.a)) && bg::is_valid(AsMulti(c.b)));
        CSSE3dPolygon a, b;
        Fill(a, c.a);
        Fill(b, c.b);
        const double tolerance = 1e-4 * (a.CalcCircumference() + b.CalcCircumference());
        BMulti expected;
        bg::intersection(AsMulti(c.a), AsMulti(c.b), expected);
        std::vector<qzsse::PolygonCrossing> crossings;
        std::vector<CSSE3dPolygon> overlap;
        EXPECT_EQ(a.FindIntersectionWithAnotherPolygon(b, crossings, overlap), bg::area(expected) > 0);
        EXPECT_LE(SymmetricDifferenceArea(AsMulti(overlap), expected), tolerance);

        expected.clear();
        bg::union_(AsMulti(c.a), AsMulti(c.b), expected);
        ASSERT_EQ(expected.size(), c.merges ? 1u : 2u);
        CSSE3dPolygon merged;
        ASSERT_EQ(merged.CreateMergePolygon(a, b), c.merges);
        if (c.merges) {
            expected[0].inners().clear();
            EXPECT_GT(merged.CalcXYArea(), 0);
            for (const P3& v : Points(merged)) { // input vertices keep their z
                Pts at;
                for (const Pts* o : {&c.a, &c.b})
                    std::copy_if(o->begin(), o->end(), std::back_inserter(at),
                                 [&](const P3& q) { return q.x == v.x && q.y == v.y; });
                EXPECT_TRUE(at.empty() || std::count(at.begin(), at.end(), v)) << v.x << " " << v.y << " " << v.z;
            }
            EXPECT_LE(SymmetricDifferenceArea(AsMulti(Points(merged)), expected), tolerance);
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
        const auto onEdge = [](const Pts& o, int edge, float t, const BPoint& c) {
            const P3 p = o[size_t(edge)], q = o[(size_t(edge) + 1) % o.size()];
            return bg::distance(BPoint(p.x + t * (q.x - p.x), p.y + t * (q.y - p.y)), c);
        };
        for (const qzsse::PolygonCrossing& c : crossings) {
            const BPoint at(c.x, c.y);
            EXPECT_LT(bg::distance(at, expected), 1e-3) << seed;
            EXPECT_LT(onEdge(a, c.edge, c.t, at), 1e-3) << seed;
            EXPECT_LT(onEdge(b, c.otherEdge, c.otherT, at), 1e-3) << seed;
        }
    }
}

// Cut at random points into pieces sharing their ends, each end moved by 0.0015, shuffled and
// some reversed: the same region comes back (within 0.002 per unit of outline length).
TEST(PolygonCreateFromCutPolygones, ReassemblesShuffledReversedPieces)
{
    std::mt19937 rng(21);
    for (const Pts& outline : {Star(30, 90), Comb(4), Dem()})
        for (int trial = 0; trial < 4; ++trial) {
            const size_t n = outline.size();
            std::vector<size_t> cuts{0, n};
            for (int k = 0; k < 5; ++k)
                cuts.push_back(1 + rng() % (n - 1));
            std::sort(cuts.begin(), cuts.end());
            cuts.erase(std::unique(cuts.begin(), cuts.end()), cuts.end());
            std::vector<CSSE3dPolygon> pieces(cuts.size() - 1);
            for (size_t k = 0; k + 1 < cuts.size(); ++k) {
                Pts piece;
                for (size_t i = cuts[k]; i <= cuts[k + 1]; ++i)
                    piece.push_back(outline[i % n]);
                piece.back().x += 0.0015f;
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

            Pts moved = Points(pieces[1]); // one end beyond the tolerance: nothing changes
            moved.back().y += 0.01f;
            Fill(pieces[1], moved);
            const Pts before = Points(p);
            EXPECT_FALSE(p.CreateFromCutPolygones(pieces));
            EXPECT_EQ(Points(p), before);
        }
}
