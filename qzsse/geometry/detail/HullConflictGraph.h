#pragma once

#include <cstddef>
#include <memory>
#include <vector>

#include "qzsse/geometry/CHConvexHull3D.h"

namespace qzsse::detail {

// "vertex sees face": one node in two doubly linked lists, the vertex's and the face's, so
// that either side can drop all its pairs in time proportional to their number.
struct ConflictArc {
    tVertexStructure* vertex;
    tFaceStructure* face;
    ConflictArc* nextOfVertex;
    ConflictArc* prevOfVertex;
    ConflictArc* nextOfFace;
    ConflictArc* prevOfFace;
};

// The conflict pairs of a growing hull, in blocks that live as long as the graph. Links
// into the records are cleared when the graph goes, so none is left dangling after an
// exception.
class ConflictGraph {
public:
    explicit ConflictGraph(CHConvexHull3D& hull) : m_hull(hull) {}
    ConflictGraph(const ConflictGraph&) = delete;
    ConflictGraph& operator=(const ConflictGraph&) = delete;
    ~ConflictGraph();

    // New pairs go in front of both lists.
    void Link(tVertexStructure* v, tFaceStructure* f);
    void UnlinkVertex(tVertexStructure* v);
    void UnlinkFace(tFaceStructure* f);

private:
    void unlink(ConflictArc* a);

    CHConvexHull3D& m_hull;
    std::vector<std::unique_ptr<ConflictArc[]>> m_blocks;
    std::size_t m_usedInLastBlock = 0;
    ConflictArc* m_free = nullptr;
};

// What one added point changes, gathered by AddOne's fast form for its CleanUp.
struct HullStepScratch {
    std::vector<tFaceStructure*> visible;
    std::vector<tEdgeStructure*> horizon;
    std::vector<tEdgeStructure*> removed;
    std::vector<tVertexStructure*> orphanCandidates;
};

} // namespace qzsse::detail
