#include "qzsse/geometry/detail/HullConflictGraph.h"

#include <algorithm>

namespace qzsse::detail {

ConflictGraph::~ConflictGraph()
{
    // After a construction that ran to its end every block has been taken.
    if (m_facesWithBlocks == 0)
        return;
    if (tFaceStructure* f = m_hull.GetFaces()) {
        do {
            f->conflicts = nullptr;
            f = f->next;
        } while (f != m_hull.GetFaces());
    }
}

void ConflictGraph::Start(const std::vector<tVertexStructure*>& waiting)
{
    m_vertexOf = waiting;
    m_faceOf.assign(waiting.size(), nullptr);
    // Live entries never outnumber the waiting points, so the array is squeezed at most
    // once per that many entries written.
    m_blocks.assign(2 * waiting.size() + 64, ConflictArc{});
    m_used = 0;
}

void ConflictGraph::GiveBlock(tFaceStructure* f, const std::vector<ConflictArc>& entries)
{
    if (entries.empty())
        return;
    if (m_used + entries.size() > m_blocks.size())
        squeeze();
    ConflictArc* block = m_blocks.data() + m_used;
    std::copy(entries.begin(), entries.end(), block);
    block->face = f;
    block->count = static_cast<std::uint32_t>(entries.size());
    m_used += entries.size();
    if (!f->conflicts)
        ++m_facesWithBlocks;
    f->conflicts = block;
}

const ConflictArc* ConflictGraph::TakeBlock(tFaceStructure* f, std::size_t& count)
{
    ConflictArc* block = f->conflicts;
    f->conflicts = nullptr;
    if (!block) {
        count = 0;
        return nullptr;
    }
    --m_facesWithBlocks;
    block->face = nullptr;
    count = block->count;
    return block;
}

// Slides the blocks still in use to the front, in order.
void ConflictGraph::squeeze()
{
    std::size_t to = 0;
    for (std::size_t from = 0; from < m_used;) {
        const std::size_t n = m_blocks[from].count;
        if (tFaceStructure* f = m_blocks[from].face) {
            if (to != from)
                std::copy(m_blocks.begin() + std::ptrdiff_t(from), m_blocks.begin() + std::ptrdiff_t(from + n),
                          m_blocks.begin() + std::ptrdiff_t(to));
            f->conflicts = m_blocks.data() + to;
            to += n;
        }
        from += n;
    }
    m_used = to;
}

} // namespace qzsse::detail
