#pragma once

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <emmintrin.h>
#include <vector>

#include "qzsse/core/SSEPoint.h"
#include "qzsse/core/detail/LargeScratch.h"

namespace qzsse::detail {

// Test switch (per thread): when set, CHTriangulation::CalcNeighbours replays the pairwise
// scan on every mesh, the form its edge matching of plain meshes is checked against.
inline thread_local bool g_bDirectNeighbourReplay = false;

// Corner equality is float equality on all four lanes, so -0.0 and +0.0 must share a key
// (adding +0.0 maps -0.0 to +0.0 and leaves every other value as it is).
inline __m128i cornerKey(__m128 p)
{
    return _mm_castps_si128(_mm_add_ps(p, _mm_setzero_ps()));
}

inline bool cornerHasNaN(__m128 p)
{
    return _mm_movemask_ps(_mm_cmpunord_ps(p, p)) != 0;
}

inline uint64_t hashCornerKey(__m128i bits)
{
    uint64_t lo, hi;
    std::memcpy(&lo, &bits, 8);
    std::memcpy(&hi, reinterpret_cast<const char*>(&bits) + 8, 8);
    uint64_t h = lo * 0x9E3779B97F4A7C15ULL ^ (hi + 0x632BE59BD9B4E019ULL) * 0xC2B2AE3D27D4EB4FULL;
    h ^= h >> 31;
    h *= 0xBF58476D1CE4E5B9ULL;
    h ^= h >> 29;
    return h;
}

inline bool sameCornerKey(__m128i a, __m128i b)
{
    return _mm_movemask_epi8(_mm_cmpeq_epi32(a, b)) == 0xFFFF;
}


// Numbers the distinct corner points in order of first occurrence, so that corners compare
// as integers; corners are asked for in ascending order. A corner with a NaN lane equals
// nothing, not even itself, and gets -1. The table holds a 32-bit tag beside each number, so
// only a matching tag reads the point itself.
//
// Where a point lands in the table only decides the speed. First it lands by position: x and
// y pick a cell of a grid laid over the box of a sample of the corners, two slots per cell,
// so the points of a mesh walked in any scan order are looked up in a small moving part of
// the table. Should a look-up probe too far (points piled up in a few cells: outliers of the
// sample's box, many points above one another), or the table fill up, the table is rebuilt
// on a hash of all four lanes. Then a small direct-mapped cache of recent points answers
// most look-ups, and for a corner the cache lacks a few steps ahead the table slot is
// fetched early, so that the misses in a table larger than the processor's cache overlap.
class CornerNumbering {
public:
    CornerNumbering(const SSEPoint* corners, size_t count)
        : m_corners(corners), m_count(count)
    {
        // A mesh of shared corners has about a sixth as many points (a grid a sixth, a random
        // Delaunay mesh slightly less); the table grows at half load.
        m_capacity = 1024;
        while (m_capacity < count / 3)
            m_capacity *= 2;
        m_table.assign(m_capacity, Slot{0, -1});
        m_keys.reserve(m_capacity / 2);
        m_local = placeByPosition();
        if (!m_local)
            startHashing(0);
    }

    int NumPoints() const { return static_cast<int>(m_keys.size()); }

    // The number of corner i, one greater than every earlier one when i is a new point.
    __attribute__((always_inline)) int Next(size_t i)
    {
        if (m_local) {
            m_next = i + 1;
            // A scan across the table's rows (a mesh made column by column) takes a new cache
            // line per corner, so the slot is fetched a few corners early.
            if (i + kAhead < m_count)
                __builtin_prefetch(&m_table[localSlot(m_corners[i + kAhead].m)]);
            const __m128 p = m_corners[i].m;
            if (cornerHasNaN(p))
                return -1;
            const __m128i key = cornerKey(p);
            const size_t slot = localSlot(p);
            const uint32_t tag = localTag(key);
            const Slot s = m_table[slot];
            if (s.id >= 0 && s.tag == tag && sameCornerKey(keyOf(s.id), key))
                return s.id;
            return nextLocal(i, key, slot, tag);
        }
        return nextHashed(i);
    }

private:
    struct Slot {
        uint32_t tag;
        int id; // -1 for an empty slot
    };
    struct Key {
        alignas(16) unsigned char bits[16];
    };
    struct alignas(32) Recent {
        __m128i key;
        int id;
    };
    static constexpr size_t kRecent = 1 << 13;
    static constexpr size_t kAhead = 16;
    static constexpr int kMaxLocalProbes = 64;
    static constexpr int kTooFar = INT_MIN;

    __m128i keyOf(int id) const { return _mm_load_si128(reinterpret_cast<const __m128i*>(m_keys[static_cast<size_t>(id)].bits)); }

    __attribute__((noinline)) int nextLocal(size_t i, __m128i key, size_t slot, uint32_t tag)
    {
        const int id = find(key, slot, tag, kMaxLocalProbes);
        if (id != kTooFar)
            return id;
        startHashing(i + 1);   // corner i itself is placed below
        return hashed(i, hashCornerKey(key), key);
    }

    __attribute__((noinline)) int nextHashed(size_t i)
    {
        const size_t at = i % kAhead;
        const uint64_t h = m_ahead[at];
        const int early = m_aheadId[at];
        if (i + kAhead < m_count)
            lookAhead(i + kAhead);
        if (early >= 0)
            return early;
        if (cornerHasNaN(m_corners[i].m))
            return -1;
        return hashed(i, h, cornerKey(m_corners[i].m));
    }

    static uint32_t localTag(__m128i key)
    {
        const __m128i folded = _mm_xor_si128(key, _mm_shuffle_epi32(key, _MM_SHUFFLE(1, 0, 3, 2)));
        const __m128i twice = _mm_xor_si128(folded, _mm_shuffle_epi32(folded, _MM_SHUFFLE(2, 3, 0, 1)));
        return static_cast<uint32_t>(_mm_cvtsi128_si32(twice)) * 0x9E3779B1u;
    }

    size_t localSlot(__m128 p) const
    {
        // An infinite lane clamps to a border cell, a NaN one (only ever prefetched) to cell 0.
        __m128 cell = _mm_mul_ps(_mm_sub_ps(p, m_origin), m_cellsPerUnit);
        cell = _mm_min_ps(_mm_max_ps(cell, _mm_setzero_ps()), m_lastCell);
        const __m128i c = _mm_cvttps_epi32(cell);
        const size_t cx = static_cast<size_t>(_mm_cvtsi128_si32(c));
        const size_t cy = static_cast<size_t>(_mm_cvtsi128_si32(_mm_shuffle_epi32(c, 1)));
        return 2 * (cy * m_cellsX + cx) & (m_capacity - 1);
    }

    // The cell grid over the x/y box of every 1 / stride-th corner, one cell per expected
    // point; false when the box is empty or a point.
    bool placeByPosition()
    {
        float lo[2] = {INFINITY, INFINITY}, hi[2] = {-INFINITY, -INFINITY};
        const size_t stride = std::max<size_t>(1, m_count / 65536);
        for (size_t i = 0; i < m_count; i += stride) {
            const float v[2] = {m_corners[i].x, m_corners[i].y};
            for (int k = 0; k < 2; ++k)
                if (std::isfinite(v[k])) {
                    lo[k] = std::min(lo[k], v[k]);
                    hi[k] = std::max(hi[k], v[k]);
                }
        }
        if (!(lo[0] <= hi[0] && lo[1] <= hi[1]))
            return false;
        const double w = double(hi[0]) - lo[0], h = double(hi[1]) - lo[1];
        const double cells = double(m_capacity / 2);
        double nx = 1, ny = 1;
        if (w > 0 && h > 0) {
            nx = std::clamp(std::floor(std::sqrt(cells * w / h)), 1.0, cells);
            ny = std::max(1.0, std::floor(cells / nx));
        }
        else if (w > 0)
            nx = cells;
        else if (h > 0)
            ny = cells;
        else
            return false;
        m_cellsX = static_cast<size_t>(nx);
        m_origin = _mm_setr_ps(lo[0], lo[1], 0.0f, 0.0f);
        m_cellsPerUnit = _mm_setr_ps(w > 0 ? float(nx / w) : 0.0f, h > 0 ? float(ny / h) : 0.0f, 0.0f, 0.0f);
        m_lastCell = _mm_setr_ps(float(nx - 1), float(ny - 1), 0.0f, 0.0f);
        return true;
    }

    // The number of key, probing from slot; a new number when it is not there yet. kTooFar
    // when more than maxProbes slots were passed (nothing changed then).
    int find(__m128i key, size_t slot, uint32_t tag, int maxProbes)
    {
        for (int probes = 0;; ++probes) {
            const Slot s = m_table[slot];
            if (s.id < 0)
                break;
            if (s.tag == tag && sameCornerKey(keyOf(s.id), key))
                return s.id;
            if (probes == maxProbes)
                return kTooFar;
            slot = (slot + 1) & (m_capacity - 1);
        }
        const int id = static_cast<int>(m_keys.size());
        m_keys.emplace_back();
        _mm_store_si128(reinterpret_cast<__m128i*>(m_keys.back().bits), key);
        m_table[slot] = Slot{tag, id};
        if (m_keys.size() * 2 > m_capacity) {
            m_capacity *= 2;
            if (m_local)
                startHashing(m_next);
            else
                rebuild();
        }
        return id;
    }

    int hashed(size_t i, uint64_t h, __m128i key)
    {
        m_next = i + 1;
        Recent& r = m_recent[(h >> 20) & (kRecent - 1)];
        if (r.id >= 0 && sameCornerKey(r.key, key))
            return r.id;
        const int id = find(key, h & (m_capacity - 1), static_cast<uint32_t>(h >> 32), INT_MAX);
        r.key = key;
        r.id = id;
        return id;
    }

    // Leaves the placement by position for good: the table on the hash, the look-ahead
    // ring filled from corner from.
    void startHashing(size_t from)
    {
        m_local = false;
        m_next = from;
        if (m_recent.empty())
            m_recent.assign(kRecent, Recent{_mm_setzero_si128(), -1});
        rebuild();
        for (size_t i = from; i < from + kAhead && i < m_count; ++i)
            lookAhead(i);
    }

    // A few corners ahead the recent cache is asked already: a hit is kept (numbers never
    // change), and on a miss the table slot is fetched (fetching it for every corner would
    // fill the memory queue with slots mostly not needed).
    void lookAhead(size_t i)
    {
        const __m128i key = cornerKey(m_corners[i].m);
        const uint64_t h = hashCornerKey(key);
        m_ahead[i % kAhead] = h;
        const Recent& seen = m_recent[(h >> 20) & (kRecent - 1)];
        const bool hit = seen.id >= 0 && sameCornerKey(seen.key, key) && !cornerHasNaN(m_corners[i].m);
        m_aheadId[i % kAhead] = hit ? seen.id : -1;
        if (!hit)
            __builtin_prefetch(&m_table[h & (m_capacity - 1)]);
    }

    void rebuild()
    {
        m_table.assign(m_capacity, Slot{0, -1});
        for (size_t id = 0; id < m_keys.size(); ++id) {
            const uint64_t h = hashCornerKey(_mm_load_si128(reinterpret_cast<const __m128i*>(m_keys[id].bits)));
            size_t slot = h & (m_capacity - 1);
            while (m_table[slot].id >= 0)
                slot = (slot + 1) & (m_capacity - 1);
            m_table[slot] = Slot{static_cast<uint32_t>(h >> 32), static_cast<int>(id)};
        }
    }

    const SSEPoint* m_corners;
    size_t m_count;
    size_t m_capacity;
    ScratchVector<Slot> m_table;
    ScratchVector<Key> m_keys;   // per point number
    bool m_local;                // placed by position (else by hash)
    size_t m_cellsX = 1;
    __m128 m_origin = _mm_setzero_ps(), m_cellsPerUnit = _mm_setzero_ps(), m_lastCell = _mm_setzero_ps();
    size_t m_next = 0;           // the corner after the one being numbered
    std::vector<Recent> m_recent;
    uint64_t m_ahead[kAhead];    // hashes of the next corners, in a ring
    int m_aheadId[kAhead];       // their numbers where the recent cache knew them, else -1
};

} // namespace qzsse::detail
