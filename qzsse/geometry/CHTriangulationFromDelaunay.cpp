#include "qzsse/geometry/CH2DDelaunay.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/detail/FaceNormal.h"

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
        qzsse::detail::SetFaceNormalEverywhere(t);
    }
    CalcSTV();
    CalcBoundingBox();
}
