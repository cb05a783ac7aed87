#include "qzsse/polygon/detail/PolygonCrossing.h"

#include <bit>

#include <emmintrin.h>

namespace qzsse::detail {
namespace {

inline __m128 selectPs(__m128 mask, __m128 a, __m128 b)
{
    return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

// Consecutive edges (i - 1 -> i) four at a time straight from the structure-of-arrays
// storage. Each lane evaluates exactly the scalar comparisons and products of
// edgeToggles; only the parity of the toggles matters, so their order does not.
bool crossingParityStep1(const float* px, const float* py, int n, float x, float y)
{
    const __m128 vx = _mm_set1_ps(x);
    const __m128 vy = _mm_set1_ps(y);
    const __m128 allOnes = _mm_castsi128_ps(_mm_set1_epi32(-1));
    unsigned int toggles = 0;
    for (int i = 0; i < n; i += 4) {
        const __m128 cx = _mm_load_ps(px + i);
        const __m128 cy = _mm_load_ps(py + i);
        __m128 prevX, prevY;
        if (i == 0) {
            prevX = _mm_setr_ps(px[n - 1], px[0], px[1], px[2]);
            prevY = _mm_setr_ps(py[n - 1], py[0], py[1], py[2]);
        } else {
            prevX = _mm_loadu_ps(px + i - 1);
            prevY = _mm_loadu_ps(py + i - 1);
        }
        const __m128 rightOfCur = _mm_cmpgt_ps(vx, cx);
        const __m128 prevNotLeft = _mm_cmpge_ps(prevX, vx);
        const __m128 spans = _mm_andnot_ps(_mm_xor_ps(rightOfCur, prevNotLeft), allOnes);
        const __m128 prevSmaller = _mm_cmplt_ps(prevX, cx);
        const __m128 ax = selectPs(prevSmaller, prevX, cx);
        const __m128 ay = selectPs(prevSmaller, prevY, cy);
        const __m128 bx = selectPs(prevSmaller, cx, prevX);
        const __m128 by = selectPs(prevSmaller, cy, prevY);
        const __m128 lhs = _mm_mul_ps(_mm_sub_ps(by, ay), _mm_sub_ps(vx, ax));
        const __m128 rhs = _mm_mul_ps(_mm_sub_ps(bx, ax), _mm_sub_ps(vy, ay));
        unsigned int bits = static_cast<unsigned int>(_mm_movemask_ps(_mm_and_ps(spans, _mm_cmpgt_ps(lhs, rhs))));
        if (n - i < 4)
            bits &= (1u << (n - i)) - 1u; // padding lanes carry no edge
        toggles ^= bits;
    }
    return (std::popcount(toggles) & 1) != 0;
}

} // namespace

bool crossingParity(const float* px, const float* py, int n, int step, float x, float y)
{
    if (step <= 1)
        return crossingParityStep1(px, py, n, x, y);
    bool inside = false;
    float prevX = px[n - 1];
    float prevY = py[n - 1];
    for (int i = 0; i <= n - step; i += step) {
        inside ^= edgeToggles(prevX, prevY, px[i], py[i], x, y);
        prevX = px[i];
        prevY = py[i];
    }
    inside ^= edgeToggles(prevX, prevY, px[n - 1], py[n - 1], x, y);
    return inside;
}

} // namespace qzsse::detail
