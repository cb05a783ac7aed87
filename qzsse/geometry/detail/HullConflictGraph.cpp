#include "qzsse/geometry/detail/HullConflictGraph.h"

namespace qzsse::detail {

namespace {
constexpr std::size_t kArcsPerBlock = 4096;
} // namespace

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

void ConflictGraph::Link(tVertexStructure* v, tFaceStructure* f)
{
    ConflictArc* a = m_free;
    if (a) {
        m_free = a->nextOfVertex;
    } else {
        if (m_blocks.empty() || m_usedInLastBlock == kArcsPerBlock) {
            m_blocks.push_back(std::make_unique<ConflictArc[]>(kArcsPerBlock));
            m_usedInLastBlock = 0;
        }
        a = &m_blocks.back()[m_usedInLastBlock++];
    }
    a->vertex = v;
    a->face = f;
    a->prevOfVertex = nullptr;
    a->nextOfVertex = v->conflicts;
    if (v->conflicts)
        v->conflicts->prevOfVertex = a;
    v->conflicts = a;
    a->prevOfFace = nullptr;
    a->nextOfFace = f->conflicts;
    if (f->conflicts)
        f->conflicts->prevOfFace = a;
    f->conflicts = a;
}

void ConflictGraph::unlink(ConflictArc* a)
{
    if (a->prevOfVertex)
        a->prevOfVertex->nextOfVertex = a->nextOfVertex;
    else
        a->vertex->conflicts = a->nextOfVertex;
    if (a->nextOfVertex)
        a->nextOfVertex->prevOfVertex = a->prevOfVertex;
    if (a->prevOfFace)
        a->prevOfFace->nextOfFace = a->nextOfFace;
    else
        a->face->conflicts = a->nextOfFace;
    if (a->nextOfFace)
        a->nextOfFace->prevOfFace = a->prevOfFace;
    a->nextOfVertex = m_free;
    m_free = a;
}

void ConflictGraph::UnlinkVertex(tVertexStructure* v)
{
    while (v->conflicts)
        unlink(v->conflicts);
}

void ConflictGraph::UnlinkFace(tFaceStructure* f)
{
    while (f->conflicts)
        unlink(f->conflicts);
}

} // namespace qzsse::detail
