#include <functional>
#include <tuple>

#include "polygon/PolygonTestUtil.h"
#include "qzsse/contour/CPixelChain.h"

namespace {

void ExpectSSE(const SSEPoint& p, P3 xyz)
{
    EXPECT_EQ((P3{p.x, p.y, p.z}), xyz);
    EXPECT_EQ(p.w, 0.0f);
}

} // namespace

TEST(Polygon3dAccess, OutOfRangeIsIgnoredAndPartialSettersKeepTheirOrder)
{
    CSSE3dPolygon p;
    Fill(p, {{1, 2, 3}, {4, 5, 6}});
    p.SetPoint(-1, 9, 9, 9);
    p.SetPoint(2, 9, 9, 9);
    p.SetPointXY(2, 9, 9);
    float x = 7, y = 7, z = 7;
    p.GetPoint(2, x, y, z);
    p.GetPointZY(-1, z, y);
    EXPECT_EQ((P3{x, y, z}), (P3{7, 7, 7}));
    SSEPoint s;
    s.m = _mm_set1_ps(5.0f);
    p.GetPointSSE(2, s);
    ExpectSSE(s, {0, 0, 0});
    p.GetPointXYSSE(1, s);
    ExpectSSE(s, {4, 5, 0});
    p.SetPointZY(0, 30, 20);
    p.SetPointX(1, 10);
    EXPECT_EQ(Points(p), (Pts{{1, 20, 30}, {10, 5, 6}}));
}

// The closed form takes the truncating remainder, so a negative index stays out of range.
TEST(Polygon3dAccess, ClosedIndexTruncatesWhileModuloWraps)
{
    CSSE3dPolygon p;
    Fill(p, {{1, 1, 1}, {2, 2, 2}, {3, 3, 3}});
    for (auto [i, closed, modulo] : {std::tuple{3, 1.0f, 1.0f}, {-1, 0.0f, 3.0f}, {-5, 0.0f, 2.0f}, {7, 2.0f, 2.0f}}) {
        SSEPoint a, b;
        p.GetPointSSEClosed(i, a);
        p.GetPointSSEModulo(i, b);
        ExpectSSE(a, {closed, closed, closed});
        ExpectSSE(b, {modulo, modulo, modulo});
    }
}

TEST(Polygon3dStorage, EveryCoordinateWriteClearsTheBoxFlag)
{
    CSSE3dPolygon p, empty;
    Fill(p, {{1, 2, 3}, {4, 5, 6}});
    SSEPoint s;
    s.m = _mm_setr_ps(1, 1, 1, 0);
    t_resolutiondata r{1, 1, 1};
    const std::pair<std::function<void()>, bool> writes[] = {
        {[&] { p.SetPoint(0, 1, 1, 1); }, false}, {[&] { p.SetPointY(1, 0); }, false},
        {[&] { p.SetPointXZ(0, 1, 1); }, false},  {[&] { p.SetPointSSE(1, s); }, false},
        {[&] { p.SetAllZValues(2); }, false},     {[&] { p.AddValueToAllXValues(1); }, false},
        {[&] { p.Create(3); }, false},            {[&] { p.SetPointNormalized(0, 1, 1, 1); }, false},
        {[&] { p.NormalizeXYZ(r); }, true},       {[&] { p.Free(); }, false},
        {[&] { empty.Free(); }, true}, // Free of an empty polygon does nothing at all
    };
    for (size_t k = 0; k < std::size(writes); ++k) {
        p.CalcBoundingBox();
        empty.CalcBoundingBox();
        writes[k].first();
        EXPECT_EQ(p.IsBoundingBoxCalculated() && empty.IsBoundingBoxCalculated(), writes[k].second) << k;
    }
    EXPECT_EQ(p.GetNumPoints(), 0);
}

// Copies write their points after taking the flag, and point writes clear it.
TEST(Polygon3dStorage, CopiesDropTheFlagButCreateSimilarKeepsIt)
{
    CSSE3dPolygon src, assigned, similar;
    Fill(src, {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}, {1, 1, 1}, {-2, 2, 2}});
    src.SetPointNormalized(4, 0.5f, 0.25f, 0.125f);
    src.CalcBoundingBox();
    Fill(assigned, {{0, 0, 0}});
    assigned = src;
    CSSE3dPolygon constructed(src);
    for (const CSSE3dPolygon* copy : {&assigned, &constructed}) {
        EXPECT_EQ(Points(*copy), Points(src));
        EXPECT_EQ(Points(*copy, true)[4], (P3{0.5f, 0.25f, 0.125f}));
        EXPECT_FALSE(copy->IsBoundingBoxCalculated());
        ExpectSSE(copy->GetTopRight(), {7, 8, 9}); // the records travel, the flag does not
    }
    similar.CreateSimilar(&src);
    EXPECT_EQ(Points(similar), Points(src));
    EXPECT_TRUE(similar.IsBoundingBoxCalculated());
    ExpectSSE(similar.GetBottomLeft(), {-2, 1, 1});
    assigned = CSSE3dPolygon();
    EXPECT_EQ(assigned.GetNumPoints(), 0);
}

// Seeds of +-1e6: an empty box comes out inverted, a far side is clamped to the seed.
TEST(Polygon3dBox, SeedsBoundTheBoxAndPaddingTakesNoPart)
{
    CSSE3dPolygon p;
    p.CalcBoundingBox();
    ExpectSSE(p.GetBottomLeft(), {1e6f, 1e6f, 1e6f});
    ExpectSSE(p.GetTopRight(), {-1e6f, -1e6f, -1e6f});
    Fill(p, {{2e6f, 1, -3e6f}, {3e6f, 2, -2e6f}});
    p.CalcBoundingBox();
    ExpectSSE(p.GetBottomLeft(), {1e6f, 1, -3e6f});
    ExpectSSE(p.GetTopRight(), {3e6f, 2, -1e6f});
    Fill(p, {{10, 20, 30}, {12, 25, 31}, {11, 21, 35}, {15, 22, 33}, {14.5f, 24, 34}}); // 3 padding slots
    float lo[3], hi[3];
    p.GetBoundingBox3D(lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]); // computes the stale box first
    EXPECT_EQ((std::vector<float>{lo[0], lo[1], lo[2], hi[0], hi[1], hi[2]}),
              (std::vector<float>{10, 20, 30, 15, 25, 35}));
    Fill(p, {{-1.7f, -2.2f, 0}, {3.9f, 4.99f, 0}});
    int b[4];
    p.GetBoundingBox2D(b[0], b[1], b[2], b[3]); // truncated toward zero
    EXPECT_EQ((std::vector<int>{b[0], b[1], b[2], b[3]}), (std::vector<int>{-1, -2, 3, 4}));
}

// Ten additions of 0.1f give one ulp above 1 where one division of the sum gives 1.
TEST(Polygon3dDerived, CentreAddsEachPointDividedByCount)
{
    CSSE3dPolygon p;
    SSEPoint c;
    p.CalcGeometricCenter();
    p.GetGeometricCenter(c);
    ExpectSSE(c, {0, 0, 0});
    Fill(p, Pts(10, P3{1, -2, 0}));
    p.CalcGeometricCenter();
    p.GetGeometricCenter(c);
    ExpectSSE(c, {std::nextafter(1.0f, 2.0f), -std::nextafter(2.0f, 3.0f), 0});
}

// Areas are twice the signed area (positive counter-clockwise), neither halved nor absolute.
TEST(Polygon3dDerived, CircumferencesAndProjectedAreasFollowThePlainSums)
{
    CSSE3dPolygon p;
    Fill(p, {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0, 1, 0}});
    EXPECT_EQ(p.CalcCircumference(), 4.0f);
    EXPECT_EQ(p.CalcCircumferenceOpen(), 3.0f);
    EXPECT_EQ(p.CalcXYArea(), 2.0f);
    Fill(p, {{0, 7, 0}, {4, 7, 0}, {0, 7, 3}}); // (x, z) triangle of doubled area 12
    EXPECT_EQ(p.CalcXZArea(), 12.0f);
    EXPECT_EQ(p.CalcXYArea(), 0.0f);
    Fill(p, {{1, 0, 0}, {1, 0, 2}, {1, 2, 0}}); // clockwise in (y, z)
    EXPECT_EQ(p.CalcYZArea(), -4.0f);
    Fill(p, {{5, 5, 5}});
    EXPECT_EQ(p.CalcCircumference() + p.CalcCircumferenceOpen() + p.CalcXYArea(), 0.0f);

    std::mt19937 rng(1);
    for (int n : {2, 3, 5, 9, 14}) { // whole groups of four and tails, to the bit
        const Pts q = RandomPoints(rng, n, 100.0f);
        Fill(p, q);
        float closed = 0, open = 0, area = 0;
        for (int i = 0; i < n; ++i) {
            const P3 a = q[i], b = q[(i + 1) % n];
            const float d = std::sqrt((b.x - a.x) * (b.x - a.x) + (b.y - a.y) * (b.y - a.y) + (b.z - a.z) * (b.z - a.z));
            closed += d;
            open += (i < n - 1) ? d : 0.0f;
            area += a.x * b.y - b.x * a.y;
        }
        EXPECT_EQ(p.CalcCircumference(), closed) << n;
        EXPECT_EQ(p.CalcCircumferenceOpen(), open) << n;
        EXPECT_EQ(p.CalcXYArea(), area) << n;
    }
}

TEST(Polygon3dDerived, WholeCoordinateEditsNormalizationAndDebugText)
{
    CSSE3dPolygon p;
    Fill(p, {{1, 2, 3}, {4, 5, 6}, {7, 8, 9}, {10, 11, 12}, {13, 14, 15}});
    p.AddValueToAllYValues(0.5f);
    p.SetAllZValues(-1);
    t_resolutiondata r{2.0f, 0.5f, 4.0f};
    p.NormalizeXYZ(r);
    EXPECT_EQ(Points(p)[4], (P3{13, 14.5f, -1}));
    EXPECT_EQ(Points(p, true)[4], (P3{26, 7.25f, -4}));
    EXPECT_EQ(Points(p, true)[0], (P3{2, 1.25f, -4}));
    Fill(p, {{1, 2.5f, -3.125f}, {0.0004f, 1000, 0}});
    TempFile file;
    p.DebugSaveXYZ(file.Path());
    const Bytes text = file.ReadBytes();
    EXPECT_EQ(std::string(text.begin(), text.end()), "1.000 2.500 -3.125\n0.000 1000.000 0.000\n");
}

TEST(Polygon3dConstruction, FromPixelChainTakesEveryStepthPixel)
{
    CPixelChain chain, none;
    for (int i = 0; i < 10; ++i)
        chain.AddPoint(i, 100 + i, 55.0f);
    EXPECT_EQ(Points(CSSE3dPolygon(chain, 3)), (Pts{{0, 100, 0}, {3, 103, 0}, {6, 106, 0}}));
    const Pts all = Points(CSSE3dPolygon(chain, 1));
    EXPECT_EQ(all.size(), 10u);
    EXPECT_EQ(all[9], (P3{9, 109, 0}));
    EXPECT_EQ(CSSE3dPolygon(chain, 11).GetNumPoints(), 0);
    EXPECT_EQ(CSSE3dPolygon(none, 0).GetNumPoints(), 0);
}
