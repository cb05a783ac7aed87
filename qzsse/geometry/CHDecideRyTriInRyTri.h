#pragma once

#include <vector>

#include "qzsse/core/SSEPoint.h"

class CHTriangulation;

// Containment in a closed triangle mesh, decided exactly on a 64-bit integer grid: every
// coordinate v (mesh corners and queries alike) becomes trunc(v * scale + 0.5), computed in
// double, and from there on only exact integer signs are used. |v * scale| must stay below
// 2^62.
//
// A point is inside when a vertical ray from it crosses the surface an odd number of times;
// the ray is moved off edges and corners by a symbolic shift (x + e, y + e^2), so the parity
// is exact for any closed mesh, whatever its orientation, and self-touching surfaces count
// as the crossings they make. The mesh is closed when every edge (between distinct grid
// corners) is used by an even number of triangles; on a mesh that is not closed every
// query returns c_iNotClosed.
//
// Results: +1 inside, -1 outside, 0 touching the surface (a point on a triangle, edges and
// corners included, or a triangle or mesh meeting or crossing the surface).
class CHDecideRyTriInRyTri {
public:
    static constexpr int c_iNotClosed = -2;

    // Snaps and indexes the first GetNumTriangles() records of mesh; the mesh is not kept.
    CHDecideRyTriInRyTri(const CHTriangulation* mesh, double scale);

    bool IsClosed() const { return m_bClosed; }
    double GetScale() const { return m_dScale; }

    int DecidePoint(const SSEPoint& p) const;
    // +1 / -1 when the whole closed triangle lies strictly inside / outside, else 0. A
    // triangle without area on the grid is decided as its edges; triangles of the closed
    // mesh without area are not tested for crossings (their edges belong to others).
    int DecideTriangle(const SSEPoint& a, const SSEPoint& b, const SSEPoint& c) const;
    // +1 / -1 when every triangle of mesh is strictly inside / outside, else 0; a mesh with
    // no triangles gives +1. A mesh outside may still enclose this one.
    int DecideTriangulation(const CHTriangulation* mesh) const;

private:
    struct Corner {
        long long v[3];
    };
    struct Triangle {
        Corner c[3];
        long long lo[3], hi[3];
        int orient;   // sign of the xy projection's orientation; 0 for vertical triangles
        bool flat;    // no area on the grid
    };

    Corner snap(const SSEPoint& p) const;
    int decideSnapped(const Corner& p) const;
    int cellX(long long x) const;
    int cellY(long long y) const;
    // Indices of the triangles whose boxes meet the box lo..hi, each once.
    void candidates(const long long lo[3], const long long hi[3], std::vector<int>& out) const;

    double m_dScale;
    bool m_bClosed = true;
    std::vector<Triangle> m_triangles;
    long long m_lo[2] = {0, 0}, m_hi[2] = {0, 0};
    int m_nCellsX = 1, m_nCellsY = 1;
    std::vector<int> m_cellStart;   // m_nCellsX * m_nCellsY + 1 offsets into m_cellTriangles
    std::vector<int> m_cellTriangles;
};
