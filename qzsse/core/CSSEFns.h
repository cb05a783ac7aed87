#pragma once

#include "qzsse/core/SSEPoint.h"

// Static vector operations on four-lane points. Every horizontal sum adds lanes as
// (p0 + p3) + (p1 + p2); results depend on that order bit for bit.
class CSSEFns {
public:
    static void min_of_m128(__m128 a, float* out);
    static void max_of_m128(__m128 a, float* out);
    static float internal_addition_of_m128(__m128 a);
    static float scalarproduct(__m128 a, __m128 b);
    // No zero-length test: a zero vector gives NaN in every lane.
    static __m128 normalizevector(__m128 a);
    static float vectorlen(__m128 a);
    static float euclideandistance(__m128 a, __m128 b);
    static float euclideansqr(__m128 a, __m128 b);
    static __m128 transform(__m128 a, t_ssematrix3& m);
    // Lane 3 is a3*b3 - a3*b3: 0 for finite input, NaN otherwise.
    static __m128 vectorproduct(__m128 a, __m128 b);
    // a . (b x c), not divided by 6.
    static float volume(__m128 a, __m128 b, __m128 c);
};
