#pragma once

#include <cstddef>
#include <vector>

#include "qzsse/geometry/CHConvexHull3D.h"

namespace qzsse::detail {

// A point not yet added and one face it sees (null: it sees none, so it lies inside the
// hull and will stay there). One face is enough: the faces a point sees are connected, so
// they are found by walking face adjacency from any one of them. The point's coordinates
// (fixed while it waits) are copied in, so that testing a face's waiting points reads the
// arcs alone and not the scattered vertex records.
struct ConflictArc {
    long long at[3];
    tVertexStructure* vertex;
    tFaceStructure* face;
    ConflictArc* nextOfFace;        // the next point waiting on the same face
};

// The arcs of a growing hull, one per waiting point, in one array sized at the start.
// A waiting vertex's `conflicts` names its arc and a face's `conflicts` starts the chain
// of points waiting on it; those links are cleared when the graph goes, so none is left
// dangling after an exception.
class ConflictGraph {
public:
    explicit ConflictGraph(CHConvexHull3D& hull) : m_hull(hull) {}
    ConflictGraph(const ConflictGraph&) = delete;
    ConflictGraph& operator=(const ConflictGraph&) = delete;
    ~ConflictGraph();

    // Room for every arc: the array never moves afterwards.
    void Reserve(std::size_t count) { m_arcs.reserve(count); }
    // The arc of a waiting vertex, seeing no face yet.
    ConflictArc* Add(tVertexStructure* v);
    // Puts the arc in front of the face's chain.
    static void Assign(ConflictArc* a, tFaceStructure* f)
    {
        a->face = f;
        a->nextOfFace = f->conflicts;
        f->conflicts = a;
    }

private:
    CHConvexHull3D& m_hull;
    std::vector<ConflictArc> m_arcs;
};

// What one added point changes, gathered by AddOne's fast form for its CleanUp.
struct HullStepScratch {
    std::vector<tFaceStructure*> visible;
    std::vector<tEdgeStructure*> horizon;
    std::vector<tFaceStructure*> cones;     // the cone face of horizon[i]
    std::vector<tEdgeStructure*> removed;
    std::vector<tVertexStructure*> orphanCandidates;
};

} // namespace qzsse::detail
