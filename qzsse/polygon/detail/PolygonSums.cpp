#include "qzsse/polygon/detail/PolygonSums.h"

#include <cmath>
#include <xmmintrin.h>

namespace qzsse::detail {

float SumOfEdgeLengths(const float* x, const float* y, const float* z, int edges)
{
    float sum = 0.0f;
    int i = 0;
    alignas(16) float lengths[4];
    // Each group needs points i .. i + 4, all within the polygon.
    for (; i + 4 <= edges; i += 4) {
        const __m128 dx = _mm_sub_ps(_mm_loadu_ps(x + i + 1), _mm_load_ps(x + i));
        const __m128 dy = _mm_sub_ps(_mm_loadu_ps(y + i + 1), _mm_load_ps(y + i));
        const __m128 dz = _mm_sub_ps(_mm_loadu_ps(z + i + 1), _mm_load_ps(z + i));
        const __m128 squared = _mm_add_ps(_mm_add_ps(_mm_mul_ps(dx, dx), _mm_mul_ps(dy, dy)), _mm_mul_ps(dz, dz));
        _mm_store_ps(lengths, _mm_sqrt_ps(squared));
        sum += lengths[0];
        sum += lengths[1];
        sum += lengths[2];
        sum += lengths[3];
    }
    for (; i < edges; ++i) {
        const float dx = x[i + 1] - x[i];
        const float dy = y[i + 1] - y[i];
        const float dz = z[i + 1] - z[i];
        sum += std::sqrt(dx * dx + dy * dy + dz * dz);
    }
    return sum;
}

float ShoelaceSum(const float* a, const float* b, int n)
{
    if (n < 2)
        return 0.0f;
    float sum = 0.0f;
    int i = 0;
    const int edges = n - 1;
    alignas(16) float terms[4];
    for (; i + 4 <= edges; i += 4) {
        const __m128 a0 = _mm_load_ps(a + i);
        const __m128 b0 = _mm_load_ps(b + i);
        const __m128 a1 = _mm_loadu_ps(a + i + 1);
        const __m128 b1 = _mm_loadu_ps(b + i + 1);
        _mm_store_ps(terms, _mm_sub_ps(_mm_mul_ps(a0, b1), _mm_mul_ps(a1, b0)));
        sum += terms[0];
        sum += terms[1];
        sum += terms[2];
        sum += terms[3];
    }
    for (; i < edges; ++i)
        sum += a[i] * b[i + 1] - a[i + 1] * b[i];
    sum += a[n - 1] * b[0] - a[0] * b[n - 1];
    return sum;
}

} // namespace qzsse::detail
