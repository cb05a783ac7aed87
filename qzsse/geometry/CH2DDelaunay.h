#pragma once

#include "qzsse/geometry/CHConvexHull3D.h"
#include "qzsse/polygon/CSSE2dPolygon.h"

class CHTriangulation;
class CSSE3dPolygon;

// Delaunay triangulation of plane points by lifting: (x, y) becomes the grid point
// (X, Y, X^2 + Y^2) of the 3-D hull, on a grid of 0.1 units, and the downward-facing hull
// faces are the Delaunay triangles. They keep the hull's corner order, which is clockwise
// seen from above (+z). Collinear input throws CHDegenerateHullException.
//
// On top of that two meshes or two border polygons can be joined: each point carries an
// index and a flag naming where it came from, so that its height can be fetched back
// (LoftWith3DTriangulation), and faces leaving the band between the upper and the lower
// border line can be removed (RemoveFacesOutOfBorderLines).
//
// Copies share the lists and the border-line arrays of their source (see CHConvexHull3D).
class CH2DDelaunay : public CHConvexHull3D {
public:
    CH2DDelaunay() = default;
    CH2DDelaunay(const CH2DDelaunay& other) = default;
    CH2DDelaunay& operator=(const CH2DDelaunay& other) = default;
    ~CH2DDelaunay() override = default;

    void AppendVertex(float x, float y, int index, bool flag) { AppendVertex2D(x, y, index, flag); }

    // Builds the hull and keeps its lower faces; counts as CalcConvexHull does.
    void CalcDelaunayTriangulation();
    // z of the face normal (b - a) x (c - a) on the grid coordinates, wrapping as 64-bit
    // integers do when the products overflow.
    long long NormZ(tFaceStructure* face) const;
    // Flags the faces whose normal points down (NormZ < 0, decided exactly even where
    // NormZ wraps) and frees all others. Edges keep no pointer to a freed face: their slot
    // becomes null.
    void LowerFaces();

    // Moves every vertex to the corner its index names, 3 * triangle + corner, of the first
    // mesh if its flag is set, else of the second: grid coordinates trunc(10 v) without the
    // +0.5 of appending. Vertices whose mesh is null or lacks the triangle stay where they are.
    void LoftWith3DTriangulation(CHTriangulation* first, CHTriangulation* second);
    // Removes each face with an edge test point (at a third, the middle and two thirds of
    // the edge, grid units) above the upper border line + tolerance or below the lower one -
    // tolerance, each line's height taken at its point with the nearest x (ClosestPointX).
    // A border line with fewer than two points bounds nothing. Updates the face count.
    void RemoveFacesOutOfBorderLines(float tolerance);

    // Append the corners of the mesh's border triangles (iTag 13) as points with index
    // 3 * triangle + corner and flag fromFirstMesh (true: LoftWith3DTriangulation takes
    // them from its first mesh). The height test keeps, of the border corners, those at or
    // above (Top) or at or below (Bottom) the middle of their z range.
    void GetBorderPointsTop(CHTriangulation* mesh, bool fromFirstMesh);
    void GetBorderPointsBottom(CHTriangulation* mesh, bool fromFirstMesh);

    // Triangulates the band between two polylines given in plane units: the points of upper
    // (index i = point i, flag upperFromFirst) then of lower (flag !upperFromFirst) are
    // appended, the border lines become the two polylines times 10 (grid units), the
    // Delaunay triangulation is built and faces leaving the band by more than one grid
    // step (tolerance 1.0) are removed. A border line's height is read at every second
    // point (ClosestPointX), so steep lines need closely spaced points.
    void CreateTriangulationFromTwoBorderPolygons(CSSE3dPolygon* upper, CSSE3dPolygon* lower, bool upperFromFirst);

    CSSE2dPolygon& GetUpperBorderLine() { return m_UpperBorderLine; }
    CSSE2dPolygon& GetLowerBorderLine() { return m_LowerBorderLine; }

protected:
    void appendBorderPoints(CHTriangulation* mesh, bool fromFirstMesh, bool top);
    // Whether the face's normal points down (the flag LowerFaces sets).
    static bool facesDown(const tFaceStructure* f);
    // LowerFaces after its flagging walk, which found numFaces faces: returns the faces kept
    // and sets numEdges to the edge count.
    int keepLowerFaces(int numFaces, int& numEdges);

    CSSE2dPolygon m_UpperBorderLine;
    CSSE2dPolygon m_LowerBorderLine;
};
