// The scan-conversion members built on the envelope's sampling: caller boxes and grids,
// drawing into existing images, limits by y or by a line, the pixel rasteriser and the
// denser second pass.

#include <vector>

#include <gtest/gtest.h>

#include "mesh/ScanConvertModel.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

using namespace qzsse::test::scan;

namespace {

const std::vector<Tri> kPair = {{{2, 2, 1}, {12, 2, 1}, {2, 12, 1}}, {{4, 4, 2}, {14, 4, 2}, {4, 14, 2}}};

SSEPoint point(float x, float y, float z)
{
    SSEPoint p;
    p.x = x;
    p.y = y;
    p.z = z;
    p.w = 0.0f;
    return p;
}

// Where the model drew nothing the target shows what stood there before.
Image overBackground(const Image& model, float background)
{
    Image out = model;
    for (float& v : out)
        if (v == 0.0f)
            v = background;
    return out;
}

} // namespace

TEST(ScanConvertVariants, CallerBoxReplacesBoundingBox)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, kPair);
    SSEPoint lo = point(3, -1, -1), hi = point(10, 16, 5); // cuts the mesh on the left and right
    CSSEMatrix upper, lower;
    mesh.ScanConvertTriangulationMax_MinMaxPoint(&upper, 0.5f, hi, lo);
    mesh.ScanConvertTriangulationMin_MinMaxPoint(&lower, 0.5f, hi, lo);
    const Grid g{3, -1, -1, 1, 1, 7, 17};
    ASSERT_EQ(upper.GetSizeX(), 7);
    ASSERT_EQ(upper.GetSizeY(), 17);
    EXPECT_EQ(imageOf(upper), modelEnvelope(kPair, g, 1.0f, 0.5f, true));
    EXPECT_EQ(imageOf(lower), modelEnvelope(kPair, g, 1.0f, 0.5f, false));
    EXPECT_EQ(upper.GetPoint(2, 6), 3.5f); // (5, 5) from z = -1: 2 + 1 + 0.5
}

TEST(ScanConvertVariants, NoDeleteKeepsTargetAndSentinelUnlessAsked)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, kPair, 1);
    const Grid g = gridOf(mesh, 1.0f);
    const Image upper = modelEnvelope(kPair, g, 1.0f, 0.0f, true);
    const Image lower = modelEnvelope(kPair, g, 1.0f, 0.0f, false);

    CSSEMatrix target;
    mesh.ScanConvertTriangulationMaxNoDelete(&target, true, false);
    EXPECT_EQ(imageOf(target), overBackground(upper, kUpperSentinel));
    mesh.ScanConvertTriangulationMinNoDelete(&target, true, true);
    EXPECT_EQ(imageOf(target), lower);

    target.Create(g.w, g.h);
    target.Fill(1.5f);
    mesh.ScanConvertTriangulationMaxNoDelete(&target, false, true);
    Image expected = overBackground(upper, 1.5f);
    for (float& v : expected)
        v = std::max(v, 1.5f);
    EXPECT_EQ(imageOf(target), expected);

    CSSEMatrix empty;
    mesh.ScanConvertTriangulationMinNoDelete(&empty, false, true);
    EXPECT_EQ(empty.GetMatrixDataDirectly(), nullptr);
}

TEST(ScanConvertVariants, YAreaDrawsOnlySamplesBetweenBounds)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, kPair, 1);
    const Grid g = gridOf(mesh, 1.0f);
    auto inBand = [](float y) { return 5.0f <= y && y <= 8.0f; };
    CSSEMatrix target;
    target.Create(g.w, g.h);
    mesh.ScanConvertTriangulationMaxNoDeleteInYArea(&target, 5.0f, 8.0f);
    EXPECT_EQ(imageOf(target), modelEnvelope(kPair, g, 1.0f, 0.0f, true, inBand));
    EXPECT_EQ(target.GetPoint(5, 3), 0.0f); // sampled, but outside the band
    target.Fill(100.0f);
    mesh.ScanConvertTriangulationMinNoDeleteInYArea(&target, 5.0f, 8.0f);
    EXPECT_EQ(imageOf(target), overBackground(modelEnvelope(kPair, g, 1.0f, 0.0f, false, inBand), 100.0f));
}

TEST(ScanConvertVariants, LimitedAreaUsesCallerSizeAndOrigin)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, kPair);
    SSEPoint origin = point(1, 2, 0.5f);
    CSSEMatrix target;
    mesh.ScanConvertTriangulationWithLimitedArea(&target, 8, 20, 0.25f, &origin, true);
    EXPECT_EQ(imageOf(target), modelEnvelope(kPair, Grid{1, 2, 0.5f, 1, 1, 8, 20}, 1.0f, 0.25f, true));
    mesh.ScanConvertTriangulationWithLimitedArea(&target, 9, 6, 0.0f, nullptr, false);
    EXPECT_EQ(imageOf(target), modelEnvelope(kPair, Grid{2, 2, 1, 1, 1, 9, 6}, 1.0f, 0.0f, false));
    mesh.ScanConvertTriangulationWithLimitedArea(&target, 0, 6, 0.0f, nullptr, true);
    EXPECT_EQ(target.GetSizeX(), 9);
}

TEST(ScanConvertVariants, ThroughLineClearsPixelsOutsideTheLine)
{
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, kPair, 1);
    const Grid g = gridOf(mesh, 1.0f);
    CSSE3dPolygon line;
    line.Create(4);
    line.SetPoint(0, 4.5f, 4.5f, 0);
    line.SetPoint(1, 9.5f, 4.5f, 0);
    line.SetPoint(2, 9.5f, 9.5f, 0);
    line.SetPoint(3, 4.5f, 9.5f, 0);
    for (bool upper : {true, false}) {
        CSSEMatrix target;
        if (upper)
            mesh.ScanConvertThroughLineMax(&target, &line, 0.0f);
        else
            mesh.ScanConvertThroughLineMin(&target, &line, 0.0f);
        Image expected = modelEnvelope(kPair, g, 1.0f, 0.0f, upper);
        for (int y = 0; y < g.h; ++y)
            for (int x = 0; x < g.w; ++x)
                if (!(x >= 5 && x <= 9 && y >= 5 && y <= 9))
                    expected[y * g.w + x] = 0.0f;
        EXPECT_EQ(imageOf(target), expected) << upper;
        EXPECT_GT(countNonZero(expected), 15);
    }
}

TEST(ScanConvertVariants, FastInterpolatesAtPixelCentresInsideTheProjection)
{
    auto plane = [](float x, float y) { return 1.0f + 0.1f * x + 0.2f * y; };
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, {{{2, 2, plane(2, 2)}, {12, 2, plane(12, 2)}, {2, 12, plane(2, 12)}}}, 1);
    CSSEMatrix target;
    mesh.FastScanConvertTriangulation(&target, 2.0f, true);
    ASSERT_EQ(target.GetSizeX(), 12);
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 12; ++x) {
            // Inner pixels whose centre lies in the triangle, its edges included.
            const bool inside = x >= 2 && y >= 2 && x + y <= 14 && x <= 10 && y <= 10;
            const float expected = inside ? plane(static_cast<float>(x), static_cast<float>(y)) + 2.0f : 0.0f;
            EXPECT_NEAR(target.GetPoint(x, y), expected, 1e-5f) << x << "," << y;
        }

    setTriangles(mesh, kPair, 1);
    CSSEMatrix upper, lower;
    mesh.FastScanConvertTriangulation(&upper, 0.0f, true);
    mesh.FastScanConvertTriangulation(&lower, 0.0f, false);
    EXPECT_EQ(upper.GetPoint(6, 6), 2.0f);
    EXPECT_EQ(lower.GetPoint(6, 6), 1.0f);
    EXPECT_EQ(lower.GetPoint(3, 3), 1.0f);
    EXPECT_EQ(lower.GetPoint(12, 5), 2.0f);
    EXPECT_EQ(lower.GetPoint(3, 12), 0.0f); // 3 + 12 > 14: outside the first triangle
    SSEPoint lo = point(-1, -1, -1), hi = point(14, 14, 2);
    mesh.FastScanConvertTriangulation_MinMaxPoint(&upper, 0.0f, hi, lo, true);
    EXPECT_EQ(upper.GetSizeX(), 15);
    EXPECT_EQ(upper.GetPoint(7, 7), 3.0f); // mesh point (6, 6), measured from z = -1
    EXPECT_EQ(upper.GetPoint(4, 4), 2.0f); // (3, 3): first triangle only
}

TEST(ScanConvertVariants, RefineAddsTwiceAsDenseSamplesToDrawnImage)
{
    const std::vector<Tri> tri = {{{1, 1, 2}, {11, 1, 4}, {1, 8, 6}}};
    CHTriangulation mesh(0, 1.0f, 1.0f, 1.0f);
    setTriangles(mesh, tri, 1);
    const Grid g = gridOf(mesh, 1.0f);
    for (bool upper : {true, false}) {
        CSSEMatrix target;
        if (upper) {
            mesh.ScanConvertTriangulationMax(&target, 0.0f);
            mesh.RefineScanConvImageTop(&target, 0.0f);
        } else {
            mesh.ScanConvertTriangulationMin(&target, 0.0f, 1.0f);
            mesh.RefineScanConvImage(&target, 0.0f);
        }
        const Image first = modelEnvelope(tri, g, 1.0f, 0.0f, upper);
        const Image second = modelEnvelope(tri, g, 2.0f, 0.0f, upper);
        Image expected(first.size());
        for (size_t i = 0; i < first.size(); ++i) {
            if (first[i] == 0.0f || second[i] == 0.0f)
                expected[i] = first[i] + second[i];
            else
                expected[i] = upper ? std::max(first[i], second[i]) : std::min(first[i], second[i]);
        }
        EXPECT_EQ(imageOf(target), expected) << upper;
        EXPECT_GT(countNonZero(expected), countNonZero(first));
    }
}
