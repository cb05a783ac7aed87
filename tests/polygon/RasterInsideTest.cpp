// The point-in-polygon test against the plain rule and an independent library, and the
// outline drawings worked out by hand.

#include <map>
#include <utility>

#include <boost/geometry.hpp>

#include "polygon/PolygonTestUtil.h"

namespace {

const Pts kSquare10 = {{0, 0, 0}, {10, 0, 0}, {10, 10, 0}, {0, 10, 0}};

using Cells = std::map<std::pair<int, int>, float>;

// The whole matrix: the listed cells hold their values, every other cell `rest`.
void ExpectCells(const CSSEMatrix& m, const Cells& cells, float rest = 0.0f)
{
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x) {
            const auto it = cells.find({x, y});
            EXPECT_EQ(m.GetPoint(x, y), it == cells.end() ? rest : it->second) << "cell " << x << ", " << y;
        }
}

// 3x3 boxes of 2.0 around the centres.
Cells Boxes(std::initializer_list<std::pair<int, int>> centres)
{
    Cells cells;
    for (auto [cx, cy] : centres)
        for (int y = cy - 1; y <= cy + 1; ++y)
            for (int x = cx - 1; x <= cx + 1; ++x)
                cells[{x, y}] = 2.0f;
    return cells;
}

// Runs p.draw(matrix) on a fresh matrix of the given size filled with `rest`.
template <class DrawFn>
CSSEMatrix Drawn(int width, int height, DrawFn draw, float rest = 0.0f)
{
    CSSEMatrix m;
    m.Create(width, height);
    m.Fill(rest);
    draw(m);
    return m;
}

// The square (2,2) (6,2) (6,6) (2,6) traced by hand: each vertex searches away from its edge
// and marks the run up to the next plotted vertex with value + 5.
Cells SquareOutlineCells()
{
    Cells c;
    for (auto [x, y] : {std::pair{2, 2}, {6, 2}, {6, 6}, {2, 6}})
        c[{x, y}] = 1.0f;
    for (int k = 3; k <= 5; ++k) {
        c[{2, k}] = 6.0f; // from (2,2): edge right, search down column 2
        c[{k, 2}] = 6.0f; // from (6,2): edge down, search left along row 2
        c[{6, k}] = 6.0f; // from (6,6): edge left, search up column 6
        c[{k, 6}] = 6.0f; // from (2,6): edge up, search right along row 6
    }
    return c;
}

const Pts kSquare26 = {{2, 2, 0}, {6, 2, 0}, {6, 6, 0}, {2, 6, 0}};

} // namespace

// Only the bottom and top edges span x in (0, 10]; the bottom passes above points with y < 0,
// the top above points with y < 10: the bottom and right edges belong, top and left do not.
TEST(PointInPolygon, HalfOpenBoundaryConventionAndLazyBox)
{
    CSSE3dPolygon p;
    Fill(p, kSquare10);
    EXPECT_FALSE(p.IsBoundingBoxCalculated());
    const std::pair<P3, bool> cases[] = {
        {{5, 5, 0}, true},  {{5, 0, 0}, true},  {{10, 5, 0}, true}, {{10, 0, 0}, true},        {{5, 10, 0}, false},
        {{0, 5, 0}, false}, {{0, 0, 0}, false}, {{10, 10, 0}, false}, {{10.001f, 5, 0}, false}, {{5, -0.001f, 0}, false}};
    for (const auto& [q, inside] : cases)
        EXPECT_EQ(p.PointInLineInnerArea(q.x, q.y, 1), inside) << q.x << ", " << q.y;
    EXPECT_TRUE(p.IsBoundingBoxCalculated());
    SSEPoint s;
    s.m = _mm_setr_ps(10.0f, 0.0f, 99.0f, 99.0f); // z and w play no part
    EXPECT_TRUE(p.PointInLineInnerArea(s, 1));
    Fill(p, {{0, 0, 0}, {10, 0, 0}}); // fewer than three points
    EXPECT_FALSE(p.PointInLineInnerArea(5.0f, 0.0f, 1));
}

// Points 0, 2, 4 form the triangle (0,0) (10,0) (0,10); point 1 is a spike below it, point 3 a
// dent into it. Step 2 sees only the triangle, closed by the edge 2 -> 4.
TEST(PointInPolygon, StepTwoTestsEveryOtherVertexAndClosesTheSample)
{
    CSSE3dPolygon p;
    Fill(p, {{0, 0, 0}, {5, -20, 0}, {10, 0, 0}, {4, 4, 0}, {0, 10, 0}});
    EXPECT_TRUE(p.PointInLineInnerArea(5.0f, -5.0f, 1)); // in the spike
    EXPECT_FALSE(p.PointInLineInnerArea(5.0f, -5.0f, 2));
    EXPECT_FALSE(p.PointInLineInnerArea(5.0f, 4.5f, 1)); // above the dent, below the hypotenuse
    EXPECT_TRUE(p.PointInLineInnerArea(5.0f, 4.5f, 2));
}

TEST(PointInPolygon, MatchesThePlainRuleOnRandomPolygonsAndSteps)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> coordinate(-15.0f, 45.0f);
    int inside = 0, checks = 0;
    for (int trial = 0; trial < 400; ++trial) {
        const Pts o = RandomOutline(rng, 30, 30);
        CSSE3dPolygon p;
        Fill(p, o);
        for (int step = 1; step <= 7; ++step)
            for (int k = 0; k < 60; ++k) {
                float x = coordinate(rng), y = coordinate(rng);
                if (k % 2 == 0) // on the integer grid, where vertices and edges meet the queries
                    x = std::round(x), y = std::round(y);
                const bool expected = ModelInside(o, step, x, y);
                ASSERT_EQ(p.PointInLineInnerArea(x, y, step), expected) << trial << " step " << step << " at " << x
                                                                        << ", " << y;
                inside += expected;
                ++checks;
            }
    }
    EXPECT_GT(inside, checks / 40);
}

TEST(PointInPolygon, AgreesWithBoostGeometryWithinAwayFromEdges)
{
    namespace bg = boost::geometry;
    using BPoint = bg::model::d2::point_xy<double>;
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> count(3, 60);
    std::uniform_real_distribution<float> px(-5.0f, 105.0f), py(-15.0f, 95.0f);
    int agreed = 0, inside = 0;
    for (int trial = 0; trial < 300; ++trial) {
        const Pts o = StarOutline(rng, count(rng), 50.0f, 40.0f, 5.0f, 45.0f);
        CSSE3dPolygon p;
        Fill(p, o);
        bg::model::polygon<BPoint, false, false> reference; // counter-clockwise, open
        bg::model::linestring<BPoint> outline;
        for (const P3& q : o) {
            bg::append(reference.outer(), BPoint(q.x, q.y));
            bg::append(outline, BPoint(q.x, q.y));
        }
        bg::append(outline, BPoint(o[0].x, o[0].y));
        for (int k = 0; k < 200; ++k) {
            const float x = px(rng), y = py(rng);
            if (bg::distance(BPoint(x, y), outline) < 1e-3)
                continue;
            const bool expected = bg::within(BPoint(x, y), reference);
            ASSERT_EQ(p.PointInLineInnerArea(x, y, 1), expected) << trial << " at " << x << ", " << y;
            ++agreed;
            inside += expected;
        }
    }
    EXPECT_GT(agreed, 50000);
    EXPECT_GT(inside, agreed / 10);
}

TEST(PointInPolygon, NormalizedBoxedAndStatusForms)
{
    CSSE3dPolygon p;
    Fill(p, kSquare10);
    t_resolutiondata scale{3.0f, 0.5f, 1.0f};
    p.NormalizeXYZ(scale); // normalized square: x in [0, 30], y in [0, 5]
    EXPECT_TRUE(p.PointInLineInnerAreaNormalized(25.0f, 2.0f, 1));
    EXPECT_FALSE(p.PointInLineInnerAreaNormalized(5.0f, 8.0f, 1)); // beyond the normalized box
    EXPECT_TRUE(p.PointInLineInnerAreaNormalized(30.0f, 2.0f, 1)); // right edge belongs, left not
    EXPECT_FALSE(p.PointInLineInnerAreaNormalized(0.0f, 2.0f, 1));

    EXPECT_TRUE(p.PointInLineInnerAreaBoxed(3.0f, 3.0f, 2.0f, 2.0f, 6.0f, 6.0f, 1));
    EXPECT_FALSE(p.PointInLineInnerAreaBoxed(8.0f, 3.0f, 2.0f, 2.0f, 6.0f, 6.0f, 1)); // outside the window
    EXPECT_FALSE(p.PointInLineInnerAreaBoxed(12.0f, 3.0f, 0.0f, 0.0f, 20.0f, 20.0f, 1));
    EXPECT_TRUE(p.PointInLineInnerAreaBoxed(6.0f, 6.0f, 2.0f, 2.0f, 6.0f, 6.0f, 1)); // window ends included

    // 1 inside, 0 on the outline (|doubled area| <= 0.0005 within the edge's range), -1 outside.
    // Doubled areas: (5, 10.01) 0.1 against the top edge; (5, -0.00004) 0.0004 and (5, -0.0001)
    // 0.001 against the bottom one.
    const std::pair<P3, int> status[] = {
        {{5, 5, 0}, 1},    {{5, 0, 0}, 0},   {{0, 5, 0}, 0},       {{10, 10, 0}, 0},        {{20, 0, 0}, -1},
        {{-3, 4, 0}, -1},  {{5, 10.01f, 0}, -1}, {{5, -0.00004f, 0}, 0}, {{5, -0.0001f, 0}, -1}};
    for (const auto& [q, want] : status)
        EXPECT_EQ(p.PointStatusWithRespectToPolygon(q.x, q.y), want) << q.x << ", " << q.y;
}

// Box centres truncate(offset + 0.5 + coordinate), clamped into [1, size - 2].
TEST(DrawInMatrix, PlotsBoxesAtShiftedVerticesOrSingleZYCells)
{
    CSSE3dPolygon p;
    Fill(p, {{3.4f, 5.6f, 1.0f}, {-0.7f, 9.2f, 2.4f}, {7.5f, 0.0f, 30.0f}});
    ExpectCells(Drawn(12, 12, [&](CSSEMatrix& m) { p.DrawInMatrix(2.0f, &m); }), Boxes({{3, 6}, {1, 9}, {8, 1}}));
    ExpectCells(Drawn(12, 12, [&](CSSEMatrix& m) { p.DrawInMatrix(2.0f, &m, false, 2.0f, -1.0f); }),
                Boxes({{5, 5}, {1, 8}, {10, 1}})); // 5.9, 5.1; 1.8, 8.7; 10.0, -0.5
    // ZY: column rounded z (clamped), row rounded y, offsets ignored.
    ExpectCells(Drawn(12, 12, [&](CSSEMatrix& m) { p.DrawInMatrix(2.0f, &m, true, 3.0f, 3.0f); }),
                {{{1, 6}, 2.0f}, {{2, 9}, 2.0f}, {{11, 0}, 2.0f}});
    // XZ takes precedence over ZY: centres (1.0 + 0.5 + x, 0.5 + z).
    ExpectCells(Drawn(12, 32, [&](CSSEMatrix& m) { p.DrawInMatrix(2.0f, &m, true, 1.0f, 0.0f, true); }),
                Boxes({{4, 1}, {1, 2}, {9, 30}}));
}

// Points 4 and 5 are neither plotted nor used, and point 3 closes back to point 0; with three
// points nothing is used at all.
TEST(DrawInMatrixAndFill, MarksRunsBetweenPlottedVerticesOfWholeGroupsOfFour)
{
    CSSE3dPolygon p;
    Pts six = kSquare26;
    six.insert(six.end(), {{8, 8, 0}, {1, 8, 0}});
    Fill(p, six);
    ExpectCells(Drawn(10, 10, [&](CSSEMatrix& m) { p.DrawInMatrixAndFill(1.0f, &m); }), SquareOutlineCells());
    six.resize(3);
    Fill(p, six);
    ExpectCells(Drawn(10, 10, [&](CSSEMatrix& m) { p.DrawInMatrixAndFill(1.0f, &m); }), {});
}

// A cell at value + 0.5 is no boundary for the downward column search (tolerance 0.1) but is
// one for the upward column search (tolerance 1.0). Reaching x = 14 in a 10-wide matrix, the
// right corners plot onto column 9, and the search from (14, 2) leftwards reads that clamped
// corner at once, so row 2 stays unmarked.
TEST(DrawInMatrixAndFill, DownwardColumnToleranceIsTighterAndIndicesClamp)
{
    CSSE3dPolygon p;
    Fill(p, kSquare26);
    Cells want = SquareOutlineCells();
    want[{2, 4}] = 6.0f; // passed over, then marked
    want[{6, 4}] = 1.5f; // the hit: only (6, 5) lies between
    want.erase({6, 3});
    ExpectCells(Drawn(10, 10, [&](CSSEMatrix& m) {
                    m.SetPoint(2, 4, 1.5f);
                    m.SetPoint(6, 4, 1.5f);
                    p.DrawInMatrixAndFill(1.0f, &m);
                }),
                want);
    Fill(p, {{2, 2, 0}, {14, 2, 0}, {14, 6, 0}, {2, 6, 0}});
    want = {{{2, 2}, 1.0f}, {{9, 2}, 1.0f}, {{9, 6}, 1.0f}, {{2, 6}, 1.0f}};
    for (int k = 3; k <= 5; ++k)
        want[{2, k}] = want[{9, k}] = 6.0f; // column 14 written through the clamp
    for (int x = 3; x <= 8; ++x)
        want[{x, 6}] = 6.0f;
    ExpectCells(Drawn(10, 10, [&](CSSEMatrix& m) { p.DrawInMatrixAndFill(1.0f, &m); }), want);
}

// Edge (1,1,0) -> (4.75,1,3.75): L = 3.75, k = truncate(8.0) = 8 samples 0.46875 apart in x
// and z, rounding onto x = 1, 1, 2, 2, 3, 3, 4, 4. Edge -> (4.75,6,1.25): k = 10 samples 0.5
// apart in y, z falling by 0.25, onto rows 1, 2, 2, 3, 3, 4, 4, 5, 5, 6 of column 5. Both end
// cells are written before the samples, and no closing edge runs back to (1, 1).
TEST(DrawInMatrixFineZ, InterpolatesZAlongEachEdgeOfTheOpenPolyline)
{
    CSSE3dPolygon p;
    Fill(p, {{1, 1, 0}, {4.75f, 1, 3.75f}, {4.75f, 6, 1.25f}});
    const auto cells = [](std::initializer_list<float> row, std::initializer_list<float> column) {
        Cells c;
        int x = 1, y = 2;
        for (float z : row)
            c[{x++, 1}] = z;
        for (float z : column)
            c[{5, y++}] = z;
        return c;
    };
    ExpectCells(Drawn(8, 8, [&](CSSEMatrix& m) { p.DrawInMatrixFineZ(&m); }),
                cells({0.46875f, 1.40625f, 2.34375f, 3.28125f, 3.75f}, {3.25f, 2.75f, 2.25f, 1.75f, 1.5f}));
    ExpectCells(Drawn(8, 8, [&](CSSEMatrix& m) { p.DrawInMatrixFineZMax(&m); }),
                cells({0.46875f, 1.40625f, 2.34375f, 3.28125f, 3.75f}, {3.5f, 3.0f, 2.5f, 2.0f, 1.5f}));
    ExpectCells(Drawn(8, 8, [&](CSSEMatrix& m) { p.DrawInMatrixFineZMin(&m); }, 10.0f),
                cells({0.0f, 0.9375f, 1.875f, 2.8125f, 3.75f}, {3.25f, 2.75f, 2.25f, 1.75f, 1.25f}), 10.0f);
    // An edge shorter than 0.5 writes its two ends only, in order.
    Fill(p, {{2.0f, 2.0f, 5.0f}, {2.3f, 2.2f, 9.0f}});
    ExpectCells(Drawn(6, 6, [&](CSSEMatrix& m) { p.DrawInMatrixFineZ(&m); }), {{{2, 2}, 9.0f}});
}
