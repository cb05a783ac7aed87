#include "qzsse/geometry/detail/GridPointIndex.h"

#include <algorithm>

#include "qzsse/geometry/CHConvexHull3D.h"

namespace qzsse::detail {

void GridPointIndex::Rebuild(const tVertexStructure* head)
{
    clear();
    m_head = head;
    m_tail = head ? head->prev : nullptr;
    m_valid = true;
    if (!head)
        return;
    const tVertexStructure* v = head;
    do {
        insert({v->x, v->y, v->z});
        v = v->next;
    } while (v != head);
}

void GridPointIndex::clear()
{
    m_keys.clear();
    m_used.clear();
    m_count = 0;
}

bool GridPointIndex::Contains(const Key& k) const
{
    if (m_used.empty())
        return false;
    const std::size_t mask = m_used.size() - 1;
    for (std::size_t i = hash(k) & mask;; i = (i + 1) & mask) {
        if (!m_used[i])
            return false;
        if (m_keys[i] == k)
            return true;
    }
}

void GridPointIndex::insert(const Key& k)
{
    if (2 * (m_count + 1) > m_used.size()) {
        std::vector<Key> keys;
        std::vector<std::uint8_t> used;
        keys.swap(m_keys);
        used.swap(m_used);
        const std::size_t size = std::max<std::size_t>(64, 2 * used.size());
        m_keys.assign(size, Key{});
        m_used.assign(size, 0);
        m_count = 0;
        for (std::size_t i = 0; i < used.size(); ++i)
            if (used[i])
                insert(keys[i]);
    }
    const std::size_t mask = m_used.size() - 1;
    for (std::size_t i = hash(k) & mask;; i = (i + 1) & mask) {
        if (!m_used[i]) {
            m_used[i] = 1;
            m_keys[i] = k;
            ++m_count;
            return;
        }
        if (m_keys[i] == k)
            return;
    }
}

} // namespace qzsse::detail
