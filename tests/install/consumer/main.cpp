#include "qzsse/qzsse.h"

#include <cstdio>

int main()
{
    CSSEMatrix m;
    m.Create(8, 6);
    m.Fill(2.0f);
    m.TresholdAbove(1.0f, 5.0f);
    float maxValue = 0, minValue = 0;
    m.CalcMinMaxValues(&maxValue, &minValue);
    std::printf("max %g min %g\n", maxValue, minValue);

    // Cells of 2 x 2 samples, all above the threshold: two triangles per cell.
    CHTriangulation mesh(&m, 0.0f, true, 1.0f, 1.0f, 1.0f, 2, 2);
    mesh.CalcNeighbours();

    CH2DDelaunay delaunay;
    delaunay.AppendVertex(0.0f, 0.0f, -1, false);
    delaunay.AppendVertex(4.0f, 0.0f, -1, false);
    delaunay.AppendVertex(0.0f, 3.0f, -1, false);
    delaunay.AppendVertex(4.0f, 3.0f, -1, false);
    delaunay.AppendVertex(1.0f, 1.0f, -1, false);
    delaunay.CalcDelaunayTriangulation();
    CHTriangulation triangles(&delaunay, 1.0f, 1.0f, 1.0f);
    std::printf("mesh %d triangles, Delaunay %d triangles\n", mesh.GetNumTriangles(), triangles.GetNumTriangles());
    return (maxValue == 5.0f && minValue == 5.0f && mesh.GetNumTriangles() > 0 && triangles.GetNumTriangles() == 4)
               ? 0
               : 1;
}
