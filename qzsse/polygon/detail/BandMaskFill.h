#pragma once

#include <cstdint>
#include <cstring>
#include <emmintrin.h>
#include <memory>
#include <vector>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/core/detail/ClampInto.h"
#include "qzsse/polygon/detail/RowInsideScanner.h"

namespace qzsse::detail {

// Float matrix: four rows per band, one 32-bit mask lane per row.
struct FloatBands {
    using Vector = __m128;
    using Flag = std::uint32_t;
    static constexpr int c_iLanes = 4;
    static constexpr int c_iShift = 2;

    template <class Update>
    static void apply(Vector& cell, const Flag* flags, Update& update)
    {
        const __m128 mask = _mm_load_ps(reinterpret_cast<const float*>(flags));
        if (_mm_movemask_ps(mask) == 0)
            return;
        const __m128 old = cell;
        cell = _mm_or_ps(_mm_and_ps(mask, update(old)), _mm_andnot_ps(mask, old));
    }

    // Updates the cells of the set bits of columns (cells[b] for bit b), each in the lanes
    // whose bit b is set in lanes[l][0].
    template <class Update>
    static void selectColumns(Vector* cells, const std::uint64_t* const* lanes, std::uint64_t columns, Update& update)
    {
        // Byte p of the four lanes' words side by side, as 32-bit unit p.
        const __m128i a = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(lanes[0])),
                                            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(lanes[1])));
        const __m128i b = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(lanes[2])),
                                            _mm_loadl_epi64(reinterpret_cast<const __m128i*>(lanes[3])));
        alignas(16) std::uint32_t bytes[8];
        _mm_store_si128(reinterpret_cast<__m128i*>(bytes), _mm_unpacklo_epi16(a, b));
        _mm_store_si128(reinterpret_cast<__m128i*>(bytes + 4), _mm_unpackhi_epi16(a, b));
        for (; columns != 0; columns &= columns - 1) {
            const int c = __builtin_ctzll(columns);
            const __m128i bit = _mm_slli_epi32(_mm_setr_epi32(1, 1 << 8, 1 << 16, 1 << 24), c & 7);
            const __m128i set = _mm_and_si128(_mm_set1_epi32(static_cast<int>(bytes[c >> 3])), bit);
            const __m128 mask = _mm_castsi128_ps(_mm_cmpeq_epi32(set, bit));
            const __m128 old = cells[c];
            cells[c] = _mm_or_ps(_mm_and_ps(mask, update(old)), _mm_andnot_ps(mask, old));
        }
    }
};

// Bit b in every byte of row b (a broadcast of a variable byte takes several instructions
// without SSSE3).
alignas(16) inline constexpr std::uint8_t c_bitInEveryByte[8][16] = {
    {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1},
    {2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2, 2},
    {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
    {8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8, 8},
    {16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16, 16},
    {32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32, 32},
    {64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64, 64},
    {128, 128, 128, 128, 128, 128, 128, 128, 128, 128, 128, 128, 128, 128, 128, 128}};

// Char matrix: sixteen rows per band, one byte mask lane per row.
struct CharBands {
    using Vector = __m128i;
    using Flag = std::uint8_t;
    static constexpr int c_iLanes = 16;
    static constexpr int c_iShift = 4;

    template <class Update>
    static void apply(Vector& cell, const Flag* flags, Update& update)
    {
        const __m128i mask = _mm_load_si128(reinterpret_cast<const __m128i*>(flags));
        if (_mm_movemask_epi8(mask) == 0)
            return;
        const __m128i old = cell;
        cell = _mm_or_si128(_mm_and_si128(mask, update(old)), _mm_andnot_si128(mask, old));
    }

    // Updates the cells of the set bits of columns (cells[b] for bit b), each in the lanes
    // whose bit b is set in lanes[l][0].
    template <class Update>
    static void selectColumns(Vector* cells, const std::uint64_t* const* lanes, std::uint64_t columns, Update& update)
    {
        // A 16 x 8 byte transpose: bytes[p] holds byte p of every lane's word, lane l in byte l.
        __m128i a[8], b[8];
        for (int i = 0; i < 8; ++i)
            a[i] = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(lanes[2 * i])),
                                     _mm_loadl_epi64(reinterpret_cast<const __m128i*>(lanes[2 * i + 1])));
        for (int i = 0; i < 4; ++i) {
            b[2 * i] = _mm_unpacklo_epi16(a[2 * i], a[2 * i + 1]);     // bytes 0..3 of lanes 4i..4i+3
            b[2 * i + 1] = _mm_unpackhi_epi16(a[2 * i], a[2 * i + 1]); // bytes 4..7
        }
        __m128i bytes[8];
        for (int h = 0; h < 2; ++h) {
            const __m128i lo0 = _mm_unpacklo_epi32(b[h], b[2 + h]), hi0 = _mm_unpackhi_epi32(b[h], b[2 + h]);
            const __m128i lo1 = _mm_unpacklo_epi32(b[4 + h], b[6 + h]), hi1 = _mm_unpackhi_epi32(b[4 + h], b[6 + h]);
            bytes[4 * h] = _mm_unpacklo_epi64(lo0, lo1);
            bytes[4 * h + 1] = _mm_unpackhi_epi64(lo0, lo1);
            bytes[4 * h + 2] = _mm_unpacklo_epi64(hi0, hi1);
            bytes[4 * h + 3] = _mm_unpackhi_epi64(hi0, hi1);
        }
        for (; columns != 0; columns &= columns - 1) {
            const int c = __builtin_ctzll(columns);
            const __m128i bit = _mm_load_si128(reinterpret_cast<const __m128i*>(c_bitInEveryByte[c & 7]));
            const __m128i mask = _mm_cmpeq_epi8(_mm_and_si128(bytes[c >> 3], bit), bit);
            const __m128i old = cells[c];
            cells[c] = _mm_or_si128(_mm_and_si128(mask, update(old)), _mm_andnot_si128(mask, old));
        }
    }
};

struct AlignedFree {
    void operator()(void* p) const { SafeAlignedFree(p); }
};

// Cell updates of the fills, each a packed form of its per-cell rule.
struct StoreValue {
    __m128 value;
    __m128 operator()(__m128) const { return value; }
};
// (value > cell) ? cell : value, as SetPointMin
struct MinValue {
    __m128 value;
    __m128 operator()(__m128 cell) const { return _mm_min_ps(cell, value); }
};
// (cell > value) ? cell : value, as SetPointMax
struct MaxValue {
    __m128 value;
    __m128 operator()(__m128 cell) const { return _mm_max_ps(cell, value); }
};
// 0 where threshold > cell - value
struct ClearNearValue {
    __m128 value;
    __m128 threshold;
    __m128 operator()(__m128 cell) const
    {
        return _mm_andnot_ps(_mm_cmplt_ps(_mm_sub_ps(cell, value), threshold), cell);
    }
};
struct StoreByte {
    __m128i value;
    __m128i operator()(__m128i) const { return value; }
};

// Collects which cells of a banded matrix the inside pixels of a scan reach once their
// coordinates are clamped into the matrix, one band at a time, and then updates those cells
// with one lane select per column. Every update used with it is idempotent (store, min,
// max, conditional clear), so a border cell reached from several clamped positions ends as
// if reached once, and the order of the visits does not matter.
template <class Bands, class Update>
class BandMaskFolder {
public:
    using Vector = typename Bands::Vector;
    using Flag = typename Bands::Flag;

    BandMaskFolder(Vector** bands, int width, int height, Update update)
        : m_bands(bands), m_width(width), m_height(height), m_update(update)
    {
        const size_t bytes = static_cast<size_t>(width) * Bands::c_iLanes * sizeof(Flag);
        m_flags.reset(static_cast<Flag*>(SafeAlignedAlloc(bytes, 16)));
        std::memset(m_flags.get(), 0, bytes);
    }
    BandMaskFolder(const BandMaskFolder&) = delete;
    BandMaskFolder& operator=(const BandMaskFolder&) = delete;
    ~BandMaskFolder() = default;

    // Marks the inside runs of scan row y (any row: it is clamped here).
    void addRuns(int y, const std::vector<InsideRun>& runs)
    {
        if (runs.empty())
            return;
        const int row = clampInto(y, 0, m_height - 1);
        selectBand(row >> Bands::c_iShift);
        const int lane = row & (Bands::c_iLanes - 1);
        for (const InsideRun& run : runs) {
            const int first = clampInto(run.first, 0, m_width - 1);
            const int last = clampInto(run.last, 0, m_width - 1);
            Flag* f = m_flags.get() + static_cast<size_t>(first) * Bands::c_iLanes + lane;
            for (int x = first; x <= last; ++x, f += Bands::c_iLanes)
                *f = static_cast<Flag>(~Flag(0));
            if (first < m_lo)
                m_lo = first;
            if (last > m_hi)
                m_hi = last;
        }
    }

    // Marks cell (x, y) of the matrix directly (both inside the matrix).
    void addCell(int x, int y)
    {
        selectBand(y >> Bands::c_iShift);
        m_flags[static_cast<size_t>(x) * Bands::c_iLanes + (y & (Bands::c_iLanes - 1))] = static_cast<Flag>(~Flag(0));
        if (x < m_lo)
            m_lo = x;
        if (x > m_hi)
            m_hi = x;
    }

    void finish() { flush(); }

private:
    void selectBand(int band)
    {
        if (band != m_band) {
            flush();
            m_band = band;
        }
    }

    void flush()
    {
        if (m_band < 0 || m_lo > m_hi)
            return;
        Vector* band = m_bands[m_band];
        Flag* flags = m_flags.get();
        for (int x = m_lo; x <= m_hi; ++x)
            Bands::apply(band[x], flags + static_cast<size_t>(x) * Bands::c_iLanes, m_update);
        std::memset(flags + static_cast<size_t>(m_lo) * Bands::c_iLanes, 0,
                    static_cast<size_t>(m_hi - m_lo + 1) * Bands::c_iLanes * sizeof(Flag));
        m_lo = m_width;
        m_hi = -1;
    }

    Vector** m_bands;
    int m_width;
    int m_height;
    Update m_update;
    std::unique_ptr<Flag, AlignedFree> m_flags;
    int m_band = -1;
    int m_lo = 0x7fffffff;
    int m_hi = -1;
};

} // namespace qzsse::detail
