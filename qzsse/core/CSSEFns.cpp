#include "qzsse/core/CSSEFns.h"

namespace {

// Adding the lane-reversed vector to itself pairs lane 0 with 3 and 1 with 2; the two
// pair sums are then added.
inline __m128 hsumVector(__m128 p)
{
    __m128 reversed = _mm_shuffle_ps(p, p, _MM_SHUFFLE(0, 1, 2, 3));
    __m128 pairs = _mm_add_ps(p, reversed); // (p0+p3, p1+p2, p2+p1, p3+p0)
    __m128 second = _mm_shuffle_ps(pairs, pairs, _MM_SHUFFLE(1, 1, 1, 1));
    return _mm_add_ss(pairs, second);
}

inline float hsum(__m128 p)
{
    return _mm_cvtss_f32(hsumVector(p));
}

} // namespace

void CSSEFns::min_of_m128(__m128 a, float* out)
{
    // m02 = a0 < a2 ? a0 : a2 (minps returns its second operand when unordered)
    __m128 swapped = _mm_shuffle_ps(a, a, _MM_SHUFFLE(1, 0, 3, 2));
    __m128 m = _mm_min_ps(a, swapped);                          // lane0: m02, lane1: m13
    __m128 m13 = _mm_shuffle_ps(m, m, _MM_SHUFFLE(1, 1, 1, 1));
    *out = _mm_cvtss_f32(_mm_min_ss(m13, m));                   // m13 < m02 ? m13 : m02
}

void CSSEFns::max_of_m128(__m128 a, float* out)
{
    __m128 swapped = _mm_shuffle_ps(a, a, _MM_SHUFFLE(1, 0, 3, 2));
    __m128 m = _mm_max_ps(a, swapped);
    __m128 m13 = _mm_shuffle_ps(m, m, _MM_SHUFFLE(1, 1, 1, 1));
    *out = _mm_cvtss_f32(_mm_max_ss(m13, m));
}

float CSSEFns::internal_addition_of_m128(__m128 a)
{
    return hsum(a);
}

float CSSEFns::scalarproduct(__m128 a, __m128 b)
{
    return hsum(_mm_mul_ps(a, b));
}

__m128 CSSEFns::normalizevector(__m128 a)
{
    __m128 len = _mm_sqrt_ss(hsumVector(_mm_mul_ps(a, a)));
    return _mm_div_ps(a, _mm_shuffle_ps(len, len, 0));
}

float CSSEFns::vectorlen(__m128 a)
{
    return _mm_cvtss_f32(_mm_sqrt_ss(hsumVector(_mm_mul_ps(a, a))));
}

float CSSEFns::euclideandistance(__m128 a, __m128 b)
{
    __m128 d = _mm_sub_ps(a, b);
    return _mm_cvtss_f32(_mm_sqrt_ss(hsumVector(_mm_mul_ps(d, d))));
}

float CSSEFns::euclideansqr(__m128 a, __m128 b)
{
    __m128 d = _mm_sub_ps(a, b);
    return hsum(_mm_mul_ps(d, d));
}

__m128 CSSEFns::transform(__m128 a, t_ssematrix3& m)
{
    __m128 x = hsumVector(_mm_mul_ps(m.row[0], a));
    __m128 y = hsumVector(_mm_mul_ps(m.row[1], a));
    __m128 z = hsumVector(_mm_mul_ps(m.row[2], a));
    __m128 xy = _mm_unpacklo_ps(x, y);                       // (x, y, ., .)
    __m128 z0 = _mm_move_ss(_mm_setzero_ps(), z);            // (z, 0, 0, 0)
    return _mm_movelh_ps(xy, z0);                            // (x, y, z, 0)
}

__m128 CSSEFns::vectorproduct(__m128 a, __m128 b)
{
    // (a1 b2 - a2 b1, a2 b0 - a0 b2, a0 b1 - a1 b0, a3 b3 - a3 b3)
    __m128 a120 = _mm_shuffle_ps(a, a, _MM_SHUFFLE(3, 0, 2, 1));
    __m128 b201 = _mm_shuffle_ps(b, b, _MM_SHUFFLE(3, 1, 0, 2));
    __m128 a201 = _mm_shuffle_ps(a, a, _MM_SHUFFLE(3, 1, 0, 2));
    __m128 b120 = _mm_shuffle_ps(b, b, _MM_SHUFFLE(3, 0, 2, 1));
    return _mm_sub_ps(_mm_mul_ps(a120, b201), _mm_mul_ps(a201, b120));
}

float CSSEFns::volume(__m128 a, __m128 b, __m128 c)
{
    return hsum(_mm_mul_ps(a, vectorproduct(b, c)));
}
