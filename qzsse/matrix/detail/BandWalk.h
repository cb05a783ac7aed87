#pragma once

#include <algorithm>
#include <xmmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"

namespace qzsse::detail {

// Lane-wise select: where a mask lane is all ones take a, else b. Applying an effect
// to every vector and keeping the old lanes where the condition fails gives exactly the
// values of a per-lane update, without a branch per vector.
inline __m128 select(__m128 mask, __m128 a, __m128 b)
{
    return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

// Calls f(vector&) for every vector of every band, padding rows included, band by band
// and column by column.
template <class F>
inline void forEachVector(CSSEMatrix& m, F&& f)
{
    __m128** data = m.GetMatrixDataDirectly();
    const int bands = m.GetSSESizeY();
    const int cols = m.GetSSESizeX();
    for (int j = 0; j < bands; ++j) {
        __m128* band = data[j];
        for (int x = 0; x < cols; ++x)
            f(band[x]);
    }
}

template <class F>
inline void forEachVector(const CSSEMatrix& m, F&& f)
{
    __m128** data = m.GetMatrixDataDirectly();
    const int bands = m.GetSSESizeY();
    const int cols = m.GetSSESizeX();
    for (int j = 0; j < bands; ++j) {
        const __m128* band = data[j];
        for (int x = 0; x < cols; ++x)
            f(band[x]);
    }
}

// Calls f(thisVector&, otherVector) over the bands and columns of `m` only (the other
// matrix must be at least as large).
template <class F>
inline void forEachVectorPairThisExtent(CSSEMatrix& m, const CSSEMatrix& other, F&& f)
{
    __m128** data = m.GetMatrixDataDirectly();
    __m128** odata = other.GetMatrixDataDirectly();
    const int bands = m.GetSSESizeY();
    const int cols = m.GetSSESizeX();
    for (int j = 0; j < bands; ++j) {
        __m128* band = data[j];
        const __m128* oband = odata[j];
        for (int x = 0; x < cols; ++x)
            f(band[x], oband[x]);
    }
}

// Calls f(thisVector&, otherVector) over the smaller of both matrices in each direction.
template <class F>
inline void forEachVectorPairCommonExtent(CSSEMatrix& m, const CSSEMatrix& other, F&& f)
{
    __m128** data = m.GetMatrixDataDirectly();
    __m128** odata = other.GetMatrixDataDirectly();
    const int bands = std::min(m.GetSSESizeY(), other.GetSSESizeY());
    const int cols = std::min(m.GetSSESizeX(), other.GetSSESizeX());
    for (int j = 0; j < bands; ++j) {
        __m128* band = data[j];
        const __m128* oband = odata[j];
        for (int x = 0; x < cols; ++x)
            f(band[x], oband[x]);
    }
}

} // namespace qzsse::detail
