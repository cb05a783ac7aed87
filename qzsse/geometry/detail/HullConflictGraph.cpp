#include "qzsse/geometry/detail/HullConflictGraph.h"

namespace qzsse::detail {

ConflictGraph::~ConflictGraph()
{
    if (tVertexStructure* v = m_hull.GetVertices()) {
        do {
            v->conflicts = nullptr;
            v = v->next;
        } while (v != m_hull.GetVertices());
    }
    if (tFaceStructure* f = m_hull.GetFaces()) {
        do {
            f->conflicts = nullptr;
            f = f->next;
        } while (f != m_hull.GetFaces());
    }
}

ConflictArc* ConflictGraph::Add(tVertexStructure* v)
{
    ConflictArc& a = m_arcs.emplace_back();
    a.at[0] = v->x;
    a.at[1] = v->y;
    a.at[2] = v->z;
    a.vertex = v;
    a.face = nullptr;
    a.nextOfFace = nullptr;
    v->conflicts = &a;
    return &a;
}

} // namespace qzsse::detail
