#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qzsse/geometry/CHConvexHull3D.h"
#include "qzsse/geometry/detail/HullConflictGraph.h"

namespace qzsse::detail {

// Whether every vertex of the list lies on the paraboloid Z = X^2 + Y^2 with |X|, |Y| at most
// 2^29, so that the plane orientation tests here cannot overflow 64 bits.
bool AllLifted(const tVertexStructure* head);

// Finds, for a plane point lifted onto the paraboloid, a hull face it probably sees: the
// downward faces of the hull of lifted points project to a Delaunay triangulation, so a
// visibility walk over them from a nearby vertex ends in the triangle holding the point or
// at a boundary edge, beside which one of the two faces is seen (see DESIGN.md). Nearby
// vertices come from a bucket grid over the points' box, each cell naming a vertex filed
// there lately; each vertex names one face it bounds (through its `conflicts` field, which
// the destructor clears). The hull checks every answer with its own predicate.
class LiftedPointLocator {
public:
    // The hull's vertex list numbered as it stands, the grid sized for it; the vertices of
    // the faces in the list get a face and a cell.
    explicit LiftedPointLocator(CHConvexHull3D& hull);
    LiftedPointLocator(const LiftedPointLocator&) = delete;
    LiftedPointLocator& operator=(const LiftedPointLocator&) = delete;
    ~LiftedPointLocator();

    // Null when the walk met something it does not expect (no filed vertex, a vertex
    // without a downward face, more steps than faces); else `first`, and for a point beyond
    // the boundary also `second`, are the faces to try, in that order.
    struct Candidates {
        tFaceStructure* first = nullptr;
        tFaceStructure* second = nullptr;
    };
    Candidates Locate(const tVertexStructure* p, std::size_t stepBudget) const;

    // After p's cone faces are made and before the seen faces are freed: vertices that named
    // a seen face forget it, p and the horizon's ends take a cone face (a downward one where
    // they have it) and p is filed in its cell.
    void Update(tVertexStructure* p, const HullStepScratch& step);

private:
    std::size_t cellOf(long long x, long long y) const;
    tFaceStructure* downwardFaceAround(const tVertexStructure* v, tFaceStructure* f) const;

    CHConvexHull3D& m_hull;
    std::vector<ConflictArc> m_entries;   // per vertex: `face` one face it bounds, `number` its own
    std::vector<std::int32_t> m_cells;    // entry number of a vertex filed there, or -1
    long long m_minX = 0, m_minY = 0;
    double m_scaleX = 0.0, m_scaleY = 0.0;
    long long m_sizeX = 1, m_sizeY = 1;
};

} // namespace qzsse::detail
