// Meshing of height matrices: the cell emitter checked by hand, and every matrix walk
// compared record by record with a plain scalar model of its rule.

#include <limits>
#include <random>
#include <tuple>

#include <gtest/gtest.h>

#include "mesh/MeshTestUtil.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

using namespace qzsse::test;

namespace {

using Tri = std::array<Quad, 7>; // corners, vertex normals, face normal

// (x, y, z, 0) over its length, squares summed (x*x + w*w) + (y*y + z*z).
Quad unit(float x, float y, float z)
{
    const float len = std::sqrt((x * x + 0.0f * 0.0f) + (y * y + z * z));
    return {x / len, y / len, z / len, 0.0f};
}

Quad neg(const Quad& q)
{
    return {0.0f - q[0], 0.0f - q[1], 0.0f - q[2], 0.0f - q[3]};
}

// One cell from the rule; corners 0 (x0,y0), 1 (x0,y1), 2 (x1,y0), 3 (x1,y1).
void modelCell(std::vector<Tri>& out, int ml, int mr, float x0, float x1, float y0, float y1, float z00, float z01,
               float z10, float z11, bool invert, bool fill)
{
    if (fill) {
        mr = mr == 1 || mr == 2 ? 3 : mr;
        ml = ml == 1 || ml == 2 ? 3 : ml;
    }
    const Quad p[4] = {{x0, y0, z00, 0}, {x0, y1, z01, 0}, {x1, y0, z10, 0}, {x1, y1, z11, 0}};
    const Quad n[4] = {unit(z00 - z10, z00 - z01, 1), unit(z01 - z11, z00 - z01, 1), unit(z00 - z10, z10 - z11, 1),
                       unit(z01 - z11, z10 - z11, 1)};
    std::vector<std::array<int, 3>> shape;
    if (ml == 3 && mr == 3)
        shape = {{0, 3, 1}, {0, 2, 3}};
    else if (ml == 3 && (mr == 1 || mr == 2))
        shape = {{0, mr == 2 ? 3 : 2, 1}};
    else if (mr == 3 && (ml == 1 || ml == 2))
        shape = {{ml == 1 ? 0 : 2, ml == 1 ? 2 : 3, ml == 1 ? 3 : 1}};
    for (const auto& s : shape) {
        Tri t{p[s[0]], p[s[1]], p[s[2]], n[s[0]], n[s[1]], n[s[2]]};
        if (invert && ml == 3 && mr == 2) // the one asymmetric shape: all three take corner 0's
            t[3] = neg(t[3]), t[4] = t[5] = neg(t[3]);
        else if (invert)
            t[3] = neg(t[3]), t[4] = neg(t[4]), t[5] = neg(t[5]);
        auto sum = [&](int i) { return (t[3][i] + t[4][i]) + t[5][i]; };
        t[6] = unit(sum(0), sum(1), sum(2));
        out.push_back(t);
    }
}

::testing::AssertionResult recordsMatch(const CHTriangulation& mesh, const std::vector<Tri>& expected, int first = 0)
{
    if (mesh.GetNumTriangles() < first + static_cast<int>(expected.size()))
        return ::testing::AssertionFailure() << "count " << mesh.GetNumTriangles() << " < " << expected.size();
    for (int t = 0; t < static_cast<int>(expected.size()); ++t)
        for (int part = 0; part < 7; ++part)
            if (!sameQuad(partOf(mesh, first + t, part), expected[t][part]))
                return ::testing::AssertionFailure() << "record " << t << " part " << part << " differs";
    return ::testing::AssertionSuccess();
}

// Pixel (x, y) as the band layout stores it, padding rows included.
float& at(const CSSEMatrix& m, int x, int y)
{
    return reinterpret_cast<float*>(m.GetMatrixDataDirectly()[y >> 2])[4 * x + (y & 3)];
}

bool passes(float v, float threshold, bool top)
{
    return top ? v > threshold : v < threshold;
}

// Subsampled walk over corners in [xLo, xHi] x [yLo, yHi]; in(x, y) decides a corner.
template <class In>
std::vector<Tri> modelWalk(const CSSEMatrix& m, int sx, int sy, int xLo, int yLo, int xHi, int yHi, bool invert,
                           bool fill, In in)
{
    std::vector<Tri> out;
    for (int x = xLo; x + sx <= xHi; x += sx)
        for (int y = yLo; y + sy <= yHi; y += sy)
            modelCell(out, in(x, y) | in(x, y + sy) << 1, in(x + sx, y) | in(x + sx, y + sy) << 1, 1.25f * x,
                      1.25f * x + 1.25f * sx, 0.5f * y, 0.5f * y + 0.5f * sy, at(m, x, y), at(m, x, y + sy),
                      at(m, x + sx, y), at(m, x + sx, y + sy), invert, fill);
    return out;
}

// Small integers (so thresholds meet values exactly), fractions and NaN, padding included.
void fillRandom(CSSEMatrix& m, int sizeX, int sizeY, std::mt19937& rng)
{
    m.Create(sizeX, sizeY);
    std::uniform_int_distribution<int> pick(0, 9);
    for (int y = 0; y < 4 * m.GetSSESizeY(); ++y)
        for (int x = 0; x < sizeX; ++x) {
            const int r = pick(rng);
            at(m, x, y) = r == 0 ? std::numeric_limits<float>::quiet_NaN()
                                 : r < 6 ? static_cast<float>(pick(rng) - 3) : 0.37f * pick(rng) - 1.1f;
        }
}

CSSEMatrix filled(int sizeX, int sizeY, float value)
{
    CSSEMatrix m;
    m.Create(sizeX, sizeY);
    for (int y = 0; y < sizeY; ++y)
        for (int x = 0; x < sizeX; ++x)
            at(m, x, y) = value;
    return m;
}

} // namespace

TEST(AppendTriangle, FollowsMaskTableFillAndInvert)
{
    for (int ml = 0; ml < 4; ++ml)
        for (int mr = 0; mr < 4; ++mr)
            for (int flags = 0; flags < 4; ++flags) {
                std::vector<Tri> expected;
                modelCell(expected, ml, mr, 10, 20, 30, 50, 4, 2, 2, 4, flags & 1, flags & 2);
                CHTriangulation mesh(3, 1, 1, 1);
                int index = 1;
                mesh.AppendTriangle(ml, mr, 10, 20, 30, 50, 4, 2, 2, 4, index, flags & 1, flags & 2);
                ASSERT_EQ(index, 1 + static_cast<int>(expected.size())) << ml << mr << flags;
                EXPECT_TRUE(isZeroRecord(mesh, 0));
                EXPECT_TRUE(recordsMatch(mesh, expected, 1)) << ml << mr << flags;
            }

    // By hand: heights 4, 2, 2, 4 make the corner normals (+-2, +-2, 1) / 3. Inverted,
    // maskLeft 3 / maskRight 2 negates corner 0 only and the face stays up.
    const float a = 2.0f / 3.0f, b = 1.0f / 3.0f;
    CHTriangulation mesh(3, 1, 1, 1);
    int index = 0;
    mesh.AppendTriangle(3, 3, 10, 20, 30, 50, 4, 2, 2, 4, index, false, false);
    mesh.AppendTriangle(3, 2, 10, 20, 30, 50, 4, 2, 2, 4, index, true, false);
    const std::tuple<int, int, Quad> byHand[] = {{1, 1, {20, 30, 2, 0}}, {0, 3, {a, a, b, 0}},   {0, 4, {-a, -a, b, 0}},
                                                 {0, 5, {-a, a, b, 0}},  {2, 3, {-a, -a, -b, 0}}, {2, 4, {a, a, b, 0}},
                                                 {2, 5, {a, a, b, 0}}};
    for (const auto& [t, part, q] : byHand)
        EXPECT_TRUE(sameQuad(partOf(mesh, t, part), q)) << t << " " << part;
    EXPECT_NEAR(partOf(mesh, 0, 6)[0], -2 / std::sqrt(17.0f), 1e-6f);
    EXPECT_NEAR(partOf(mesh, 2, 6)[2], b, 1e-6f);
}

TEST(FullResolution, KeepsTwoRecordsPerInsideSampleWithZeroedSurplus)
{
    // 5 x 8 of 1, above 0.5: N = 40. Cells on rows 0..6 are whole; those on row 7 reach the
    // zero padding row and yield nothing: 4 * 7 * 2 = 56 written of 80.
    CSSEMatrix m = filled(5, 8, 1.0f);
    CHTriangulation mesh(&m, 0.5f, true, 2.0f, 3.0f, 1.0f);
    ASSERT_EQ(mesh.GetNumTriangles(), 80);
    for (int t = 0; t < 80; ++t)
        EXPECT_EQ(isZeroRecord(mesh, t), t >= 56) << t;
    // The constructor ran the bookkeeping: the box takes in the zero records, S = c1 - c0.
    EXPECT_TRUE(sameQuad(lanesOf(mesh.GetMinPoint()), Quad{0, 0, 0, 0}));
    EXPECT_TRUE(sameQuad(lanesOf(mesh.GetMaxPoint()), Quad{8, 21, 1, 0}));
    EXPECT_TRUE(sameQuad(lanesOf(*mesh.GetTriangle(0)->pS), Quad{2, 3, 0, 0}));
}

// Full resolution keeps 2N records (cells start on every row of every band but the last),
// the surplus zeroed. The subsampled forms: plain, rectangle (with fill) and two-field; every
// fourth matrix is inside only on the sampling grid, which yields more triangles than the
// 2N / (stepX * stepY) records reserved.
TEST(Meshing, EveryWalkMatchesScalarModelRecordByRecord)
{
    std::mt19937 rng(7);
    for (int trial = 0; trial < 400; ++trial) {
        const int sizeX = 1 + rng() % 13, sizeY = trial % 2 ? 1 + rng() % 17 : 4 * (rng() % 5);
        const int sx = 1 + rng() % 3, sy = 1 + rng() % 3;
        const bool top = rng() % 2, fill = rng() % 2;
        const int x0 = static_cast<int>(rng() % 5) - 1, y0 = static_cast<int>(rng() % 5) - 1;
        const int x1 = x0 + static_cast<int>(rng() % 14), y1 = y0 + static_cast<int>(rng() % 14);
        const float threshold = 0.5f * static_cast<float>(static_cast<int>(rng() % 9) - 4);
        CSSEMatrix m, lower;
        fillRandom(m, sizeX, sizeY, rng);
        fillRandom(lower, sizeX, sizeY, rng);
        if (trial % 4 == 0)
            for (int y = 0; y < sizeY; ++y)
                for (int x = 0; x < sizeX; ++x)
                    at(m, x, y) = (x % sx == 0 && y % sy == 0) == top ? 9.0f : -9.0f;
        auto in = [&](int x, int y) { return passes(at(m, x, y), threshold, top) ? 1 : 0; };
        auto inTwo = [&](int x, int y) { return passes(at(m, x, y), at(lower, x, y), top) ? 1 : 0; };
        int n = 0, nTwo = 0;
        for (int y = 0; y < 4 * m.GetSSESizeY(); ++y)
            for (int x = 0; x < sizeX; ++x)
                n += in(x, y), nTwo += inTwo(x, y);

        const CHTriangulation full(&m, threshold, top, 1.25f, 0.5f, 1.0f);
        const auto expected = modelWalk(m, 1, 1, 0, 0, sizeX - 1, 4 * (m.GetSSESizeY() - 1), !top, false, in);
        ASSERT_EQ(full.GetNumTriangles(), 2 * n) << trial;
        ASSERT_TRUE(recordsMatch(full, expected)) << trial;
        for (int t = static_cast<int>(expected.size()); t < full.GetNumTriangles(); ++t)
            ASSERT_TRUE(isZeroRecord(full, t)) << trial << " record " << t;

        const int cx0 = std::max(x0, 0), cy0 = std::max(y0, 0);
        const int cx1 = std::min(x1, sizeX - 1), cy1 = std::min(y1, sizeY - 1);
        const bool none = 2 * n / (sx * sy) < 1, noneTwo = 2 * nTwo / (sx * sy) < 1;
        const std::vector<Tri> empty;
        const CHTriangulation plain(&m, threshold, top, 1.25f, 0.5f, 1, sx, sy);
        const CHTriangulation rect(&m, threshold, top, 1.25f, 0.5f, 1, sx, sy, x0, y0, x1, y1, fill);
        const CHTriangulation two(&m, &lower, top, 1.25f, 0.5f, 1, sx, sy);
        const CHTriangulation twoRect(&m, &lower, top, 1.25f, 0.5f, 1, sx, sy, x0, y0, x1, y1);
        const std::pair<const CHTriangulation*, std::vector<Tri>> cases[] = {
            {&plain, none ? empty : modelWalk(m, sx, sy, 0, 0, sizeX - 1, sizeY - 1, !top, false, in)},
            {&rect, none ? empty : modelWalk(m, sx, sy, cx0, cy0, cx1, cy1, !top, fill, in)},
            {&two, noneTwo ? empty : modelWalk(m, sx, sy, 0, 0, sizeX - 1, sizeY - 1, !top, false, inTwo)},
            {&twoRect, noneTwo ? empty : modelWalk(m, sx, sy, cx0, cy0, cx1, cy1, !top, false, inTwo)},
        };
        for (const auto& [mesh, records] : cases) {
            ASSERT_EQ(mesh->GetNumTriangles(), static_cast<int>(records.size())) << trial;
            ASSERT_TRUE(recordsMatch(*mesh, records)) << trial;
        }
    }
}

TEST(Subsampled, LimitsByCapacityAndPolygon)
{
    // Capacity 2N / (stepX * stepY) below 1 leaves the mesh empty even where three inside
    // corners would make a triangle: N = 3 with steps 3 x 3. Two inside samples off the grid
    // raise the capacity to 1.
    CSSEMatrix sparse;
    sparse.Create(4, 4);
    at(sparse, 0, 0) = at(sparse, 3, 0) = at(sparse, 0, 3) = 1;
    EXPECT_EQ(CHTriangulation(&sparse, 0.5f, true, 1, 1, 1, 3, 3).GetNumTriangles(), 0);
    at(sparse, 1, 1) = at(sparse, 2, 2) = 1;
    EXPECT_EQ(CHTriangulation(&sparse, 0.5f, true, 1, 1, 1, 3, 3).GetNumTriangles(), 1);

    // A square 1.5..6.5 of 16 vertices (every fourth a corner): corners 2..6 in x and y.
    CSSE3dPolygon square;
    square.Create(16);
    for (int i = 0; i < 4; ++i) {
        const float t = 1.5f + 1.25f * static_cast<float>(i);
        square.SetPoint(i, t, 1.5f, 0);
        square.SetPoint(4 + i, 6.5f, t, 0);
        square.SetPoint(8 + i, 8.0f - t, 6.5f, 0);
        square.SetPoint(12 + i, 1.5f, 8.0f - t, 0);
    }
    CSSEMatrix m = filled(10, 10, 1.0f);
    const CHTriangulation inPolygon(&m, 0.5f, true, 1, 1, 1, 1, 1, &square);
    EXPECT_EQ(inPolygon.GetNumTriangles(), 4 * 4 * 2);
    EXPECT_TRUE(sameQuad(lanesOf(inPolygon.GetMinPoint()), Quad{2, 2, 1, 0}));
    EXPECT_TRUE(sameQuad(lanesOf(inPolygon.GetMaxPoint()), Quad{6, 6, 1, 0}));
    EXPECT_EQ(CHTriangulation(&m, 0.5f, true, 1, 1, 1, 2, 2, &square).GetNumTriangles(), 2 * 2 * 2);
    at(m, 4, 4) = 0; // the threshold still applies inside the polygon: 4 cells lose a corner
    EXPECT_EQ(CHTriangulation(&m, 0.5f, true, 1, 1, 1, 1, 1, &square).GetNumTriangles(), 12 * 2 + 4);
}

TEST(Meshing, EmptyOrNothingInsideGivesNoTriangles)
{
    CSSEMatrix empty, noRows, flat = filled(7, 5, 1.0f);
    empty.Create(0, 0);
    noRows.Create(7, 0);
    for (CSSEMatrix* m : {&empty, &flat, &noRows}) {
        const float t = m == &flat ? 1.0f : 0.0f; // strictly above: nothing passes
        EXPECT_EQ(CHTriangulation(m, t, true, 1, 1, 1).GetNumTriangles(), 0);
        EXPECT_EQ(CHTriangulation(m, t, true, 1, 1, 1, 1, 1).GetNumTriangles(), 0);
        EXPECT_EQ(CHTriangulation(m, t, true, 1, 1, 1, 1, 1, 0, 0, 9, 9, true).GetNumTriangles(), 0);
        EXPECT_EQ(CHTriangulation(m, m, false, 1, 1, 1, 1, 1).GetNumTriangles(), 0);
    }
    // Below 1 only the three zero padding rows pass (21 samples) and no cell starts on them:
    // the full-resolution mesh keeps 42 records, all zero.
    const CHTriangulation padding(&flat, 1.0f, false, 1, 1, 1);
    ASSERT_EQ(padding.GetNumTriangles(), 42);
    for (int t = 0; t < 42; ++t)
        EXPECT_TRUE(isZeroRecord(padding, t));
}
