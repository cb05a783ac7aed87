#include "qzsse/matrix/CImgFromToArray.h"

#include <algorithm>
#include <xmmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"

void CImgFromToArray::AllocateRows(int rows)
{
    Allocate(2 * rows);
    for (int y = 0; y < rows; ++y)
        SetSpan(y, 0, -1);
}

// Four rows at once: per lane, the smallest and largest hit column as floats (exact below
// 2^24), kept with packed minimum and maximum.
int CImgFromToArray::ComputeFromMatrix(const CSSEMatrix& m, float threshold, bool above)
{
    const int w = m.GetMatrixDataDirectly() != nullptr ? m.GetSizeX() : 0;
    const int h = m.GetMatrixDataDirectly() != nullptr ? m.GetSizeY() : 0;
    AllocateRows(h);
    const __m128 t = _mm_set1_ps(threshold);
    const __m128 none = _mm_set1_ps(-1.0f);
    const __m128 never = _mm_set1_ps(static_cast<float>(w));
    int rows = 0;
    for (int j = 0; 4 * j < h; ++j) {
        const __m128* band = m.GetMatrixDataDirectly()[j];
        __m128 first = never, last = none;
        __m128 column = _mm_setzero_ps();
        const __m128 one = _mm_set1_ps(1.0f);
        for (int x = 0; x < w; ++x, column = _mm_add_ps(column, one)) {
            const __m128 hit = above ? _mm_cmpgt_ps(band[x], t) : _mm_cmplt_ps(band[x], t);
            first = _mm_min_ps(first, _mm_or_ps(_mm_and_ps(hit, column), _mm_andnot_ps(hit, never)));
            last = _mm_max_ps(last, _mm_or_ps(_mm_and_ps(hit, column), _mm_andnot_ps(hit, none)));
        }
        alignas(16) float f[4], l[4];
        _mm_store_ps(f, first);
        _mm_store_ps(l, last);
        for (int lane = 0; lane < 4 && 4 * j + lane < h; ++lane)
            if (l[lane] >= 0.0f) {
                SetSpan(4 * j + lane, static_cast<int>(f[lane]), static_cast<int>(l[lane]));
                ++rows;
            }
    }
    return rows;
}

void CImgFromToArray::DrawIntoMatrix(CSSEMatrix& m, float value) const
{
    if (m.GetMatrixDataDirectly() == nullptr)
        return;
    const int rows = std::min(GetRows(), m.GetSizeY());
    for (int y = 0; y < rows; ++y) {
        const int from = std::max(GetFrom(y), 0);
        const int to = std::min(GetTo(y), m.GetSizeX() - 1);
        float* p = m.GetPointAddressUnsafe(0, y);
        for (int x = from; x <= to; ++x)
            p[4 * x] = value;
    }
}
