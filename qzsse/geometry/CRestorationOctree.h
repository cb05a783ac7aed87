#pragma once

#include <vector>

#include "qzsse/core/SSEPoint.h"

class CHTriangulation;

// Octree over the triangles of a mesh for nearest-surface and ray queries. Each node splits
// its cube into octants and files a triangle by the octant of its centroid; every node keeps
// the tight box of the triangles below it, so a triangle is stored once and a query prunes
// by box distance. The corners are copied at construction: the mesh may change or go away
// afterwards without affecting the tree.
//
// Inputs are single precision; every distance, projection and intersection is computed in
// double from the float corners. Ties: of triangles at the same (double) squared distance or
// ray parameter the lowest triangle index wins, so results do not depend on the tree shape.
// Queries are const and touch no shared state.
class CRestorationOctree {
public:
    // Files triangles 0 .. GetNumTriangles()-1 of mesh (null or empty: an empty tree). A leaf
    // holds at most leafSize triangles (at least 1) unless their centroids cannot be parted.
    explicit CRestorationOctree(const CHTriangulation* mesh, int leafSize = 8);

    int GetNumTriangles() const { return m_nTriangles; }
    int GetNumNodes() const { return static_cast<int>(m_nodes.size()); }

    // Index of the triangle nearest to p (closed triangles, Euclidean distance); -1 when the
    // tree is empty. closest (w = 0) and squaredDistance are written when not null.
    int FindClosestPoint(const SSEPoint& p, SSEPoint* closest, double* squaredDistance) const;
    int FindClosestTriangle(const SSEPoint& p) const { return FindClosestPoint(p, nullptr, nullptr); }

    // First triangle met by the ray origin + t * direction, t >= 0 (closed triangles), or -1.
    // A ray lying in a triangle's plane does not hit it; a zero direction hits nothing.
    // hit (w = 0) and t are written when not null.
    int FindFirstRayHit(const SSEPoint& origin, const SSEPoint& direction, SSEPoint* hit, double* t) const;

private:
    struct Node {
        float lo[3], hi[3];   // tight box of the node's triangles
        int first;            // leaf: first triangle slot; inner: first child node
        int count;            // leaf: triangle count; inner: -(number of children)
    };

    // Fills node self with slots first .. first+count-1 of the cube (centre, half) and files
    // its children at the back of m_nodes.
    void build(int self, int first, int count, const double centre[3], double half, int depth);

    int m_nTriangles = 0;
    int m_nLeafSize = 8;
    std::vector<Node> m_nodes;        // node 0 is the root
    std::vector<float> m_corners;     // 9 floats per slot, slots in leaf order
    std::vector<int> m_index;         // mesh index of each slot
    std::vector<float> m_centroids;   // build scratch, released after construction
};
