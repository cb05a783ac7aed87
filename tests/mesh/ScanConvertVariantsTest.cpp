// The scan-conversion members built on the envelope's sampling: caller boxes and grids,
// drawing into existing images, limits by y or by a line, the pixel rasteriser and the
// denser second pass.

#include <gtest/gtest.h>

#include "mesh/MeshTestUtil.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

using namespace qzsse::test;
using namespace qzsse::test::scan;

namespace {

const std::vector<Tri> kPair = {{{2, 2, 1}, {12, 2, 1}, {2, 12, 1}}, {{4, 4, 2}, {14, 4, 2}, {4, 14, 2}}};

SSEPoint point(float x, float y, float z)
{
    SSEPoint p;
    p.m = _mm_setr_ps(x, y, z, 0.0f);
    return p;
}

// Where the model drew nothing the target shows what stood there before.
Image overBackground(Image model, float background)
{
    for (float& v : model)
        v = v == 0.0f ? background : v;
    return model;
}

// kPair with a zero record, so the box minimum is the origin.
struct PairMesh {
    CHTriangulation mesh{0, 1.0f, 1.0f, 1.0f};
    Grid g;
    PairMesh(int zeroRecords = 1)
    {
        setTriangles(mesh, kPair, zeroRecords);
        g = gridOf(mesh, 1.0f);
    }
};

} // namespace

TEST(ScanConvertVariants, CallerBoxOrSizeReplacesBoundingBox)
{
    PairMesh p(0);
    SSEPoint lo = point(3, -1, -1), hi = point(10, 16, 5); // cuts the mesh on the left and right
    CSSEMatrix upper, lower;
    p.mesh.ScanConvertTriangulationMax_MinMaxPoint(&upper, 0.5f, hi, lo);
    p.mesh.ScanConvertTriangulationMin_MinMaxPoint(&lower, 0.5f, hi, lo);
    const Grid g{3, -1, -1, 1, 1, 7, 17};
    EXPECT_EQ(imageOf(upper), modelEnvelope(kPair, g, 1.0f, 0.5f, true));
    EXPECT_EQ(imageOf(lower), modelEnvelope(kPair, g, 1.0f, 0.5f, false));
    EXPECT_EQ(upper.GetPoint(2, 6), 3.5f); // (5, 5) from z = -1: 2 + 1 + 0.5

    SSEPoint origin = point(1, 2, 0.5f);
    CSSEMatrix target;
    p.mesh.ScanConvertTriangulationWithLimitedArea(&target, 8, 20, 0.25f, &origin, true);
    EXPECT_EQ(imageOf(target), modelEnvelope(kPair, Grid{1, 2, 0.5f, 1, 1, 8, 20}, 1.0f, 0.25f, true));
    p.mesh.ScanConvertTriangulationWithLimitedArea(&target, 9, 6, 0.0f, nullptr, false);
    EXPECT_EQ(imageOf(target), modelEnvelope(kPair, Grid{2, 2, 1, 1, 1, 9, 6}, 1.0f, 0.0f, false));
    p.mesh.ScanConvertTriangulationWithLimitedArea(&target, 0, 6, 0.0f, nullptr, true);
    EXPECT_EQ(target.GetSizeX(), 9);
}

TEST(ScanConvertVariants, NoDeleteKeepsTargetAndSentinelUnlessAsked)
{
    PairMesh p;
    const Image upper = modelEnvelope(kPair, p.g, 1.0f, 0.0f, true);
    CSSEMatrix target;
    p.mesh.ScanConvertTriangulationMaxNoDelete(&target, true, false);
    EXPECT_EQ(imageOf(target), overBackground(upper, kUpperSentinel));
    p.mesh.ScanConvertTriangulationMinNoDelete(&target, true, true);
    EXPECT_EQ(imageOf(target), modelEnvelope(kPair, p.g, 1.0f, 0.0f, false));

    target.Fill(1.5f);
    p.mesh.ScanConvertTriangulationMaxNoDelete(&target, false, true);
    Image expected = overBackground(upper, 1.5f);
    for (float& v : expected)
        v = std::max(v, 1.5f);
    EXPECT_EQ(imageOf(target), expected);

    CSSEMatrix empty;
    p.mesh.ScanConvertTriangulationMinNoDelete(&empty, false, true);
    EXPECT_EQ(empty.GetMatrixDataDirectly(), nullptr);
}

TEST(ScanConvertVariants, YAreaDrawsOnlySamplesBetweenBounds)
{
    PairMesh p;
    // Bounds are inclusive: the samples of the first triangle's lower leg lie at y = 2 exactly.
    for (const auto& band : {std::pair{5.0f, 8.0f}, {2.0f, 2.0f}}) {
        const float lo = band.first;
        const float hi = band.second;
        auto inBand = [lo, hi](float y) { return lo <= y && y <= hi; };
        CSSEMatrix target;
        target.Create(p.g.w, p.g.h);
        p.mesh.ScanConvertTriangulationMaxNoDeleteInYArea(&target, lo, hi);
        const Image expected = modelEnvelope(kPair, p.g, 1.0f, 0.0f, true, inBand);
        EXPECT_EQ(imageOf(target), expected) << lo;
        EXPECT_GT(countNonZero(expected), 10);
        target.Fill(100.0f);
        p.mesh.ScanConvertTriangulationMinNoDeleteInYArea(&target, lo, hi);
        EXPECT_EQ(imageOf(target), overBackground(modelEnvelope(kPair, p.g, 1.0f, 0.0f, false, inBand), 100.0f));
    }
}

TEST(ScanConvertVariants, ThroughLineClearsPixelsOutsideTheLine)
{
    PairMesh p;
    CSSE3dPolygon line;
    line.Create(4);
    line.SetPoint(0, 4.5f, 4.5f, 0);
    line.SetPoint(1, 9.5f, 4.5f, 0);
    line.SetPoint(2, 9.5f, 9.5f, 0);
    line.SetPoint(3, 4.5f, 9.5f, 0);
    for (bool upper : {true, false}) {
        CSSEMatrix target;
        if (upper)
            p.mesh.ScanConvertThroughLineMax(&target, &line, 0.0f);
        else
            p.mesh.ScanConvertThroughLineMin(&target, &line, 0.0f);
        Image expected = modelEnvelope(kPair, p.g, 1.0f, 0.0f, upper);
        for (int y = 0; y < p.g.h; ++y)
            for (int x = 0; x < p.g.w; ++x)
                if (!(x >= 5 && x <= 9 && y >= 5 && y <= 9))
                    expected[y * p.g.w + x] = 0.0f;
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
            EXPECT_NEAR(target.GetPoint(x, y), inside ? plane(float(x), float(y)) + 2.0f : 0.0f, 1e-5f) << x << "," << y;
        }

    PairMesh p;
    CSSEMatrix lower;
    p.mesh.FastScanConvertTriangulation(&target, 0.0f, true);
    p.mesh.FastScanConvertTriangulation(&lower, 0.0f, false);
    // (x, y, upper, lower): both, first only, second only, outside the first (3 + 12 > 14).
    for (const auto& [x, y, up, low] : {std::array{6.0f, 6.0f, 2.0f, 1.0f}, {3, 3, 1, 1}, {12, 5, 2, 2}, {3, 12, 0, 0}}) {
        EXPECT_EQ(target.GetPoint(int(x), int(y)), up) << x << "," << y;
        EXPECT_EQ(lower.GetPoint(int(x), int(y)), low) << x << "," << y;
    }
    SSEPoint lo = point(-1, -1, -1), hi = point(14, 14, 2);
    p.mesh.FastScanConvertTriangulation_MinMaxPoint(&target, 0.0f, hi, lo, true);
    EXPECT_EQ(target.GetSizeX(), 15);
    EXPECT_EQ(target.GetPoint(7, 7), 3.0f); // mesh point (6, 6), measured from z = -1
    EXPECT_EQ(target.GetPoint(4, 4), 2.0f); // (3, 3): first triangle only
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
        for (size_t i = 0; i < first.size(); ++i)
            expected[i] = first[i] == 0.0f || second[i] == 0.0f ? first[i] + second[i]
                          : upper                                ? std::max(first[i], second[i])
                                                                 : std::min(first[i], second[i]);
        EXPECT_EQ(imageOf(target), expected) << upper;
        EXPECT_GT(countNonZero(expected), countNonZero(first));
    }
}
