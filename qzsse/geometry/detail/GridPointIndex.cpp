#include "qzsse/geometry/detail/GridPointIndex.h"

#include "qzsse/geometry/CHConvexHull3D.h"

namespace qzsse::detail {

void GridPointIndex::Rebuild(const tVertexStructure* head)
{
    m_points.clear();
    m_head = head;
    m_tail = head ? head->prev : nullptr;
    m_valid = true;
    if (!head)
        return;
    const tVertexStructure* v = head;
    do {
        m_points.insert({v->x, v->y, v->z});
        v = v->next;
    } while (v != head);
}

} // namespace qzsse::detail
