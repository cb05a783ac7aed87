#pragma once

#include <cstddef>
#include <memory>
#include <unordered_map>
#include <vector>

#include "qzsse/geometry/CHConvexHull3D.h"

namespace qzsse::detail {

// "vertex sees face": one node in two doubly linked lists, the vertex's and the face's, so
// that either side can drop all its pairs in time proportional to their number. The vertex's
// coordinates (fixed while it waits) and a dense number are copied in, and the vertex
// lists start in an array by that number, so that testing and linking a face's waiting
// points reads the arcs alone and not the scattered vertex records (whose `conflicts`
// stays null).
struct ConflictArc {
    tVertexStructure* vertex;
    tFaceStructure* face;
    ConflictArc* nextOfVertex;
    ConflictArc* prevOfVertex;
    ConflictArc* nextOfFace;
    ConflictArc* prevOfFace;
    long long at[3];
    std::size_t number;
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

    // New pairs go in front of both lists. number: the vertex's dense number (below the
    // count given to ResetMarks).
    void Link(tVertexStructure* v, std::size_t number, tFaceStructure* f);
    // Another pair for the vertex of `like`.
    void Link(const ConflictArc& like, tFaceStructure* f);
    void UnlinkVertex(const tVertexStructure* v);
    void UnlinkFace(tFaceStructure* f);
    // The vertex's pairs, newest first.
    const ConflictArc* ConflictsOf(const tVertexStructure* v) const;

    // One mark per vertex number, compared with a running stamp: whether a vertex was
    // already linked to the face being filled.
    void ResetMarks(std::size_t count) { m_marks.assign(count, 0); }
    unsigned long long NextStamp() { return ++m_stamp; }
    unsigned long long& Mark(std::size_t number) { return m_marks[number]; }

private:
    ConflictArc* allocate();
    void unlink(ConflictArc* a);

    CHConvexHull3D& m_hull;
    std::vector<std::unique_ptr<ConflictArc[]>> m_blocks;
    std::size_t m_usedInLastBlock = 0;
    ConflictArc* m_free = nullptr;
    std::vector<ConflictArc*> m_vertexHeads;
    std::unordered_map<const tVertexStructure*, std::size_t> m_numbers;
    std::vector<unsigned long long> m_marks;
    unsigned long long m_stamp = 0;
};

// What one added point changes, gathered by AddOne's fast form for its CleanUp.
struct HullStepScratch {
    std::vector<tFaceStructure*> visible;
    std::vector<tEdgeStructure*> horizon;
    std::vector<tEdgeStructure*> removed;
    std::vector<tVertexStructure*> orphanCandidates;
};

} // namespace qzsse::detail
