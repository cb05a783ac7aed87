#include <bit>
#include <cstdint>
#include <xmmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"

// Every operation here is one packed pass over the band storage, padding rows included.
// Conditional updates compute the effect for the whole vector and keep the old lanes
// where the condition fails, which gives exactly the values of a lane-by-lane update.
//
// Maxima and minima are the packed instructions with the operands in the order the rules
// write them: max(a, b) is (a > b) ? a : b and min(a, b) is (a < b) ? a : b. So when either
// operand is NaN, or both are zeros of either sign, the result is the second operand:
// MaximumOf / MinimumOf keep a NaN of this matrix and ignore a NaN of the other, and
// max(0, o - a) passes a NaN difference (and a -0 difference) through unchanged.

using qzsse::detail::forEachVector;
using qzsse::detail::forEachVectorPairCommonExtent;
using qzsse::detail::forEachVectorPairThisExtent;
using qzsse::detail::select;

namespace qzsse::detail {
namespace {

constexpr float c_fLiftThreshold = 0.005f;
static_assert(std::bit_cast<std::uint32_t>(c_fLiftThreshold) == 0x3BA3D70Au);

// Below this level a pixel counts as empty in AddMatrixOffsetedConstrained, and the other
// matrix contributes nothing there.
constexpr float c_fConstrainedLevel = 0.001f;

} // namespace
} // namespace qzsse::detail

void CSSEMatrix::OffsetMatrix(float d)
{
    const __m128 vd = _mm_set1_ps(d);
    forEachVector(*this, [vd](__m128& p) { p = _mm_add_ps(p, vd); });
}

void CSSEMatrix::OffsetMatrixAbove(float t, float d)
{
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vd = _mm_set1_ps(d);
    forEachVector(*this, [vt, vd](__m128& p) {
        p = select(_mm_cmplt_ps(vt, p), _mm_add_ps(p, vd), p);
    });
}

void CSSEMatrix::OffsetMatrixBelow(float t, float d)
{
    const __m128 vt = _mm_set1_ps(t);
    const __m128 vd = _mm_set1_ps(d);
    forEachVector(*this, [vt, vd](__m128& p) {
        p = select(_mm_cmplt_ps(p, vt), _mm_add_ps(p, vd), p);
    });
}

// Raises the drawn part of a height map and leaves the empty (near 0) pixels empty.
void CSSEMatrix::LiftWhereNonZero(float d)
{
    OffsetMatrixAbove(qzsse::detail::c_fLiftThreshold, d);
}

void CSSEMatrix::ScalarMultiply(float s)
{
    const __m128 vs = _mm_set1_ps(s);
    forEachVector(*this, [vs](__m128& p) { p = _mm_mul_ps(p, vs); });
}

// 0 - p rather than a sign flip: both zeros come out as +0.
void CSSEMatrix::InvertSign()
{
    const __m128 zero = _mm_setzero_ps();
    forEachVector(*this, [zero](__m128& p) { p = _mm_sub_ps(zero, p); });
}

// The square root of the square, not a sign-bit clear: callers rely on huge values
// saturating to +inf and tiny ones flushing to 0.
void CSSEMatrix::Absolute()
{
    forEachVector(*this, [](__m128& p) { p = _mm_sqrt_ps(_mm_mul_ps(p, p)); });
}

void CSSEMatrix::AddMatrix(const CSSEMatrix& other)
{
    forEachVectorPairThisExtent(*this, other, [](__m128& p, __m128 o) { p = _mm_add_ps(p, o); });
}

void CSSEMatrix::SubMatrix(const CSSEMatrix& other)
{
    forEachVectorPairCommonExtent(*this, other, [](__m128& p, __m128 o) { p = _mm_sub_ps(p, o); });
}

// Pixels not above 0 are empty and stay as they are.
void CSSEMatrix::SubMatrixValidate(CSSEMatrix& other)
{
    const __m128 zero = _mm_setzero_ps();
    forEachVectorPairCommonExtent(*this, other, [zero](__m128& p, __m128 o) {
        p = select(_mm_cmplt_ps(zero, p), _mm_sub_ps(p, o), p);
    });
}

void CSSEMatrix::AddMatrixOffseted(const CSSEMatrix& other, float a)
{
    const __m128 zero = _mm_setzero_ps();
    const __m128 va = _mm_set1_ps(a);
    forEachVectorPairThisExtent(*this, other, [zero, va](__m128& p, __m128 o) {
        p = _mm_add_ps(p, _mm_max_ps(zero, _mm_sub_ps(o, va)));
    });
}

void CSSEMatrix::AddMatrixOffsetedNormed(const CSSEMatrix& other, float a, float b)
{
    const __m128 zero = _mm_setzero_ps();
    const __m128 va = _mm_set1_ps(a);
    const __m128 vb = _mm_set1_ps(b);
    forEachVectorPairThisExtent(*this, other, [zero, va, vb](__m128& p, __m128 o) {
        p = _mm_add_ps(p, _mm_mul_ps(_mm_max_ps(zero, _mm_sub_ps(o, va)), vb));
    });
}

// The other matrix only counts where this one is drawn (p >= 0.001); a NaN pixel of this
// matrix fails that test too, which does not matter since its p * b term is NaN anyway.
void CSSEMatrix::AddMatrixOffsetedConstrained(const CSSEMatrix& other, float a, float b, float c)
{
    const __m128 zero = _mm_setzero_ps();
    const __m128 level = _mm_set1_ps(qzsse::detail::c_fConstrainedLevel);
    const __m128 va = _mm_set1_ps(a);
    const __m128 vb = _mm_set1_ps(b);
    const __m128 vc = _mm_set1_ps(c);
    forEachVectorPairThisExtent(*this, other, [=](__m128& p, __m128 o) {
        const __m128 constrained = _mm_and_ps(_mm_cmpge_ps(p, level), o);
        const __m128 lifted = _mm_mul_ps(_mm_max_ps(zero, _mm_sub_ps(constrained, va)), vc);
        p = _mm_add_ps(lifted, _mm_mul_ps(p, vb));
    });
}

void CSSEMatrix::MaximumOf(CSSEMatrix& other)
{
    forEachVectorPairCommonExtent(*this, other, [](__m128& p, __m128 o) { p = _mm_max_ps(o, p); });
}

void CSSEMatrix::MinimumOf(CSSEMatrix& other)
{
    forEachVectorPairCommonExtent(*this, other, [](__m128& p, __m128 o) { p = _mm_min_ps(o, p); });
}

void CSSEMatrix::CombineAbsolute(CSSEMatrix& other)
{
    forEachVectorPairCommonExtent(*this, other, [](__m128& p, __m128 o) {
        p = _mm_sqrt_ps(_mm_add_ps(_mm_mul_ps(o, o), _mm_mul_ps(p, p)));
    });
}

void CSSEMatrix::CombineMultiplicative(CSSEMatrix& other, bool absolute)
{
    if (absolute) {
        forEachVectorPairCommonExtent(*this, other, [](__m128& p, __m128 o) {
            const __m128 product = _mm_mul_ps(p, o);
            p = _mm_sqrt_ps(_mm_mul_ps(product, product));
        });
    } else {
        forEachVectorPairCommonExtent(*this, other, [](__m128& p, __m128 o) { p = _mm_mul_ps(p, o); });
    }
}
