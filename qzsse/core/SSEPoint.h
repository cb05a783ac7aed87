#pragma once

#include <xmmintrin.h>

// Four floats overlaid on one SSE register. Every CSSEFns sum includes lane w, so 3-D
// callers keep it at 0.
union alignas(16) SSEPoint {
    __m128 m;
#if defined(__GNUC__) || defined(__clang__)
    __extension__
#endif
    struct {
        float x, y, z, w;
    };
};

// Row i holds the four coefficients of output lane i; the fourth multiplies lane w of the
// input, which makes a point with w = 1 undergo an affine transform.
struct alignas(16) t_ssematrix3 {
    __m128 row[3];
};

static_assert(sizeof(SSEPoint) == 16 && alignof(SSEPoint) == 16);
static_assert(sizeof(t_ssematrix3) == 48);
