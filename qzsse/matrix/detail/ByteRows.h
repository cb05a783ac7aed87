#pragma once

#include <algorithm>
#include <emmintrin.h>

namespace qzsse::detail {

// Bytes of band j of a sixteen-row char matrix `height` rows tall that hold real rows.
inline __m128i realByteRowsMask(int band, int height)
{
    const int rows = std::clamp(height - 16 * band, 0, 16);
    const __m128i k = _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15);
    return _mm_cmplt_epi8(k, _mm_set1_epi8(static_cast<char>(rows)));
}

// All ones in the bytes that are not 0.
inline __m128i setBytes(__m128i v)
{
    return _mm_xor_si128(_mm_cmpeq_epi8(v, _mm_setzero_si128()), _mm_set1_epi8(-1));
}

} // namespace qzsse::detail
