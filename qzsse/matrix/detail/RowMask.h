#pragma once

#include <emmintrin.h>

namespace qzsse::detail {

// Lane mask of the band whose lane 0 is row `bandTop`: all ones in the lanes whose row lies
// in [first, last], zero elsewhere. Operations limited to real rows or to a patch AND their
// effect with it instead of branching on the row per lane.
inline __m128 rowRangeMask(int bandTop, int first, int last)
{
    const __m128i rows = _mm_add_epi32(_mm_set1_epi32(bandTop), _mm_setr_epi32(0, 1, 2, 3));
    const __m128i before = _mm_cmplt_epi32(rows, _mm_set1_epi32(first));
    const __m128i after = _mm_cmpgt_epi32(rows, _mm_set1_epi32(last));
    return _mm_castsi128_ps(_mm_andnot_si128(_mm_or_si128(before, after), _mm_set1_epi32(-1)));
}

// Lanes of band j that hold real rows of an image `height` rows tall.
inline __m128 realRowsMask(int band, int height)
{
    return rowRangeMask(4 * band, 0, height - 1);
}

} // namespace qzsse::detail
