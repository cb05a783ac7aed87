#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

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
    bool Contains(const Key& k) const;
    // Records k and the list's new head and tail once a vertex was appended to a list the
    // index mirrored just before.
    void Appended(const Key& k, const tVertexStructure* head, const tVertexStructure* tail)
    {
        insert(k);
        m_valid = true;
        m_head = head;
        m_tail = tail;
    }

private:
    static std::size_t hash(const Key& k)
    {
        std::uint64_t h = std::uint64_t(k[0]) * 0x9E3779B97F4A7C15ull;
        h ^= (std::uint64_t(k[1]) + 0x632BE59BD9B4E019ull) * 0xC2B2AE3D27D4EB4Full;
        h ^= (std::uint64_t(k[2]) + 0x8CB92BA72F3D8DD7ull) * 0x165667B19E3779F9ull;
        h ^= h >> 32;
        h *= 0xD6E8FEB86659FD93ull;
        return std::size_t(h ^ (h >> 32));
    }
    void insert(const Key& k);
    void clear();

    // Open addressing with linear probing, at most half full; the table size is a power of two.
    std::vector<Key> m_keys;
    std::vector<std::uint8_t> m_used;
    std::size_t m_count = 0;
    const tVertexStructure* m_head = nullptr;
    const tVertexStructure* m_tail = nullptr;
    bool m_valid = false;
};

} // namespace qzsse::detail
