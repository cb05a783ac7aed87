#include <vector>

#include "qzsse/geometry/CH2DDelaunay.h"
#include "qzsse/geometry/CHPolygonTriangulator.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/detail/FaceNormal.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

SSEPoint pointOf(const CSSE3dPolygon& polygon, int i)
{
    SSEPoint p;
    polygon.GetPoint(i, p.x, p.y, p.z);
    p.w = 0.0f;
    return p;
}

// Writes the triangles, already counter-clockwise seen from +z, with face normals as vertex
// normals, and computes what every constructor computes.
void fill(CHTriangulation& mesh, const std::vector<SSEPoint>& corners)
{
    const int n = static_cast<int>(corners.size() / 3);
    mesh.CreateTriangulation(n);
    t_htriangle* records = mesh.GetTriangles();
    for (int i = 0; i < n; ++i) {
        t_htriangle& t = records[i];
        for (int k = 0; k < 3; ++k)
            *t.pPoint[k] = corners[3 * static_cast<size_t>(i) + static_cast<size_t>(k)];
        qzsse::detail::SetFaceNormalEverywhere(t);
    }
    mesh.CalcSTV();
    mesh.CalcBoundingBox();
    if (n > 0)
        mesh.CalcCenterPoint();
}

} // namespace

void CHTriangulation::CreateTriangulationFromPolygon(CSSE3dPolygon* polygon)
{
    if (m_pMinPoint == nullptr)
        BaseInitialization(1.0f, 1.0f, 1.0f);
    int count = polygon->GetNumPoints();
    if (count > 1) {
        const SSEPoint first = pointOf(*polygon, 0), last = pointOf(*polygon, count - 1);
        if (first.x == last.x && first.y == last.y && first.z == last.z)
            --count;
    }
    // Doubled signed area of the outline in double, to hand the clipper a counter-clockwise ring.
    double area = 0.0;
    for (int i = 0; i < count; ++i) {
        const SSEPoint a = pointOf(*polygon, i), b = pointOf(*polygon, (i + 1) % count);
        area += static_cast<double>(a.x) * b.y - static_cast<double>(b.x) * a.y;
    }
    CSSE3dPolygon ring;
    ring.Create(count);
    for (int i = 0; i < count; ++i) {
        const SSEPoint p = pointOf(*polygon, area < 0.0 ? count - 1 - i : i);
        ring.SetPoint(i, p.x, p.y, p.z);
    }

    std::vector<SSEPoint> corners;
    if (count >= 3) {
        CHPolygonTriangulator triangulator(&ring, 1, 1.0f, 1.0f, 1.0f, false);
        corners.resize(3 * static_cast<size_t>(triangulator.GetNumTriangles()));
        for (int i = 0; i < triangulator.GetNumTriangles(); ++i)
            triangulator.GetTriangle3D(i, corners[3 * static_cast<size_t>(i)], corners[3 * static_cast<size_t>(i) + 1],
                                       corners[3 * static_cast<size_t>(i) + 2]);
    }
    for (SSEPoint& p : corners)
        p.w = 0.0f;
    fill(*this, corners);
}

void CHTriangulation::CreateTriangulationFromTwoBorderPolygons(CSSE3dPolygon* upper, CSSE3dPolygon* lower)
{
    if (m_pMinPoint == nullptr)
        BaseInitialization(1.0f, 1.0f, 1.0f);
    CH2DDelaunay delaunay;
    delaunay.CreateTriangulationFromTwoBorderPolygons(upper, lower, true);
    std::vector<SSEPoint> corners;
    for (tFaceStructure* face = delaunay.GetFaces(); face != nullptr; face = face->next) {
        // The hull gives its lower faces clockwise seen from +z: reversed here.
        for (const int k : {0, 2, 1}) {
            const tVertexStructure* v = face->vertex[k];
            corners.push_back(pointOf(v->bFlag ? *upper : *lower, v->iIndex));
        }
        if (face->next == delaunay.GetFaces())
            break;
    }
    fill(*this, corners);
}
