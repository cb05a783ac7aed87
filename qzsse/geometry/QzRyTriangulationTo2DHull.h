#pragma once

#include <memory>

class CHConvexHull2D;
class CHTriangulation;
class CSSE2dPolygon;
class CSSE3dPolygon;

// Convex hull in the xy plane of the corners of a mesh's triangles 0 .. GetNumTriangles()-1,
// computed in the constructor by CHConvexHull2D, whose rules (tolerance, clockwise order
// ending at the lowest point, no two hulls on two threads at once) it keeps. Corners sharing
// an xy position enter once, with the z of the first of them in triangle and corner order.
class QzRyTriangulationTo2DHull {
public:
    explicit QzRyTriangulationTo2DHull(const CHTriangulation* mesh);
    ~QzRyTriangulationTo2DHull();
    QzRyTriangulationTo2DHull(const QzRyTriangulationTo2DHull&) = delete;
    QzRyTriangulationTo2DHull& operator=(const QzRyTriangulationTo2DHull&) = delete;

    // Number of distinct xy corners the hull was built from.
    int GetNumCorners() const { return m_nCorners; }
    void ObtainConvexHull2D(CSSE2dPolygon* polygon);
    // The hull with each point's z.
    void ObtainConvexHull3D(CSSE3dPolygon* polygon);

private:
    int m_nCorners = 0;
    std::unique_ptr<CHConvexHull2D> m_pHull;
};
