// Scan conversion of meshes into height images: expected images come from hand-worked
// pixels or from the scalar model in MeshTestUtil.h.

#include <gtest/gtest.h>

#include "mesh/MeshTestUtil.h"

using namespace qzsse::test;
using namespace qzsse::test::scan;

TEST(ScanConvert, EmptyMeshOrBoxBelowHalfPixelLeavesTarget)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    mesh.CalcBoundingBox();
    CSSEMatrix target;
    target.Create(5, 3);
    target.Fill(7.0f);
    for (int pass = 0; pass < 2; ++pass) {
        mesh.ScanConvertTriangulationMax(&target, 0.0f);
        mesh.ScanConvertTriangulationMin(&target, 0.0f, 2.0f);
        mesh.FastScanConvertTriangulation(&target, 0.0f, true);
        mesh.ScanConvertTriangulationMaxNoDelete(&target, true, true);
        setTriangles(mesh, {{{0, 0, 1}, {0.49f, 0, 1}, {0, 20, 1}}}); // 0.49 + 0.5 truncates to 0 columns
    }
    EXPECT_EQ(target.GetSizeX(), 5);
    EXPECT_EQ(imageOf(target), Image(15, 7.0f));

    setTriangles(mesh, {{{0, 0, 1}, {0.5f, 0, 1}, {0, 20, 1}}}); // exactly half a pixel: one column
    mesh.ScanConvertTriangulationMax(&target, 0.0f);
    EXPECT_EQ(target.GetSizeY(), 20);
    EXPECT_EQ(imageOf(target), Image(20, 0.0f)); // no inner pixel in a single column
}

TEST(ScanConvert, EnvelopeMatchesScalarModel)
{
    // Two right triangles with legs of 10 pixels, the second shifted by (2, 2) and higher; a
    // zero record puts the box minimum at the origin.
    const std::vector<Tri> overlap = {{{2, 2, 1}, {12, 2, 1}, {2, 12, 1}}, {{4, 4, 2}, {14, 4, 2}, {4, 14, 2}}};
    const std::vector<Tri> sloped = {{{0, 0, 3}, {20, 0, 5}, {0, 16, 4}}};
    const std::vector<Tri> skew = {{{1, 1, 2}, {11, 1, 4}, {1, 8, 6}}};
    // A step of exactly 1/4 makes a + b meet 1 exactly: those samples are not taken. The far
    // point only widens the box.
    const Corner far{10, 10, 0};
    const std::vector<Tri> exact = {{{2, 2, 0}, {6, 6, 0}, {2, 6, 1}}, {far, far, far}};
    struct Case {
        const std::vector<Tri>* tris;
        float offset, refine;
        bool upper;
    };
    for (const Case& c : {Case{&overlap, 0, 1, true}, {&overlap, 0, 1, false}, {&sloped, 5, 1, true},
                          {&skew, 0, 1, false}, {&skew, 0.5f, 2, false}, {&exact, 0, 1, true}}) {
        CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
        setTriangles(mesh, *c.tris, c.tris == &sloped ? 0 : 1);
        CSSEMatrix target;
        if (c.upper)
            mesh.ScanConvertTriangulationMax(&target, c.offset);
        else
            mesh.ScanConvertTriangulationMin(&target, c.offset, c.refine);
        const Image expected = modelEnvelope(*c.tris, gridOf(mesh, 1.0f), c.refine, c.offset, c.upper);
        EXPECT_EQ(imageOf(target), expected) << c.offset << c.refine << c.upper;
        EXPECT_GT(countNonZero(expected), 10);
        if (c.tris != &overlap)
            continue;
        // Worked by hand: samples every 1.414 along both legs from (2, 2) and from (4, 4).
        EXPECT_EQ(target.GetPoint(5, 5), c.upper ? 2.0f : 1.0f); // sampled by both
        EXPECT_EQ(target.GetPoint(3, 3), 1.0f);                 // first triangle only
        EXPECT_EQ(target.GetPoint(12, 5), 2.0f);                // second triangle only
    }
}

TEST(ScanConvert, OuterRingIsReachedOnlyByCrosses)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    const Corner far{10, 10, 0}; // with the zero record: a 10 x 10 target
    setTriangles(mesh, {{{0, 0, 3}, {9, 0, 3}, {0, 0.4f, 3}}, {far, far, far}}, 1);
    CSSEMatrix target;
    mesh.ScanConvertTriangulationMax(&target, 0.0f);
    ASSERT_EQ(target.GetSizeX(), 10);
    EXPECT_EQ(countNonZero(imageOf(target)), 0); // all samples fall on row 0

    // Samples along row 1 at x = 1, 2.41, 3.83, 5.24, 6.66: columns 1, 2, 4, 5, 7.
    setTriangles(mesh, {{{1, 1, 3}, {8, 1, 3}, {1, 1.3f, 3}}, {far, far, far}}, 1);
    mesh.ScanConvertTriangulationMax(&target, 0.0f);
    Image expected(100, 0.0f);
    for (int x = 0; x <= 8; ++x)
        expected[10 + x] = 3.0f;
    for (int x : {1, 2, 4, 5, 7})
        expected[x] = expected[20 + x] = 3.0f;
    EXPECT_EQ(imageOf(target), expected);
}

TEST(ScanConvert, ParametersAdvanceByRepeatedFloatAddition)
{
    // The step is the float 1/12 (0.0833333358): twelve additions stay 1.2e-7 below 1, so a
    // thirteenth sample lands at x = 16.97 (pixel 17, cross to 18); twelve times the step is 1.
    const float len = std::sqrt(2.0f) * 12.0f;
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, {{{0, 1, 2}, {len, 1, 2}, {0, 1.3f, 2}}, {{30, 10, 0}, {30, 10, 0}, {30, 10, 0}}}, 1);
    CSSEMatrix target;
    mesh.ScanConvertTriangulationMax(&target, 0.0f);
    EXPECT_EQ(target.GetPoint(16, 1), 2.0f); // sample at 15.56
    EXPECT_EQ(target.GetPoint(18, 1), 2.0f);
    EXPECT_EQ(target.GetPoint(19, 1), 0.0f);
}

TEST(ScanConvert, DrawnValueNearSentinelBecomesZero)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, {{{1, 1, 0}, {8, 1, 0}, {1, 8, 0}}}, 1);
    CSSEMatrix target;
    mesh.ScanConvertTriangulationMax(&target, -999999.5f); // 0.375 above the sentinel
    EXPECT_EQ(countNonZero(imageOf(target)), 0);
    mesh.ScanConvertTriangulationMin(&target, 999999.0f, 1.0f);
    EXPECT_EQ(countNonZero(imageOf(target)), 0);
    mesh.ScanConvertTriangulationMax(&target, -999998.5f); // 1.375 away: kept
    EXPECT_EQ(target.GetPoint(1, 1), -999998.5f);
}

TEST(ScanConvert, RoundTripOfSmoothSurfaceStaysWithinOnePixelSlope)
{
    const int n = 40;
    CSSEMatrix surface;
    surface.Create(n, n);
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x)
            surface.SetPoint(x, y, 10.0f + 3.0f * std::sin(0.15f * float(x)) * std::cos(0.11f * float(y)));
    CHTriangulation mesh(&surface, 1.0f, true, 1.0f, 1.0f, 1.0f);
    // Untrimmed zero records put the box minimum at the origin, so pixels match samples.
    ASSERT_EQ(mesh.GetMinPoint().z, 0.0f);
    CSSEMatrix back;
    mesh.ScanConvertTriangulationMax(&back, 0.0f);
    ASSERT_GE(back.GetSizeX(), n - 1);
    ASSERT_GE(back.GetSizeY(), n - 2);
    // A sample reaches a pixel from up to 1.5 pixels away along one axis (its own half pixel
    // and the cross) and 0.5 along the other; the slopes are at most 0.45 in x, 0.33 in y.
    const float slope = 1.5f * 0.45f + 0.5f * 0.33f + 0.01f;
    for (int y = 1; y < back.GetSizeY() - 1; ++y)
        for (int x = 1; x < back.GetSizeX() - 1; ++x) {
            const float v = back.GetPoint(x, y), s = surface.GetPoint(x, y);
            ASSERT_TRUE(v >= s - 1e-5f && v <= s + slope) << x << "," << y << ": " << v << " vs " << s;
        }
}
