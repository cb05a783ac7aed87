#include <emmintrin.h>
#include <xmmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"

// Thresholds walk every lane of every band, padding rows included. All tests are strict
// comparisons, so a NaN pixel fails every one of them: it is never replaced or erased,
// and the binarising thresholds turn it into 0.

using qzsse::detail::forEachVector;
using qzsse::detail::select;

namespace qzsse::detail {
namespace {

// The fixed tolerance of the two-argument ReplaceValueWithValue.
constexpr float c_fReplaceTolerance = 0.002f;

// Binarises the columns from `first` on and empties the columns before it, in every band.
// `first` is deliberately not clamped: 0 <= first <= width is the caller's duty.
template <class F>
void binariseFromColumn(CSSEMatrix& m, int first, F&& binarise)
{
    __m128** data = m.GetMatrixDataDirectly();
    const int bands = m.GetSSESizeY();
    const int cols = m.GetSSESizeX();
    const __m128 zero = _mm_setzero_ps();
    for (int j = 0; j < bands; ++j) {
        __m128* band = data[j];
        for (int x = 0; x < first; ++x)
            band[x] = zero;
        for (int x = first; x < cols; ++x)
            band[x] = binarise(band[x]);
    }
}

} // namespace
} // namespace qzsse::detail

void CSSEMatrix::TresholdAbove(float t, float v)
{
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vv = _mm_set1_ps(v);
    forEachVector(*this, [vt, vv](__m128& p) { p = _mm_and_ps(_mm_cmplt_ps(vt, p), vv); });
}

void CSSEMatrix::TresholdBelow(float t, float v)
{
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vv = _mm_set1_ps(v);
    forEachVector(*this, [vt, vv](__m128& p) { p = _mm_and_ps(_mm_cmplt_ps(p, vt), vv); });
}

void CSSEMatrix::TresholdAbove(float t, float v, int n)
{
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vv = _mm_set1_ps(v);
    qzsse::detail::binariseFromColumn(*this, n, [vt, vv](__m128 p) {
        return _mm_and_ps(_mm_cmplt_ps(vt, p), vv);
    });
}

void CSSEMatrix::TresholdBelow(float t, float v, int n)
{
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vv = _mm_set1_ps(v);
    qzsse::detail::binariseFromColumn(*this, n, [vt, vv](__m128 p) {
        return _mm_and_ps(_mm_cmplt_ps(p, vt), vv);
    });
}

void CSSEMatrix::TresholdAboveKeep(float t, float v)
{
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vv = _mm_set1_ps(v);
    forEachVector(*this, [vt, vv](__m128& p) { p = select(_mm_cmplt_ps(vt, p), vv, p); });
}

void CSSEMatrix::ResetPixelsGreaterWithValue(float t, float v)
{
    TresholdAboveKeep(t, v);
}

void CSSEMatrix::ResetPixelsLowerWithValue(float t, float v)
{
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vv = _mm_set1_ps(v);
    forEachVector(*this, [vt, vv](__m128& p) { p = select(_mm_cmplt_ps(p, vt), vv, p); });
}

void CSSEMatrix::ResetPixelsInInterval(float lo, float hi, float v)
{
    const __m128 vlo = _mm_set1_ps(lo);
    const __m128 vhi = _mm_set1_ps(hi);
    const __m128 vv = _mm_set1_ps(v);
    forEachVector(*this, [vlo, vhi, vv](__m128& p) {
        p = select(_mm_and_ps(_mm_cmplt_ps(vlo, p), _mm_cmplt_ps(p, vhi)), vv, p);
    });
}

void CSSEMatrix::ErasePixelsGreater(float t)
{
    const __m128 vt = _mm_set1_ps(t);
    forEachVector(*this, [vt](__m128& p) { p = _mm_andnot_ps(_mm_cmplt_ps(vt, p), p); });
}

void CSSEMatrix::ErasePixelsLower(float t)
{
    const __m128 vt = _mm_set1_ps(t);
    forEachVector(*this, [vt](__m128& p) { p = _mm_andnot_ps(_mm_cmplt_ps(p, vt), p); });
}

// Keeps the closed band [a - tol, a + tol]; its bounds are rounded to float once.
void CSSEMatrix::EraseOtherValuePixels(float a, float tol)
{
    const __m128 vhi = _mm_set1_ps(a + tol);
    const __m128 vlo = _mm_set1_ps(a - tol);
    forEachVector(*this, [vlo, vhi](__m128& p) {
        p = _mm_andnot_ps(_mm_or_ps(_mm_cmpgt_ps(p, vhi), _mm_cmplt_ps(p, vlo)), p);
    });
}

void CSSEMatrix::ReplaceValueWithValue(float a, float b)
{
    ReplaceValueWithValue(a, b, qzsse::detail::c_fReplaceTolerance);
}

// The test is on the float difference a - p, not on p against a +/- tol: the two differ
// near the bounds by rounding, and an infinite a never matches (inf - inf is NaN).
void CSSEMatrix::ReplaceValueWithValue(float a, float b, float tol)
{
    const __m128 va = _mm_set1_ps(a);
    const __m128 vb = _mm_set1_ps(b);
    const __m128 vtol = _mm_set1_ps(tol);
    const __m128 vnegTol = _mm_set1_ps(-tol);
    forEachVector(*this, [va, vb, vtol, vnegTol](__m128& p) {
        const __m128 d = _mm_sub_ps(va, p);
        p = select(_mm_and_ps(_mm_cmplt_ps(vnegTol, d), _mm_cmplt_ps(d, vtol)), vb, p);
    });
}

// An out-of-range row edits the nearest border row, as every clamped row access does.
void CSSEMatrix::ReplaceLineAbove(float t, float v, int y)
{
    if (m_Data == nullptr || m_SizeY < 1)
        return;
    if (y < 0)
        y = 0;
    if (y > m_SizeY - 1)
        y = m_SizeY - 1;
    const __m128 rowLane = _mm_castsi128_ps(
        _mm_cmpeq_epi32(_mm_set1_epi32(y & 3), _mm_set_epi32(3, 2, 1, 0)));
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vv = _mm_set1_ps(v);
    __m128* band = m_Data[y >> 2];
    for (int x = 0; x < m_SSESizeX; ++x) {
        const __m128 p = band[x];
        band[x] = select(_mm_and_ps(rowLane, _mm_cmplt_ps(vt, p)), vv, p);
    }
}
