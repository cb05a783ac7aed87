#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qzsse/geometry/CHConvexHull3D.h"

namespace qzsse::detail {

// One waiting point in the block of a face it sees: its coordinates (fixed while it waits)
// and its number in the order of the construction walk. A face's waiting points sit in one
// contiguous block, so that moving them on reads memory in order; the block's first entry
// also names the face and the block length (`face` null: the block is no longer used).
struct ConflictArc {
    long long at[3];
    tFaceStructure* face;
    std::uint32_t number;
    std::uint32_t count;
};

// Every waiting point knows one face it sees (none: it lies inside the hull and will stay
// there). One face is enough: the faces a point sees are connected, so they are found by
// walking face adjacency from any one of them. The blocks live in one array sized at the
// start, whose unused blocks are squeezed out when it fills; a face's `conflicts` names its
// block and is cleared when the graph goes, so none is left dangling after an exception.
class ConflictGraph {
public:
    explicit ConflictGraph(CHConvexHull3D& hull) : m_hull(hull) {}
    ConflictGraph(const ConflictGraph&) = delete;
    ConflictGraph& operator=(const ConflictGraph&) = delete;
    ~ConflictGraph();

    // Numbers the waiting vertices 0, 1, ... in the order given.
    void Start(const std::vector<tVertexStructure*>& waiting);
    std::size_t Size() const { return m_vertexOf.size(); }
    tVertexStructure* VertexOf(std::uint32_t number) const { return m_vertexOf[number]; }
    tFaceStructure* FaceOf(std::uint32_t number) const { return m_faceOf[number]; }
    void SetFace(std::uint32_t number, tFaceStructure* f) { m_faceOf[number] = f; }
    // Gives the face a block holding the entries (the face's own, once per face), which
    // become the waiting points of that face.
    void GiveBlock(tFaceStructure* f, const std::vector<ConflictArc>& entries);
    // The entries of the face's block, which is released: the caller moves them on.
    const ConflictArc* TakeBlock(tFaceStructure* f, std::size_t& count);

private:
    void squeeze();

    CHConvexHull3D& m_hull;
    std::vector<ConflictArc> m_blocks;  // never reallocated: faces point into it
    std::size_t m_used = 0;
    std::size_t m_facesWithBlocks = 0;  // none left: no face to clear at the end
    std::vector<tVertexStructure*> m_vertexOf;
    std::vector<tFaceStructure*> m_faceOf;
};

// What one added point changes, gathered by AddOne's fast form for its CleanUp.
struct HullStepScratch {
    std::vector<tFaceStructure*> visible;
    std::vector<tEdgeStructure*> horizon;
    std::vector<tFaceStructure*> cones;                 // the cone face of horizon[i]
    std::vector<std::vector<ConflictArc>> moved;        // the points moved on to cones[i]
    std::vector<tEdgeStructure*> removed;
    std::vector<tVertexStructure*> orphanCandidates;
};

} // namespace qzsse::detail
