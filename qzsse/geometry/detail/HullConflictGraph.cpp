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

ConflictArc* ConflictGraph::allocate()
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
    return a;
}

void ConflictGraph::Link(tVertexStructure* v, std::size_t number, tFaceStructure* f)
{
    if (number >= m_vertexHeads.size())
        m_vertexHeads.resize(number + 1, nullptr);
    m_numbers.emplace(v, number);
    ConflictArc like{};
    like.vertex = v;
    like.at[0] = v->x;
    like.at[1] = v->y;
    like.at[2] = v->z;
    like.number = number;
    Link(like, f);
}

void ConflictGraph::Link(const ConflictArc& like, tFaceStructure* f)
{
    ConflictArc* a = allocate();
    ConflictArc*& head = m_vertexHeads[like.number];
    a->at[0] = like.at[0];
    a->at[1] = like.at[1];
    a->at[2] = like.at[2];
    a->number = like.number;
    a->vertex = like.vertex;
    a->face = f;
    a->prevOfVertex = nullptr;
    a->nextOfVertex = head;
    if (head)
        head->prevOfVertex = a;
    head = a;
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
        m_vertexHeads[a->number] = a->nextOfVertex;
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

const ConflictArc* ConflictGraph::ConflictsOf(const tVertexStructure* v) const
{
    const auto it = m_numbers.find(v);
    return it == m_numbers.end() ? nullptr : m_vertexHeads[it->second];
}

void ConflictGraph::UnlinkVertex(const tVertexStructure* v)
{
    const auto it = m_numbers.find(v);
    if (it == m_numbers.end())
        return;
    while (ConflictArc* a = m_vertexHeads[it->second])
        unlink(a);
}

void ConflictGraph::UnlinkFace(tFaceStructure* f)
{
    while (f->conflicts)
        unlink(f->conflicts);
}

} // namespace qzsse::detail
