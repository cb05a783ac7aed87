#pragma once

#include <vector>

#include "qzsse/core/SSEPoint.h"

class CHPolygonTriangulator;
class CSSE2dPolygon;
class CSSE3dPolygon;

// Refinement of an ear-clipped polygon triangulation on its own vertices (no points are
// added). The polygon's edges are the constraints; every other edge may be flipped.
//
// Vertex i is the source polygon's point i * step, read unscaled: the triangulator's x/y
// scales do not enter, its triangles' vertex indices do. All decisions use exact orientation
// and in-circle signs on the float x/y. Copies are deep.
class CHPolygonTriangulationRefinement {
public:
    // The triangles of triangulator, which was built from polygon with the same step. A
    // triangulation that stopped early is taken as far as it goes; edges with no neighbour
    // triangle are border edges.
    CHPolygonTriangulationRefinement(const CHPolygonTriangulator& triangulator, const CSSE3dPolygon& polygon, int step = 1);
    // The same for a 2-D source; z is 0.
    CHPolygonTriangulationRefinement(const CHPolygonTriangulator& triangulator, const CSSE2dPolygon& polygon, int step = 1);

    // Lawson flips of non-border edges until each is locally Delaunay: an edge flips when its
    // two triangles form a quadrilateral whose other diagonal gives two counter-clockwise
    // triangles, and either one of its triangles is not counter-clockwise (zero area or
    // turned over; the clipper's area tolerance does not rule it out) or the opposite vertex
    // lies strictly inside the circumcircle. On a complete triangulation the result is the
    // constrained Delaunay triangulation of the polygon (unique when no four vertices are
    // cocircular). Returns the number of flips: few where the clipping is nearly Delaunay,
    // up to quadratic in the vertices for a fan over points in convex position.
    int FlipToConstrainedDelaunay();

    // Removes slivers: triangles of area below minArea, of smallest angle below
    // minAngleDegrees (both measured in double), or not counter-clockwise. A sliver's border edges are tried shortest
    // first; of an edge's two ends, the one whose removal moves the outline less (smaller
    // |area| of the vertex with its two border neighbours) is tried first. The end is merged
    // into the other end of the edge: the sliver disappears, the vertex leaves the border
    // line, the other triangles at it take the kept end. Allowed only when the removed vertex
    // is not reflex (the outline only loses area, never crosses itself) and every changed
    // triangle stays counter-clockwise; else the next choice is tried, and a sliver with no
    // allowed choice (one with no border edge, for one) stays. Ends with
    // FlipToConstrainedDelaunay; repeats while vertices go. Needs a complete triangulation
    // (border vertices - 2 triangles), else does nothing. Returns the vertices removed.
    int CollapseSlivers(float minAngleDegrees, float minArea);

    // The border line: the remaining vertices in polygon order, from the lowest remaining
    // index, with their source points (x, y, z unscaled).
    void GetBorderLinePolygon(CSSE3dPolygon& border) const;

    int GetNumTriangles() const { return static_cast<int>(m_triangles.size()); }
    // Vertex indices of triangle i, counter-clockwise once refined; false for an invalid index.
    bool GetTriangle(int i, int& a, int& b, int& c) const;
    // Source points of triangle i's corners; false for an invalid index.
    bool GetTriangle3D(int i, SSEPoint& a, SSEPoint& b, SSEPoint& c) const;
    int GetNumVertices() const { return static_cast<int>(m_x.size()); }
    int GetNumBorderVertices() const { return m_nBorderVertices; }

private:
    struct Triangle {
        int v[3];
        int neighbour[3];  // across edge v[k] -> v[k+1]; -1 on the border
    };

    std::vector<float> m_x, m_y, m_z;
    std::vector<Triangle> m_triangles;
    std::vector<int> m_next, m_previous;  // border ring of the remaining vertices
    int m_nBorderVertices = 0;

    void takeTriangles(const CHPolygonTriangulator& triangulator);
    void linkNeighbours();
    int orientation(int a, int b, int c) const;
    bool shouldFlip(int t, int k) const;
    void flip(int t, int k, std::vector<int>& stack);
    bool isSliver(const Triangle& t, float minAngleDegrees, float minArea) const;
    bool tryCollapse(int t, std::vector<char>& removedTriangle);
    bool removeVertex(int t, int removed, int kept, std::vector<char>& removedTriangle);
};
