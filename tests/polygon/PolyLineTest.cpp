// Conversions to and from the mesh library's polyline and spline, and the resampling members.

#include <memory>

#include "polygon/PolygonTestUtil.h"
#include "qzsse/base/RyHermiteSpline.h"
#include "qzsse/base/RyPolyLineOld.h"

namespace {

using LinePtr = std::unique_ptr<RyPolyLineOld, void (*)(RyPolyLineOld*)>;

LinePtr MakeLine(const Pts& pts)
{
    auto* line = new RyPolyLineOld();
    line->AddRef();
    for (const P3& p : pts)
        line->AppendVertexTail(RbVector3f(p.x, p.y, p.z));
    return {line, [](RyPolyLineOld* l) { l->Release(); }};
}

Pts Vertices(const RyPolyLineOld& line)
{
    Pts out;
    for (const RyPolyLineOld::Vertex* v = line.GetFirstVertex(); v; v = v->GetNext())
        out.push_back({v->GetPosition().x, v->GetPosition().y, v->GetPosition().z});
    return out;
}

void AddControlPoints(RyHermiteSpline& spline, const Pts& pts)
{
    for (const P3& p : pts)
        spline.AddControlPoint(RbVector3f(p.x, p.y, p.z));
}

const Pts kCcwSquare = {{0, 0, 1}, {2, 0, 2}, {2, 2, 3}, {0, 2, 4}};

Pts Line(int n)
{
    Pts out;
    for (int i = 0; i < n; ++i)
        out.push_back({static_cast<float>(i), static_cast<float>(10 * i), 0});
    return out;
}

} // namespace

// The stand-ins the conversions rest on: the area about a normal (counter-clockwise positive)
// and Catmull-Rom tangents, worked by hand: at t = 0.5 of the first segment of (0,0) (1,0)
// (1,1) the tangents are (1,0) and (0.5,0.5) and the basis 0.5, 0.125, 0.5, -0.125.
TEST(PolyLine, SignedAreaAndHermiteInterpolation)
{
    EXPECT_EQ(MakeLine(kCcwSquare)->ComputeArea(RbVector3f(0, 0, 3)), 4.0f);
    EXPECT_EQ(MakeLine(kCcwSquare)->ComputeArea(RbVector3f(0, 0, -1)), -4.0f);
    RyHermiteSpline spline(false, 1.0f);
    AddControlPoints(spline, {{0, 0, 0}, {1, 0, 0}, {1, 1, 0}});
    EXPECT_EQ(spline.Evaluate(0, 0.5f), RbVector3f(0.5625f, -0.0625f, 0));
}

TEST(Polygon3dFromPolyLine, DropsARepeatedClosingVertex)
{
    // Squared distance 3e-8 <= 1.1920929e-7: the last vertex counts as the start again.
    auto closed = MakeLine({{0, 0, 0}, {1, 0, 0}, {1, 1, 0}, {0.0001f, 0.0001f, 0.0001f}});
    EXPECT_FALSE(CSSE3dPolygon::IsPolyLineValid(closed.get()));
    EXPECT_EQ(Points(CSSE3dPolygon(closed.get(), 1.0f, false, false)), (Pts{{0, 0, 0}, {1, 0, 0}, {1, 1, 0}}));
    // 0.0004^2 = 1.6e-7 is just above it.
    auto open = MakeLine({{0, 0, 0}, {1, 0, 0}, {0.0004f, 0, 0}});
    EXPECT_TRUE(CSSE3dPolygon::IsPolyLineValid(open.get()));
    EXPECT_EQ(CSSE3dPolygon(open.get(), 1.0f, false, false).GetNumPoints(), 3);
}

TEST(Polygon3dFromPolyLine, OrientsClockwiseInputCounterClockwiseOnRequest)
{
    const Pts cw(kCcwSquare.rbegin(), kCcwSquare.rend());
    auto cwLine = MakeLine(cw), ccwLine = MakeLine(kCcwSquare);
    EXPECT_EQ(Points(CSSE3dPolygon(cwLine.get(), 1.0f, false, true)), kCcwSquare);
    EXPECT_EQ(Points(CSSE3dPolygon(cwLine.get(), 1.0f, false, false)), cw);
    EXPECT_EQ(Points(CSSE3dPolygon(ccwLine.get(), 1.0f, false, true)), kCcwSquare);
    auto flat = MakeLine({{0, 0, 0}, {1, 0, 0}, {2, 0, 0}}); // zero area counts as clockwise
    EXPECT_EQ(Points(CSSE3dPolygon(flat.get(), 1.0f, false, true))[0], (P3{2, 0, 0}));
}

TEST(Polygon3dFromPolyLine, ConvertsBackAndBuildsFromASplineSubdivision)
{
    CSSE3dPolygon p;
    Fill(p, kCcwSquare);
    std::unique_ptr<RyPolyLineOld> line(p.ConvertToPolyLine());
    EXPECT_EQ(Vertices(*line), kCcwSquare); // the start is not repeated
    EXPECT_TRUE(line->IsFinished());
    // Pieces of at most 1 in chord: ceil(2.5) = 3 on the first segment, 1 on the second.
    RyHermiteSpline open(false, 1.0f);
    AddControlPoints(open, {{0, 0, 0}, {2.5f, 0, 0}, {2.5f, 1, 0}});
    const CSSE3dPolygon fromOpen(&open, 1.0f, false, false);
    ASSERT_EQ(fromOpen.GetNumPoints(), 5);
    EXPECT_EQ(Points(fromOpen)[3], (P3{2.5f, 0, 0}));
    EXPECT_EQ(Points(fromOpen)[4], (P3{2.5f, 1, 0}));
    RyHermiteSpline closed(true, 100.0f); // closed: the start repeated at the end is dropped
    AddControlPoints(closed, {{0, 0, 0}, {2, 0, 0}, {2, 2, 0}, {0, 2, 0}});
    EXPECT_EQ(Points(CSSE3dPolygon(&closed, 1.0f, false, false)), (Pts{{0, 0, 0}, {2, 0, 0}, {2, 2, 0}, {0, 2, 0}}));
    EXPECT_EQ(CSSE3dPolygon(&closed, 0.5f, true, false).GetNumPoints(), 16); // length 8 resampled
}

TEST(Polygon3dResample, SubsampleKeepsEveryStepthPointAndOptionallyTheLast)
{
    CSSE3dPolygon p;
    Fill(p, Line(6));
    t_resolutiondata r{2, 3, 4};
    p.NormalizeXYZ(r);
    p.CalcBoundingBox();
    p.Subsample(5, false);
    EXPECT_EQ(Points(p), (Pts{{0, 0, 0}, {5, 50, 0}}));
    EXPECT_EQ(Points(p, true), (Pts{{0, 0, 0}, {10, 150, 0}}));
    EXPECT_FALSE(p.IsBoundingBoxCalculated());
    Fill(p, Line(8));
    p.Subsample(3, true);
    EXPECT_EQ(Points(p), (Pts{{0, 0, 0}, {3, 30, 0}, {6, 60, 0}, {7, 70, 0}}));
    Fill(p, Line(7)); // the last point already on the stride is not added twice
    p.Subsample(3, true);
    EXPECT_EQ(p.GetNumPoints(), 3);
}

TEST(Polygon3dResample, RemoveEqualPointsXYKeepsTheFirstOfARun)
{
    CSSE3dPolygon p;
    Fill(p, {{0, 0, 1}, {0, 0, 2}, {1, 0, 3}, {1, 0, 4}, {1, 0, 5}, {1, 1, 6}, {0, 0, 7}, {0, 0, 8}});
    p.RemoveEqualPointsXY();
    EXPECT_EQ(Points(p), (Pts{{0, 0, 1}, {1, 0, 3}, {1, 1, 6}}));
    Fill(p, {{0, 0, 0}, {0, 1, 0}, {1, 1, 0}}); // equal x alone or y alone is no repeat
    p.RemoveEqualPointsXY();
    EXPECT_EQ(p.GetNumPoints(), 3);
}

TEST(Polygon3dResample, ReParametrizeSpacesPointsEquallyAlongTheClosedOutline)
{
    const auto onSquare = [](float s) { // arc length s along (0,0) (4,0) (4,4) (0,4)
        return s < 4 ? P3{s, 0, 0} : s < 8 ? P3{4, s - 4, 0} : s < 12 ? P3{12 - s, 4, 0} : P3{0, 16 - s, 0};
    };
    // Length 16: step 1.6 gives ten points; step 3 gives 16 / 3 rounded = 5 points 3.2 apart.
    for (auto [step, count] : {std::pair{1.6f, 10}, {3.0f, 5}}) {
        CSSE3dPolygon p;
        Fill(p, {{0, 0, 0}, {4, 0, 0}, {4, 4, 0}, {0, 4, 0}});
        p.ReParametrize(step);
        ASSERT_EQ(p.GetNumPoints(), count);
        for (int k = 0; k < count; ++k) {
            EXPECT_NEAR(Points(p)[k].x, onSquare(16.0f * k / count).x, 1e-5f) << k;
            EXPECT_NEAR(Points(p)[k].y, onSquare(16.0f * k / count).y, 1e-5f) << k;
        }
        p.ReParametrize(0.0f); // no positive step: nothing to do
        EXPECT_EQ(p.GetNumPoints(), count);
    }
    CSSE3dPolygon p; // no length to spread points over
    Fill(p, {{1, 1, 1}, {1, 1, 1}});
    p.ReParametrize(0.5f);
    EXPECT_EQ(p.GetNumPoints(), 2);
}
