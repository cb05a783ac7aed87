#pragma once

#include <cstddef>
#include <xmmintrin.h>

#include "qzsse/core/SafeAlloc.h"

namespace qzsse::detail {

// Rows 4j + S .. 4j + S + 3 of one column, from that column's vectors of band j (a) and
// band j + 1 (b): lanes S..3 of a, then lanes 0..S-1 of b. Vertical neighbourhoods in the
// band layout are built from these shifts.
template <int S>
inline __m128 rowsFrom(__m128 a, __m128 b)
{
    static_assert(S >= 0 && S <= 3);
    if constexpr (S == 0) {
        (void)b;
        return a;
    } else if constexpr (S == 1) {
        const __m128 t = _mm_move_ss(a, b); // b0 a1 a2 a3
        return _mm_shuffle_ps(t, t, _MM_SHUFFLE(0, 3, 2, 1));
    } else if constexpr (S == 2) {
        return _mm_shuffle_ps(a, b, _MM_SHUFFLE(1, 0, 3, 2));
    } else {
        const __m128 t = _mm_shuffle_ps(a, b, _MM_SHUFFLE(0, 0, 3, 3)); // a3 a3 b0 b0
        return _mm_shuffle_ps(t, b, _MM_SHUFFLE(2, 1, 2, 0));
    }
}

// Minimum that lets a NaN in either operand through (_mm_min_ps alone keeps a NaN only
// from its second operand).
inline __m128 nanMin(__m128 a, __m128 b)
{
    return _mm_or_ps(_mm_min_ps(a, b), _mm_cmpunord_ps(a, a));
}

// Whether any of the w vectors holds a NaN: filters take a cheaper path where none does.
inline bool holdsNaN(const __m128* band, int w)
{
    __m128 nan = _mm_setzero_ps();
    for (int x = 0; x < w; ++x)
        nan = _mm_or_ps(nan, _mm_cmpunord_ps(band[x], band[x]));
    return _mm_movemask_ps(nan) != 0;
}

// Minimum of two vectors: with NaN, one that lets a NaN in either operand through.
template <bool NaN>
inline __m128 minOf(__m128 a, __m128 b)
{
    if constexpr (NaN)
        return nanMin(a, b);
    else
        return _mm_min_ps(a, b);
}

// An aligned scratch row of vectors (std::vector<__m128> would drop the type's attributes).
class VectorBuffer {
public:
    VectorBuffer() = default;
    explicit VectorBuffer(std::size_t n, __m128 fill = _mm_setzero_ps())
        : m_data(static_cast<__m128*>(SafeAlignedAlloc((n > 0 ? n : 1) * sizeof(__m128), 16))), m_size(n)
    {
        for (std::size_t i = 0; i < n; ++i)
            m_data[i] = fill;
    }
    VectorBuffer(VectorBuffer&& other) noexcept : m_data(other.m_data), m_size(other.m_size)
    {
        other.m_data = nullptr;
        other.m_size = 0;
    }
    VectorBuffer(const VectorBuffer&) = delete;
    VectorBuffer& operator=(const VectorBuffer&) = delete;
    ~VectorBuffer() { SafeAlignedFree(m_data); }

    __m128* data() { return m_data; }
    const __m128* data() const { return m_data; }
    __m128& operator[](std::size_t i) { return m_data[i]; }
    const __m128& operator[](std::size_t i) const { return m_data[i]; }
    std::size_t size() const { return m_size; }

private:
    __m128* m_data = nullptr;
    std::size_t m_size = 0;
};

} // namespace qzsse::detail
