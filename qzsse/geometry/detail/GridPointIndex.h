#pragma once

#include <array>
#include <cstddef>
#include <unordered_set>

struct tVertexStructure;

namespace qzsse::detail {

// The grid positions of a hull's vertex list, so that appending answers "is this point
// already there" without walking the list. It mirrors the list only while the hull says so:
// the hull drops it whenever vertices are removed, moved or linked other than by
// appending, and it is also dropped when the list's head or tail is not the one it saw.
class GridPointIndex {
public:
    using Key = std::array<long long, 3>;

    bool Mirrors(const tVertexStructure* head, const tVertexStructure* tail) const
    {
        return m_valid && head == m_head && tail == m_tail;
    }
    void Invalidate() { m_valid = false; }
    void Rebuild(const tVertexStructure* head);
    bool Contains(const Key& k) const { return m_points.count(k) != 0; }
    // Records k and the list's new head and tail once a vertex was appended to a list the
    // index mirrored just before.
    void Appended(const Key& k, const tVertexStructure* head, const tVertexStructure* tail)
    {
        m_points.insert(k);
        m_valid = true;
        m_head = head;
        m_tail = tail;
    }

private:
    struct Hash {
        std::size_t operator()(const Key& k) const
        {
            std::size_t h = std::size_t(k[0]) * 0x9E3779B97F4A7C15ull;
            h ^= std::size_t(k[1]) + 0x632BE59BD9B4E019ull + (h << 6) + (h >> 2);
            h ^= std::size_t(k[2]) + 0x8CB92BA72F3D8DD7ull + (h << 6) + (h >> 2);
            return h;
        }
    };

    std::unordered_set<Key, Hash> m_points;
    const tVertexStructure* m_head = nullptr;
    const tVertexStructure* m_tail = nullptr;
    bool m_valid = false;
};

} // namespace qzsse::detail
