#include <gtest/gtest.h>

#include <memory>

#include "mesh/MeshTestUtil.h"

using namespace qzsse::test;

// A deep copy must own every slot: its records point into its own arrays, its neighbour and
// list links into its own records, and it outlives the source unchanged.
TEST(MeshLifeCycle, DeepCopyRepointsEveryLinkAndOutlivesItsSource)
{
    auto source = std::make_unique<CHTriangulation>(12, 0.5f, 2.0f, 3.0f);
    writeGrid(*source, 3, 2);
    source->CalcSTV();
    source->CalcBoundingBox();
    source->CalcNeighbours();
    source->FindBorderTriangles();
    source->SetScanConvResolution(0.25f, 0.75f, 1.5f);

    // Remember the source's structure as indices before it goes away.
    std::vector<std::array<int, 5>> links;
    std::vector<std::array<Quad, 3>> corners;
    const auto indexOf = [&](const t_htriangle* p) { return p ? int(p - source->GetTriangles()) : -1; };
    for (int t = 0; t < 12; ++t) {
        const t_htriangle& r = source->GetTriangles()[t];
        links.push_back({indexOf(r.pNeighbour[0]), indexOf(r.pNeighbour[1]), indexOf(r.pNeighbour[2]),
                         indexOf(r.pNext), r.iTag});
        corners.push_back({lanesOf(*r.pPoint[0]), lanesOf(*r.pPoint[1]), lanesOf(*r.pPoint[2])});
    }
    const int head = indexOf(source->GetTriangleList());
    const Quad maxPoint = lanesOf(source->GetMaxPoint());

    CHTriangulation copy(source.get());
    source.reset();

    ASSERT_EQ(copy.GetNumTriangles(), 12);
    EXPECT_FLOAT_EQ(copy.GetScaleX(), 0.5f);
    EXPECT_FLOAT_EQ(copy.GetScaleZ(), 3.0f);
    EXPECT_TRUE(sameQuad(lanesOf(copy.GetMaxPoint()), maxPoint));
    const t_htriangle* base = copy.GetTriangles();
    const auto copyIndex = [&](const t_htriangle* p) { return p ? int(p - base) : -1; };
    EXPECT_EQ(copyIndex(copy.GetTriangleList()), head);
    for (int t = 0; t < 12; ++t) {
        const t_htriangle& r = base[t];
        EXPECT_EQ(r.iIndex, t);
        EXPECT_EQ(r.pPoint[2], copy.GetEdgeArray() + 3 * t + 2);
        EXPECT_EQ(r.pS, copy.GetSArray() + t);
        const std::array<int, 5> got{copyIndex(r.pNeighbour[0]), copyIndex(r.pNeighbour[1]),
                                     copyIndex(r.pNeighbour[2]), copyIndex(r.pNext), r.iTag};
        EXPECT_EQ(got, links[t]) << "record " << t;
        for (int k = 0; k < 3; ++k)
            EXPECT_TRUE(sameQuad(lanesOf(*r.pPoint[k]), corners[t][k])) << "record " << t << " corner " << k;
    }
}

TEST(MeshLifeCycle, CentreAveragesEveryCornerOfEveryRecord)
{
    CHTriangulation mesh(3, 1.0f, 1.0f, 1.0f);
    setCorner(mesh, 0, 0, 0, 0, 0), setCorner(mesh, 0, 1, 6, 0, 0), setCorner(mesh, 0, 2, 0, 3, 9);
    setCorner(mesh, 1, 0, 3, 0, 0), setCorner(mesh, 1, 1, 3, 3, 0), setCorner(mesh, 1, 2, 0, 3, 9);
    // Record 2 stays zeroed and still counts in the divisor 3 * 3: x sums to 6 + 3 + 3 = 12,
    // y to 3 + 3 + 3 = 9, z to 9 + 9 = 18.
    mesh.CalcCenterPoint();
    const SSEPoint c = mesh.GetCenterPoint();
    EXPECT_FLOAT_EQ(c.x, 12.0f / 9.0f);
    EXPECT_FLOAT_EQ(c.y, 9.0f / 9.0f);
    EXPECT_FLOAT_EQ(c.z, 18.0f / 9.0f);

    EXPECT_EQ(mesh.GetTriangle(-1), nullptr);
    EXPECT_EQ(mesh.GetTriangle(3), nullptr);
    EXPECT_EQ(mesh.GetTriangle(2), mesh.GetTriangles() + 2);
    mesh.FreeTriangulation();
    EXPECT_EQ(mesh.GetNumTriangles(), 0);
    EXPECT_EQ(mesh.GetTriangle(0), nullptr);
}
