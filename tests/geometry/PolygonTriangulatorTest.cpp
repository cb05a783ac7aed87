#include <algorithm>
#include <array>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "qzsse/geometry/CHPolygonTriangulator.h"
#include "qzsse/geometry/detail/EarClippingEdgeIndex.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

struct XY {
    double x, y;
};

// Star-shaped around the origin (sorted random angles, random radii), so simple and
// counter-clockwise. Each angle is drawn within its own sector so that no gap reaches pi and
// the origin stays in the kernel.
std::vector<XY> StarPolygon(std::mt19937& rng, int n)
{
    std::uniform_real_distribution<double> jitter(0, 0.4);
    std::uniform_real_distribution<double> radius(20, 100);
    std::vector<double> angles(static_cast<size_t>(n));
    for (int k = 0; k < n; ++k)
        angles[static_cast<size_t>(k)] = (k + jitter(rng)) * 2 * std::numbers::pi / n;
    std::vector<XY> out;
    for (double a : angles) {
        const double r = radius(rng);
        out.push_back({static_cast<float>(r * std::cos(a)), static_cast<float>(r * std::sin(a))});
    }
    return out;
}

void Fill(CSSE2dPolygon& polygon, const std::vector<XY>& points)
{
    polygon.Create(static_cast<int>(points.size()));
    for (int i = 0; i < static_cast<int>(points.size()); ++i)
        polygon.SetPoint(i, static_cast<float>(points[i].x), static_cast<float>(points[i].y));
}

double Cross(XY a, XY b, XY c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

double DoubledArea(const std::vector<XY>& polygon)
{
    double sum = 0;
    for (size_t i = 0; i < polygon.size(); ++i) {
        const XY a = polygon[i], b = polygon[(i + 1) % polygon.size()];
        sum += a.x * b.y - b.x * a.y;
    }
    return sum;
}

bool Inside(const std::vector<XY>& polygon, XY p)
{
    bool inside = false;
    for (size_t i = 0, j = polygon.size() - 1; i < polygon.size(); j = i++) {
        const XY a = polygon[i], b = polygon[j];
        if ((a.y > p.y) != (b.y > p.y) && p.x < (b.x - a.x) * (p.y - a.y) / (b.y - a.y) + a.x)
            inside = !inside;
    }
    return inside;
}

bool CrossesProperly(XY a, XY b, XY c, XY d)
{
    const double d1 = Cross(a, b, c), d2 = Cross(a, b, d), d3 = Cross(c, d, a), d4 = Cross(c, d, b);
    return ((d1 > 0 && d2 < 0) || (d1 < 0 && d2 > 0)) && ((d3 > 0 && d4 < 0) || (d3 < 0 && d4 > 0));
}

// Opens the diagonal records, whose convexity marks have no public reader.
struct MarkedTriangulator : CHPolygonTriangulator {
    explicit MarkedTriangulator(CSSE2dPolygon* polygon, bool flag = false)
        : CHPolygonTriangulator(polygon, 1, 1.0f, 1.0f, flag)
    {
    }
    MarkedTriangulator(CSSE3dPolygon* polygon, int step, float sx, float sy, float sz)
        : CHPolygonTriangulator(polygon, step, sx, sy, sz, false)
    {
    }
    const qzsse::detail::PolygonDiagonal& DiagonalRecord(int i) const { return m_pDiagonals[i]; }
};

// Replays the cuts on a plain index cycle: each triangle must be an ear of what remains, the
// triangles must tile the polygon, its diagonal must run inside, and the convexity marks must
// describe the two diagonal ends just before the cut.
void ExpectValidEarClipping(const MarkedTriangulator& t, const std::vector<XY>& polygon)
{
    const int n = static_cast<int>(polygon.size());
    ASSERT_EQ(t.GetNumTriangles(), n - 2);
    ASSERT_EQ(t.GetNumDiagonals(), n - 2);
    std::vector<int> cycle(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        cycle[static_cast<size_t>(i)] = i;
    double areaSum = 0;
    for (int k = 0; k < t.GetNumTriangles(); ++k) {
        int p = -1, v = -1, q = -1;
        ASSERT_TRUE(t.GetTriangle(k, p, v, q));
        const auto at = std::find(cycle.begin(), cycle.end(), v);
        ASSERT_NE(at, cycle.end());
        const size_t m = cycle.size(), pos = static_cast<size_t>(at - cycle.begin());
        ASSERT_EQ(cycle[(pos + m - 1) % m], p);
        ASSERT_EQ(cycle[(pos + 1) % m], q);
        const XY P = polygon[p], V = polygon[v], Q = polygon[q];
        const double area = Cross(P, V, Q);
        EXPECT_GT(area, 0) << "triangle " << k;
        areaSum += area;

        ASSERT_TRUE(t.DiagonalExists(k));
        float x1 = 0, y1 = 0, x2 = 0, y2 = 0;
        t.GetDiagonalPoints(k, x1, y1, x2, y2);
        EXPECT_EQ(x1, static_cast<float>(P.x));
        EXPECT_EQ(y2, static_cast<float>(Q.y));
        // Marks: convexity of p and q just before the cut (skipped when nearly straight, where
        // the 0.0005 tolerance decides).
        const XY pp = polygon[cycle[(pos + m - 2) % m]], qq = polygon[cycle[(pos + 2) % m]];
        if (std::abs(Cross(pp, P, V)) > 0.001) {
            EXPECT_EQ(t.DiagonalRecord(k).bFirstConvex, Cross(pp, P, V) > 0) << "diagonal " << k;
        }
        if (std::abs(Cross(V, Q, qq)) > 0.001) {
            EXPECT_EQ(t.DiagonalRecord(k).bSecondConvex, Cross(V, Q, qq) > 0) << "diagonal " << k;
        }
        if (m > 3) {
            EXPECT_TRUE(Inside(polygon, {(P.x + Q.x) / 2, (P.y + Q.y) / 2})) << "diagonal " << k;
            for (int e = 0; e < n; ++e)
                EXPECT_FALSE(CrossesProperly(P, Q, polygon[e], polygon[(e + 1) % n])) << "diagonal " << k;
        }
        cycle.erase(at);
    }
    EXPECT_NEAR(areaSum, DoubledArea(polygon), 1e-6 * std::abs(DoubledArea(polygon)));
    EXPECT_FALSE(t.DiagonalExists(n - 2));
    EXPECT_FALSE(t.DiagonalExists(-1));
}

}  // namespace

TEST(PolygonTriangulator, ClipsRandomStarPolygonsIntoTheirArea)
{
    std::mt19937 rng(99);
    for (const int n : {4, 5, 8, 30, 200}) {
        for (int trial = 0; trial < 6; ++trial) {
            const auto polygon = StarPolygon(rng, n);
            CSSE2dPolygon source;
            Fill(source, polygon);
            for (const bool flag : {false, true}) {
                const MarkedTriangulator t(&source, flag);
                SCOPED_TRACE(testing::Message() << "n " << n << " trial " << trial << " flag " << flag);
                ExpectValidEarClipping(t, polygon);
                EXPECT_FALSE(t.Is3DTriangulation());
            }
        }
    }
}

TEST(PolygonTriangulator, MarksDiagonalEndsByTheirConvexity)
{
    // Counter-clockwise arrow whose notch vertex 3 at (2, 1) is reflex. The head's diagonal and
    // that of vertex 1 both run through the notch, so vertex 2 is the first ear, leaving the
    // diagonal 1-3 with a convex and a reflex end.
    const std::vector<XY> arrow = {{0, 0}, {4, 0}, {4, 4}, {2, 1}, {0, 4}};
    CSSE2dPolygon source;
    Fill(source, arrow);
    const MarkedTriangulator t(&source);
    ExpectValidEarClipping(t, arrow);
    int p, v, q;
    ASSERT_TRUE(t.GetTriangle(0, p, v, q));
    EXPECT_EQ(std::vector<int>({p, v, q}), std::vector<int>({1, 2, 3}));
    EXPECT_TRUE(t.DiagonalRecord(0).bFirstConvex);
    EXPECT_FALSE(t.DiagonalRecord(0).bSecondConvex);

    // A straight end counts as convex: cutting the head of this square leaves the diagonal
    // 4-1 whose end 1 sits in the middle of the bottom side.
    const std::vector<XY> square = {{0, 0}, {2, 0}, {4, 0}, {4, 4}, {0, 4}};
    Fill(source, square);
    const MarkedTriangulator straight(&source);
    ASSERT_TRUE(straight.GetTriangle(0, p, v, q));
    EXPECT_EQ(std::vector<int>({p, v, q}), std::vector<int>({4, 0, 1}));
    EXPECT_TRUE(straight.DiagonalRecord(0).bFirstConvex);
    EXPECT_TRUE(straight.DiagonalRecord(0).bSecondConvex);
}

TEST(PolygonTriangulator, FlagMovesWhereTheEarSearchStarts)
{
    const std::vector<XY> hexagon = {{2, 0}, {4, 1}, {4, 3}, {2, 4}, {0, 3}, {0, 1}};
    CSSE2dPolygon source;
    Fill(source, hexagon);
    int a, b, c;
    CHPolygonTriangulator fromHead(&source, 1, 1.0f, 1.0f, false);
    ASSERT_TRUE(fromHead.GetTriangle(0, a, b, c));
    EXPECT_EQ(std::vector<int>({a, b, c}), std::vector<int>({5, 0, 1}));
    CHPolygonTriangulator fromNext(&source, 1, 1.0f, 1.0f, true);
    ASSERT_TRUE(fromNext.GetTriangle(0, a, b, c));
    EXPECT_EQ(std::vector<int>({a, b, c}), std::vector<int>({0, 1, 2}));
    EXPECT_FALSE(fromNext.GetTriangle(4, a, b, c));
}

TEST(PolygonTriangulator, StepAndScalesSelectAndStretchPoints)
{
    // Odd points are wild spikes that would make the polygon self-intersecting; step 2 skips
    // them, and the 13th point is a remainder that is dropped.
    std::mt19937 rng(7);
    const auto star = StarPolygon(rng, 6);
    CSSE3dPolygon source;
    source.Create(13);
    for (int i = 0; i < 6; ++i) {
        source.SetPoint(2 * i, static_cast<float>(star[i].x), static_cast<float>(star[i].y), 10.0f + i);
        source.SetPoint(2 * i + 1, 500.0f * (i % 2 ? 1 : -1), -300.0f, 0.0f);
    }
    source.SetPoint(12, 1000.0f, 1000.0f, 0.0f);
    const MarkedTriangulator t(&source, 2, 2.0f, 3.0f, 0.5f);
    EXPECT_TRUE(t.Is3DTriangulation());
    EXPECT_EQ(t.GetScaleZ(), 0.5f);
    std::vector<XY> scaled;
    for (const XY& p : star)
        scaled.push_back({static_cast<float>(p.x) * 2.0f, static_cast<float>(p.y) * 3.0f});
    ExpectValidEarClipping(t, scaled);
    for (int k = 0; k < t.GetNumTriangles(); ++k) {
        int a, b, c;
        SSEPoint A, B, C;
        t.GetTriangle(k, a, b, c);
        ASSERT_TRUE(t.GetTriangle3D(k, A, B, C));
        EXPECT_EQ(A.x, static_cast<float>(star[a].x));
        EXPECT_EQ(B.y, static_cast<float>(star[b].y));
        EXPECT_EQ(C.z, 10.0f + c);
    }
    SSEPoint A, B, C;
    EXPECT_FALSE(t.GetTriangle3D(t.GetNumTriangles(), A, B, C));
}

TEST(PolygonTriangulator, DegenerateInputsGiveNothingOrStopEarly)
{
    CSSE2dPolygon two;
    Fill(two, {{0, 0}, {1, 0}});
    CHPolygonTriangulator none(&two, 1, 1.0f, 1.0f, false);
    int a, b, c;
    SSEPoint A, B, C;
    EXPECT_EQ(none.GetNumTriangles(), 0);
    EXPECT_EQ(none.GetNumDiagonals(), 0);
    EXPECT_FALSE(none.DiagonalExists(0));
    EXPECT_FALSE(none.GetTriangle(0, a, b, c));
    EXPECT_FALSE(none.GetTriangle3D(0, A, B, C));
    float x = -1, y = -1;
    none.GetDiagonalPoints(0, x, y, x, y);
    EXPECT_EQ(x, -1.0f);

    // A lone triangle has no ear: the cone test at a corner sees the far corner as its own
    // neighbour, which is never strictly left.
    CSSE2dPolygon triangle;
    Fill(triangle, {{0, 0}, {4, 0}, {0, 4}});
    EXPECT_EQ(CHPolygonTriangulator(&triangle, 1, 1.0f, 1.0f, false).GetNumTriangles(), 0);

    // Swapping two far-apart vertices of a star makes its outline cross itself.
    std::mt19937 rng(3);
    int stoppedEarly = 0;
    for (int trial = 0; trial < 10; ++trial) {
        auto star = StarPolygon(rng, 40);
        std::swap(star[5], star[25]);
        CSSE2dPolygon source;
        Fill(source, star);
        CHPolygonTriangulator t(&source, 1, 1.0f, 1.0f, false);
        EXPECT_LE(t.GetNumTriangles(), 38);
        stoppedEarly += t.GetNumTriangles() < 38;
    }
    EXPECT_EQ(stoppedEarly, 10);
}

namespace {

// Outlines meant to stress the edge scan: tolerance-sized slivers, collinear runs on awkward
// coordinates, near-duplicate points, nearly vertical short edges, crossings and integer combs
// (where every float judgement is exact).
std::vector<XY> AwkwardPolygon(std::mt19937& rng, int kind, int n)
{
    std::uniform_real_distribution<double> unit(0, 1);
    std::vector<XY> out;
    switch (kind) {
    case 0:
        return StarPolygon(rng, n);
    case 1: {  // Star whose vertices snap to a coarse grid: many exact and near collinearities.
        for (const XY& p : StarPolygon(rng, n))
            out.push_back({std::round(p.x / 10) * 0.1 + 1000.3, std::round(p.y / 10) * 0.7 - 300.1});
        return out;
    }
    case 2: {  // Square with collinear runs on its sides and a slanted run, far from the origin.
        const int side = std::max(1, n / 5);
        for (int k = 0; k < side; ++k)
            out.push_back({1234.5 + 0.3 * k * 10 / side, 777.7});
        for (int k = 0; k < side; ++k)
            out.push_back({1237.5 + 0.3 * k * 10 / side, 777.7 + 0.7 * k * 10 / side});
        for (int k = 0; k < side; ++k)
            out.push_back({1240.5, 784.7 + 0.1 * k * 10 / side});
        for (int k = 0; k < side; ++k)
            out.push_back({1240.5 - 0.6 * k * 10 / side, 785.7});
        out.push_back({1234.5, 785.7});
        return out;
    }
    case 3: {  // Star with short, nearly vertical zigzags of a tolerance's width.
        for (const XY& p : StarPolygon(rng, n)) {
            out.push_back({p.x * 0.01, p.y * 0.01});
            if (unit(rng) < 0.3)
                out.push_back({p.x * 0.01 + 0.0001 * (unit(rng) - 0.5), p.y * 0.01 + 0.002 * unit(rng)});
        }
        return out;
    }
    case 4: {  // Near-duplicate points.
        for (const XY& p : StarPolygon(rng, n)) {
            out.push_back(p);
            if (unit(rng) < 0.3)
                out.push_back({p.x + 1e-5 * unit(rng), p.y});
        }
        return out;
    }
    case 5: {  // A star with two vertices swapped: crosses itself.
        out = StarPolygon(rng, n);
        std::swap(out[static_cast<size_t>(n / 5)], out[static_cast<size_t>(n / 2)]);
        return out;
    }
    case 6: {  // Comb of integer teeth, 1 wide and 1 apart, of random heights.
        const int teeth = std::max(1, n / 4);
        std::uniform_int_distribution<int> height(5, 60);
        out = {{0, -10}, {2.0 * teeth, -10}};
        for (int t = teeth - 1; t >= 0; --t) {
            const double h = height(rng);
            out.insert(out.end(), {{2.0 * t + 1, 0}, {2.0 * t + 1, h}, {2.0 * t, h}, {2.0 * t, 0}});
        }
        return out;
    }
    default: {  // Random points on a small integer grid in random order.
        std::uniform_int_distribution<int> cell(0, 6);
        for (int k = 0; k < n; ++k)
            out.push_back({cell(rng) * 0.5, cell(rng) * 0.5});
        return out;
    }
    }
}

// Re-links the whole outline so that single diagonal queries can be made on it.
struct ScanProbe : CHPolygonTriangulator {
    explicit ScanProbe(CSSE2dPolygon* polygon) : CHPolygonTriangulator(polygon, 1, 1.0f, 1.0f, false)
    {
        for (int i = 0; i < m_nNumVertices; ++i) {
            m_pVertices[i].next = &m_pVertices[(i + 1) % m_nNumVertices];
            m_pVertices[i].prev = &m_pVertices[(i + m_nNumVertices - 1) % m_nNumVertices];
        }
        m_pHead = &m_pVertices[0];
    }
    const t_hvertex* Vertex(int i) const { return &m_pVertices[i]; }
};

struct Outcome {
    std::vector<int> triangles;
    std::vector<int> diagonals;
};

// Both runs: the one in the constructor and a repeated one on the clipped remainder.
Outcome Clip(CSSE2dPolygon& source, int step, bool flag, bool direct, float scale = 1.0f)
{
    qzsse::detail::g_bDirectEarClipping = direct;
    struct Open : CHPolygonTriangulator {
        using CHPolygonTriangulator::CHPolygonTriangulator;
        void Append(Outcome& out) const
        {
            for (int k = 0; k < m_nNumTriangles; ++k)
                out.triangles.insert(out.triangles.end(), {m_pTriangles[k].a, m_pTriangles[k].b, m_pTriangles[k].c});
            for (int k = 0; k < m_nNumDiagonals; ++k) {
                const auto& d = m_pDiagonals[k];
                out.diagonals.insert(out.diagonals.end(),
                                     {d.bExists, d.iFirst, d.bFirstConvex, d.iSecond, d.bSecondConvex});
            }
            out.triangles.push_back(-1);
            out.diagonals.push_back(-1);
        }
    } t(&source, step, scale, scale, flag);
    Outcome out;
    t.Append(out);
    t.Triangulate();
    t.Append(out);
    qzsse::detail::g_bDirectEarClipping = false;
    return out;
}

}  // namespace

TEST(PolygonTriangulator, FilteredEdgeScanAnswersLikeTheDirectScan)
{
    std::mt19937 rng(2024);
    int diagonals = 0, queries = 0;
    for (int kind = 0; kind < 8; ++kind) {
        for (int trial = 0; trial < 8; ++trial) {
            const auto polygon = AwkwardPolygon(rng, kind, 12 + 6 * trial);
            CSSE2dPolygon source;
            Fill(source, polygon);
            const ScanProbe probe(&source);
            const int n = static_cast<int>(polygon.size());
            for (int i = 0; i < n; ++i) {
                for (int j = 0; j < n; ++j) {
                    const bool fast = probe.Diagonalie(probe.Vertex(i), probe.Vertex(j));
                    ASSERT_EQ(fast, probe.DiagonalieDirect(probe.Vertex(i), probe.Vertex(j)))
                        << "kind " << kind << " trial " << trial << " pair " << i << " " << j;
                    diagonals += fast;
                    ++queries;
                }
            }
        }
    }
    // Both answers occur often enough for the comparison to mean something.
    EXPECT_GT(diagonals, queries / 20);
    EXPECT_LT(diagonals, queries - queries / 20);
}

TEST(PolygonTriangulator, FilteredEdgeScanClipsLikeTheDirectScan)
{
    std::mt19937 rng(77);
    int stoppedEarly = 0;
    for (int kind = 0; kind < 8; ++kind) {
        for (int trial = 0; trial < 10; ++trial) {
            const auto polygon = AwkwardPolygon(rng, kind, 10 + 15 * trial);
            CSSE2dPolygon source;
            Fill(source, polygon);
            for (const int step : {1, 2}) {
                for (const bool flag : {false, true}) {
                    const float scale = std::array{1.0f, 1e-3f, 1e5f}[static_cast<size_t>(trial % 3)];
                    const Outcome fast = Clip(source, step, flag, false, scale);
                    const Outcome direct = Clip(source, step, flag, true, scale);
                    SCOPED_TRACE(testing::Message() << "kind " << kind << " trial " << trial << " step " << step
                                                    << " flag " << flag << " scale " << scale);
                    EXPECT_EQ(fast.triangles, direct.triangles);
                    EXPECT_EQ(fast.diagonals, direct.diagonals);
                    const int full = static_cast<int>(polygon.size()) / step - 2;
                    const auto firstRun = std::find(direct.triangles.begin(), direct.triangles.end(), -1);
                    stoppedEarly += static_cast<int>(firstRun - direct.triangles.begin()) / 3 < full;
                }
            }
        }
    }
    EXPECT_GT(stoppedEarly, 20);
}

namespace {

// Outlines where the float tolerance and rounding matter: runs of nearly collinear points,
// nearly vertical edges, zigzags, a ring that touches itself, and long nearly collinear
// spans where a far edge can test as touching once coordinates are large.
std::vector<XY> EdgeIndexOutline(std::mt19937& rng, int kind, int n)
{
    std::uniform_real_distribution<double> unit(0, 1);
    std::vector<XY> out;
    switch (kind) {
    case 0:  // nearly collinear run along a slanted line, closed by one far vertex
        for (int k = 0; k < n; ++k)
            out.push_back({k * 1.3, k * 0.7 + 1e-4 * (unit(rng) - 0.5)});
        out.push_back({n * 0.6, n * 3.0});
        return out;
    case 1:  // nearly vertical teeth
        for (int k = 0; k < n / 2; ++k) {
            out.push_back({k * 2.0, 0.0});
            out.push_back({k * 2.0 + 1e-5 * unit(rng), 50.0 + unit(rng)});
        }
        out.push_back({n * 1.0, 60.0});
        out.push_back({-1.0, 60.0});
        return out;
    case 2:  // zigzag of small amplitude
        for (int k = 0; k < n; ++k)
            out.push_back({k * 1.0, (k % 2) * 0.001 * unit(rng)});
        out.push_back({n * 0.5, -5.0});
        return out;
    case 3: {  // a star whose ring passes twice through one point
        out = StarPolygon(rng, n);
        out[static_cast<size_t>(n / 3)] = out[static_cast<size_t>(2 * n / 3)];
        return out;
    }
    case 4:  // two long nearly parallel lines far apart along their direction
        for (int k = 0; k < n / 2; ++k)
            out.push_back({k * 3.0 + unit(rng) * 1e-3, k * 1.0});
        for (int k = n / 2 - 1; k >= 0; --k)
            out.push_back({k * 3.0 + 1e3 + unit(rng) * 1e-3, k * 1.0 + 1e3 / 3 + 2e-3 * (unit(rng) - 0.5)});
        return out;
    default:
        return AwkwardPolygon(rng, kind - 5, n);
    }
}

// Whether any ring edge without an end in i or j meets i-j, edge by edge.
bool DirectHit(const CHSimpleBasisFcns& fcns, const std::vector<t_hvertex>& v, const std::vector<int>& next, int i,
               int j)
{
    for (int c = 0; c < static_cast<int>(v.size()); ++c) {
        const int d = next[static_cast<size_t>(c)];
        if (d < 0 || c == i || c == j || d == i || d == j)
            continue;
        if (fcns.Intersect(v[static_cast<size_t>(i)].position, v[static_cast<size_t>(j)].position,
                           v[static_cast<size_t>(c)].position, v[static_cast<size_t>(d)].position))
            return true;
    }
    return false;
}

}  // namespace

// The index against the plain scan over the ring's edges, for all vertex pairs, on the whole
// ring and after vertices were cut out one by one, at scales from 1e-3 to 1e5.
TEST(PolygonTriangulator, EdgeIndexAnswersLikeEveryEdgeScanned)
{
    const CHSimpleBasisFcns fcns;
    std::mt19937 rng(5);
    int hits = 0, farHits = 0, queries = 0;
    for (const double scale : {1e-3, 1.0, 37.0, 1e3, 1e5}) {
        for (int kind = 0; kind < 13; ++kind) {
            const auto outline = EdgeIndexOutline(rng, kind, 40);
            const int n = static_cast<int>(outline.size());
            std::vector<t_hvertex> v(static_cast<size_t>(n));
            std::vector<int> next(static_cast<size_t>(n)), prev(static_cast<size_t>(n));
            for (int k = 0; k < n; ++k) {
                v[static_cast<size_t>(k)].position = {static_cast<float>(outline[static_cast<size_t>(k)].x * scale),
                                                      static_cast<float>(outline[static_cast<size_t>(k)].y * scale)};
                next[static_cast<size_t>(k)] = (k + 1) % n;
                prev[static_cast<size_t>(k)] = (k + n - 1) % n;
            }
            qzsse::detail::EarClippingEdgeIndex index;
            ASSERT_TRUE(index.Build(v.data(), n));
            std::vector<int> alive(static_cast<size_t>(n));
            for (int k = 0; k < n; ++k)
                alive[static_cast<size_t>(k)] = k;
            while (alive.size() >= 3) {
                for (const int i : alive)
                    for (const int j : alive) {
                        const bool direct = DirectHit(fcns, v, next, i, j);
                        ASSERT_EQ(index.AnyEdgeHits(fcns, i, j), direct)
                            << "scale " << scale << " kind " << kind << " pair " << i << " " << j;
                        ++queries;
                        hits += direct;
                        if (direct) {
                            // Hits from an edge whose box is apart from the query's box: only the
                            // tolerance or the rounding can make them.
                            const t_h2dpoint a = v[static_cast<size_t>(i)].position, b = v[static_cast<size_t>(j)].position;
                            bool nearHit = false;
                            for (int c = 0; c < n && !nearHit; ++c) {
                                const int d = next[static_cast<size_t>(c)];
                                if (d < 0 || c == i || c == j || d == i || d == j)
                                    continue;
                                const t_h2dpoint pc = v[static_cast<size_t>(c)].position, pd = v[static_cast<size_t>(d)].position;
                                const bool apart = std::max(pc.x, pd.x) < std::min(a.x, b.x) ||
                                                   std::min(pc.x, pd.x) > std::max(a.x, b.x) ||
                                                   std::max(pc.y, pd.y) < std::min(a.y, b.y) ||
                                                   std::min(pc.y, pd.y) > std::max(a.y, b.y);
                                nearHit = !apart && fcns.Intersect(a, b, pc, pd);
                            }
                            farHits += !nearHit;
                        }
                    }
                // Cut random vertices, as clipping ears does; several at a time on long rings.
                for (int cuts = alive.size() > 12 ? 4 : 1; cuts > 0; --cuts) {
                    const size_t k = std::uniform_int_distribution<size_t>(0, alive.size() - 1)(rng);
                    const int cut = alive[k];
                    alive.erase(alive.begin() + static_cast<long>(k));
                    next[static_cast<size_t>(prev[static_cast<size_t>(cut)])] = next[static_cast<size_t>(cut)];
                    prev[static_cast<size_t>(next[static_cast<size_t>(cut)])] = prev[static_cast<size_t>(cut)];
                    next[static_cast<size_t>(cut)] = -1;
                    index.Remove(cut);
                }
            }
        }
    }
    EXPECT_GT(hits, queries / 20);
    EXPECT_LT(hits, queries - queries / 20);
    EXPECT_GT(farHits, 0);
}
