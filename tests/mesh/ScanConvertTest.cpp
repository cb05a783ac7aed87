// Scan conversion of meshes into height images: expected images come from hand-worked
// pixels or from the scalar model in ScanConvertModel.h.

#include <cmath>
#include <vector>

#include <gtest/gtest.h>

#include "mesh/ScanConvertModel.h"

using namespace qzsse::test::scan;

namespace {

// Two right triangles with legs of 10 pixels; the second is shifted by (2, 2) and higher.
const std::vector<Tri> kOverlap = {{{2, 2, 1}, {12, 2, 1}, {2, 12, 1}}, {{4, 4, 2}, {14, 4, 2}, {4, 14, 2}}};

} // namespace

TEST(ScanConvert, EmptyMeshOrBoxBelowHalfPixelLeavesTarget)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    mesh.CalcBoundingBox();
    CSSEMatrix target;
    target.Create(5, 3);
    target.Fill(7.0f);
    mesh.ScanConvertTriangulationMax(&target, 0.0f);
    mesh.ScanConvertTriangulationMin(&target, 0.0f, 1.0f);
    mesh.FastScanConvertTriangulation(&target, 0.0f, true);
    setTriangles(mesh, {{{0, 0, 1}, {0.49f, 0, 1}, {0, 20, 1}}}); // 0.49 + 0.5 truncates to 0 columns
    mesh.ScanConvertTriangulationMax(&target, 0.0f);
    mesh.ScanConvertTriangulationMin(&target, 0.0f, 2.0f);
    mesh.ScanConvertTriangulationMaxNoDelete(&target, true, true);
    EXPECT_EQ(target.GetSizeX(), 5);
    EXPECT_EQ(target.GetSizeY(), 3);
    EXPECT_EQ(imageOf(target), Image(15, 7.0f));

    setTriangles(mesh, {{{0, 0, 1}, {0.5f, 0, 1}, {0, 20, 1}}}); // exactly half a pixel: one column
    mesh.ScanConvertTriangulationMax(&target, 0.0f);
    EXPECT_EQ(target.GetSizeX(), 1);
    EXPECT_EQ(target.GetSizeY(), 20);
    EXPECT_EQ(imageOf(target), Image(20, 0.0f)); // no inner pixel in a single column
}

TEST(ScanConvert, OverlapKeepsHigherForMaxAndLowerForMin)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, kOverlap, 1); // the zero record puts min at the origin
    CSSEMatrix upper, lower;
    mesh.ScanConvertTriangulationMax(&upper, 0.0f);
    mesh.ScanConvertTriangulationMin(&lower, 0.0f, 1.0f);
    ASSERT_EQ(upper.GetSizeX(), 14);
    ASSERT_EQ(upper.GetSizeY(), 14);
    // Worked by hand: samples every 1.414 along both legs from (2, 2) and from (4, 4).
    EXPECT_EQ(upper.GetPoint(5, 5), 2.0f); // sampled by both
    EXPECT_EQ(lower.GetPoint(5, 5), 1.0f);
    EXPECT_EQ(upper.GetPoint(3, 3), 1.0f); // first triangle only
    EXPECT_EQ(lower.GetPoint(3, 3), 1.0f);
    EXPECT_EQ(upper.GetPoint(12, 5), 2.0f); // second triangle only
    EXPECT_EQ(lower.GetPoint(12, 5), 2.0f);
    const Grid g = gridOf(mesh, 1.0f);
    EXPECT_EQ(imageOf(upper), modelEnvelope(kOverlap, g, 1.0f, 0.0f, true));
    EXPECT_EQ(imageOf(lower), modelEnvelope(kOverlap, g, 1.0f, 0.0f, false));
}

TEST(ScanConvert, OffsetAndHeightFromBoxMinimumOnDrawnPixelsOnly)
{
    const std::vector<Tri> sloped = {{{0, 0, 3}, {20, 0, 5}, {0, 16, 4}}};
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, sloped);
    CSSEMatrix plain, lifted;
    mesh.ScanConvertTriangulationMax(&plain, 0.0f);
    mesh.ScanConvertTriangulationMax(&lifted, 5.0f);
    const Image p = imageOf(plain), l = imageOf(lifted);
    int drawn = 0;
    for (size_t i = 0; i < p.size(); ++i) {
        if (p[i] == 0.0f) {
            EXPECT_EQ(l[i], 0.0f) << i;
            continue;
        }
        ++drawn;
        EXPECT_GE(p[i], 0.0f); // measured from min.z = 3
        EXPECT_LE(p[i], 2.0f);
        EXPECT_FLOAT_EQ(l[i], p[i] + 5.0f) << i;
    }
    EXPECT_GT(drawn, 100);
    EXPECT_EQ(p, modelEnvelope(sloped, gridOf(mesh, 1.0f), 1.0f, 0.0f, true));
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

TEST(ScanConvert, MinRefineSamplesDenser)
{
    // Legs of 10 and 7: one refine-1 step is 1.414 along the longer leg, with holes between.
    const std::vector<Tri> tri = {{{1, 1, 2}, {11, 1, 4}, {1, 8, 6}}};
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, tri, 1);
    const Grid g = gridOf(mesh, 1.0f);
    CSSEMatrix coarse, fine;
    mesh.ScanConvertTriangulationMin(&coarse, 0.0f, 1.0f);
    mesh.ScanConvertTriangulationMin(&fine, 0.0f, 2.0f);
    EXPECT_EQ(imageOf(coarse), modelEnvelope(tri, g, 1.0f, 0.0f, false));
    EXPECT_EQ(imageOf(fine), modelEnvelope(tri, g, 2.0f, 0.0f, false));
    EXPECT_GT(countNonZero(imageOf(fine)), countNonZero(imageOf(coarse)));
}

TEST(ScanConvert, RoundTripOfSmoothSurfaceStaysWithinOnePixelSlope)
{
    const int n = 40;
    CSSEMatrix surface;
    surface.Create(n, n);
    auto height = [](float x, float y) { return 10.0f + 3.0f * std::sin(0.15f * x) * std::cos(0.11f * y); };
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x)
            surface.SetPoint(x, y, height(static_cast<float>(x), static_cast<float>(y)));
    CHTriangulation mesh(&surface, 1.0f, true, 1.0f, 1.0f, 1.0f);
    ASSERT_GT(mesh.GetNumTriangles(), 0);
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
            const float v = back.GetPoint(x, y);
            EXPECT_GE(v, surface.GetPoint(x, y) - 1e-5f) << x << "," << y; // the cross keeps its own sample
            EXPECT_LE(v, surface.GetPoint(x, y) + slope) << x << "," << y;
        }
}
