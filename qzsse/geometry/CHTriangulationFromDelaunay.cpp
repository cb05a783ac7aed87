#include <cmath>

#include "qzsse/geometry/CH2DDelaunay.h"
#include "qzsse/mesh/CHTriangulation.h"

// The scales are kept as the mesh's scales; the corners are not multiplied by them. Every
// vertex normal of a triangle is its face normal, since a Delaunay face list carries no
// vertex adjacency.
CHTriangulation::CHTriangulation(CH2DDelaunay* delaunay, float scaleX, float scaleY, float scaleZ) : CHTriangulation()
{
    BaseInitialization(scaleX, scaleY, scaleZ);
    CreateTriangulation(delaunay->CalcNumFaces());
    tFaceStructure* face = delaunay->GetFaces();
    for (int i = 0; i < m_iNumTriangles; ++i, face = face->next) {
        t_htriangle& t = m_pTriangles[i];
        for (int k = 0; k < 3; ++k)
            *t.pPoint[k] = delaunay->GetVertexFromFace(face, k);
        const SSEPoint& a = *t.pPoint[0];
        const SSEPoint& b = *t.pPoint[1];
        const SSEPoint& c = *t.pPoint[2];
        const float sx = b.x - a.x, sy = b.y - a.y, sz = b.z - a.z;
        const float tx = c.x - a.x, ty = c.y - a.y, tz = c.z - a.z;
        SSEPoint n;
        n.x = sy * tz - sz * ty;
        n.y = sz * tx - sx * tz;
        n.z = sx * ty - sy * tx;
        n.w = 0.0f;
        const float length = std::sqrt(n.x * n.x + n.y * n.y + n.z * n.z);
        if (length > 0.0f) {
            n.x = n.x / length;
            n.y = n.y / length;
            n.z = n.z / length;
        }
        *t.pMainNormal = n;
        for (int k = 0; k < 3; ++k)
            *t.pNormal[k] = n;
    }
    CalcSTV();
    CalcBoundingBox();
}
