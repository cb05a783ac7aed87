#include <algorithm>
#include <emmintrin.h>

#include "qzsse/core/CSSEFns.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"

namespace qzsse::detail {
namespace {

constexpr float c_fMinSeed = 1000000.0f;
constexpr float c_fMaxSeed = -1000000.0f;
constexpr float c_fZeroTolerance = 0.002f;

// A true mask lane is -1 as an integer, so subtracting the mask counts it.
inline __m128i countLanes(__m128i count, __m128 mask)
{
    return _mm_sub_epi32(count, _mm_castps_si128(mask));
}

inline int sumOfCounts(__m128i count)
{
    alignas(16) int lanes[4];
    _mm_store_si128(reinterpret_cast<__m128i*>(lanes), count);
    return lanes[0] + lanes[1] + lanes[2] + lanes[3];
}

// Counts the lanes of every band of m (padding rows included) where test(v, o) is true, o
// being the vector at the same place in `partner` (at least as large as m). Two running
// counts, for even and odd columns, let the loads run ahead of the additions.
template <class Test>
int countLanesWhere(const CSSEMatrix& m, const CSSEMatrix& partner, Test test)
{
    __m128** data = m.GetMatrixDataDirectly();
    __m128** partnerData = partner.GetMatrixDataDirectly();
    const int bands = m.GetSSESizeY();
    const int cols = m.GetSSESizeX();
    __m128i even = _mm_setzero_si128();
    __m128i odd = _mm_setzero_si128();
    for (int j = 0; j < bands; ++j) {
        const __m128* band = data[j];
        const __m128* partnerBand = partnerData[j];
        int x = 0;
        for (; x + 1 < cols; x += 2) {
            even = countLanes(even, test(band[x], partnerBand[x]));
            odd = countLanes(odd, test(band[x + 1], partnerBand[x + 1]));
        }
        if (x < cols)
            even = countLanes(even, test(band[x], partnerBand[x]));
    }
    return sumOfCounts(_mm_add_epi32(even, odd));
}

inline __m128 absoluteOf(__m128 v)
{
    return _mm_sqrt_ps(_mm_mul_ps(v, v));
}

inline __m128 nearZero(__m128 v)
{
    return _mm_and_ps(_mm_cmplt_ps(_mm_set1_ps(-c_fZeroTolerance), v),
                      _mm_cmplt_ps(v, _mm_set1_ps(c_fZeroTolerance)));
}

// Every sum of this file accumulates lane by lane, column by column and band by band, from
// +0, and adds the four lane sums as CSSEFns does: (l0 + l3) + (l1 + l2). `term(v)` gives the
// summand; in the last band only the lanes of `lastLanes` take part.
template <class Term>
float sumOverBands(const CSSEMatrix& m, Term term, __m128 lastLanes)
{
    __m128** data = m.GetMatrixDataDirectly();
    const int bands = m.GetSSESizeY();
    const int cols = m.GetSSESizeX();
    __m128 acc = _mm_setzero_ps();
    for (int j = 0; j < bands - 1; ++j) {
        const __m128* band = data[j];
        for (int x = 0; x < cols; ++x)
            acc = _mm_add_ps(acc, term(band[x]));
    }
    if (bands >= 1) {
        const __m128* band = data[bands - 1];
        for (int x = 0; x < cols; ++x)
            acc = select(lastLanes, _mm_add_ps(acc, term(band[x])), acc);
    }
    return CSSEFns::internal_addition_of_m128(acc);
}

inline __m128 allLanes()
{
    return _mm_castsi128_ps(_mm_set1_epi32(-1));
}

// The running extremes are updated as running = std::max(running, v), which is
// _mm_max_ps(v, running): a NaN pixel fails the comparison and leaves the running value, so
// NaN never takes part and never reaches the result. The lanes are folded with CSSEFns's
// max_of_m128/min_of_m128; the last band then goes pixel by pixel, column by column, over its
// real rows only.
template <bool ExcludeZero>
void minMaxValues(const CSSEMatrix& m, float* maxValue, float* minValue)
{
    const __m128 maxSeed = _mm_set1_ps(c_fMaxSeed);
    const __m128 minSeed = _mm_set1_ps(c_fMinSeed);
    // Two running pairs, for even and odd columns, halve the dependency chain; the
    // extremes do not depend on the order in which pixels are met.
    __m128 runMax0 = maxSeed, runMax1 = maxSeed;
    __m128 runMin0 = minSeed, runMin1 = minSeed;
    auto take = [&](__m128 v, __m128& runMax, __m128& runMin) {
        __m128 forMax = v;
        __m128 forMin = v;
        if constexpr (ExcludeZero) {
            const __m128 skip = nearZero(v);
            forMax = select(skip, maxSeed, forMax);
            forMin = select(skip, minSeed, forMin);
        }
        runMax = _mm_max_ps(forMax, runMax);
        runMin = _mm_min_ps(forMin, runMin);
    };
    __m128** data = m.GetMatrixDataDirectly();
    const int bands = m.GetSSESizeY();
    const int cols = m.GetSSESizeX();
    for (int j = 0; j < bands - 1; ++j) {
        const __m128* band = data[j];
        int x = 0;
        for (; x + 1 < cols; x += 2) {
            take(band[x], runMax0, runMin0);
            take(band[x + 1], runMax1, runMin1);
        }
        if (x < cols)
            take(band[x], runMax0, runMin0);
    }
    float largest;
    float smallest;
    CSSEFns::max_of_m128(_mm_max_ps(runMax1, runMax0), &largest);
    CSSEFns::min_of_m128(_mm_min_ps(runMin1, runMin0), &smallest);

    if (bands >= 1) {
        const int lastBand = bands - 1;
        const int realLanes = std::min(4, m.GetSizeY() - 4 * lastBand);
        const float* band = reinterpret_cast<const float*>(data[lastBand]);
        for (int x = 0; x < cols; ++x) {
            for (int lane = 0; lane < realLanes; ++lane) {
                const float p = band[4 * x + lane];
                if (ExcludeZero && -c_fZeroTolerance < p && p < c_fZeroTolerance)
                    continue;
                largest = (p > largest) ? p : largest;
                smallest = (p < smallest) ? p : smallest;
            }
        }
    }
    if (maxValue != nullptr)
        *maxValue = largest;
    if (minValue != nullptr)
        *minValue = smallest;
}

// Row y of this pairs with row y + offsetY of other; that row's vector straddles two of
// other's bands whenever offsetY is not a multiple of four, so the pair of bands is shifted
// together by (offsetY & 3) lanes, which is the same for every band.
template <int Shift>
inline __m128 joinBands(__m128 upper, __m128 lower)
{
    if constexpr (Shift == 0) {
        (void)lower;
        return upper;
    } else {
        const __m128i hi = _mm_srli_si128(_mm_castps_si128(upper), 4 * Shift);
        const __m128i lo = _mm_slli_si128(_mm_castps_si128(lower), 16 - 4 * Shift);
        return _mm_castsi128_ps(_mm_or_si128(hi, lo));
    }
}

template <int Shift>
float sumOfTwo(const CSSEMatrix& m, const CSSEMatrix& other, int offsetX, int offsetY)
{
    const int firstX = std::max(0, -offsetX);
    const int endX = std::min(m.GetSizeX(), other.GetSizeX() - offsetX);
    const int firstY = std::max(0, -offsetY);
    const int endY = std::min(m.GetSizeY(), other.GetSizeY() - offsetY);
    __m128 acc = _mm_setzero_ps();
    if (firstX < endX && firstY < endY) {
        __m128** data = m.GetMatrixDataDirectly();
        __m128** odata = other.GetMatrixDataDirectly();
        const int otherBands = other.GetSSESizeY();
        const __m128 zero = _mm_setzero_ps();
        const int bandShift = offsetY >> 2; // floor: offsetY = 4 * bandShift + Shift
        for (int j = firstY >> 2; j <= (endY - 1) >> 2; ++j) {
            const __m128 take = rowRangeMask(4 * j, firstY, endY - 1);
            const int upperIndex = j + bandShift;
            const __m128* upper = (upperIndex >= 0 && upperIndex < otherBands) ? odata[upperIndex] : nullptr;
            const __m128* lower =
                (upperIndex + 1 >= 0 && upperIndex + 1 < otherBands) ? odata[upperIndex + 1] : nullptr;
            const __m128* band = data[j];
            for (int x = firstX; x < endX; ++x) {
                const int ox = x + offsetX;
                const __m128 o = joinBands<Shift>(upper ? upper[ox] : zero, lower ? lower[ox] : zero);
                acc = select(take, _mm_add_ps(acc, _mm_add_ps(band[x], o)), acc);
            }
        }
    }
    return CSSEFns::internal_addition_of_m128(acc);
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

int CSSEMatrix::NumValuesAbove(float t)
{
    const __m128 tv = _mm_set1_ps(t);
    return qzsse::detail::countLanesWhere(*this, *this, [tv](__m128 p, __m128) { return _mm_cmplt_ps(tv, p); });
}

int CSSEMatrix::NumValuesBelow(float t)
{
    const __m128 tv = _mm_set1_ps(t);
    return qzsse::detail::countLanesWhere(*this, *this, [tv](__m128 p, __m128) { return _mm_cmplt_ps(p, tv); });
}

int CSSEMatrix::NumValuesAbove(CSSEMatrix* other)
{
    if (other == nullptr)
        return 0;
    return qzsse::detail::countLanesWhere(*this, *other, [](__m128 p, __m128 o) { return _mm_cmpgt_ps(p, o); });
}

int CSSEMatrix::NumValuesBelow(CSSEMatrix* other)
{
    if (other == nullptr)
        return 0;
    return qzsse::detail::countLanesWhere(*this, *other, [](__m128 p, __m128 o) { return _mm_cmplt_ps(p, o); });
}

float CSSEMatrix::IntegrateMatrix()
{
    return sumOverBands(*this, [](__m128 v) { return v; }, allLanes());
}

float CSSEMatrix::IntegrateMatrixAbsolute()
{
    return sumOverBands(*this, absoluteOf, allLanes());
}

// Only the last band is cut to its first (height & 3) lanes; a height that is a multiple of
// four leaves a remainder of 0 and the padding band is summed whole.
float CSSEMatrix::IntegrateMatrixValid()
{
    const int remainder = m_SizeY & 3;
    const __m128 lastLanes = remainder == 0 ? allLanes() : rowRangeMask(0, 0, remainder - 1);
    return sumOverBands(*this, [](__m128 v) { return v; }, lastLanes);
}

float CSSEMatrix::IntegrateMatrixAbsolute(float lo, float hi)
{
    const __m128 low = _mm_set1_ps(lo);
    const __m128 high = _mm_set1_ps(hi);
    const int height = m_SizeY;
    __m128** data = m_Data;
    __m128 acc = _mm_setzero_ps();
    for (int j = 0; j < m_SSESizeY; ++j) {
        const __m128 real = realRowsMask(j, height);
        const __m128* band = data[j];
        for (int x = 0; x < m_SSESizeX; ++x) {
            const __m128 p = band[x];
            const __m128 take = _mm_and_ps(real, _mm_and_ps(_mm_cmplt_ps(low, p), _mm_cmplt_ps(p, high)));
            acc = select(take, _mm_add_ps(acc, absoluteOf(p)), acc);
        }
    }
    return CSSEFns::internal_addition_of_m128(acc);
}

void CSSEMatrix::CalcMinMaxValues(float* maxValue, float* minValue) const
{
    minMaxValues<false>(*this, maxValue, minValue);
}

void CSSEMatrix::CalcMinMaxValuesExcludeZero(float* maxValue, float* minValue)
{
    minMaxValues<true>(*this, maxValue, minValue);
}

float CSSEMatrix::ComputeSumOfTwoMatrices(CSSEMatrix* other, int offsetX, int offsetY)
{
    if (other == nullptr || other->m_Data == nullptr || m_Data == nullptr)
        return 0.0f;
    switch (offsetY & 3) {
    case 0: return sumOfTwo<0>(*this, *other, offsetX, offsetY);
    case 1: return sumOfTwo<1>(*this, *other, offsetX, offsetY);
    case 2: return sumOfTwo<2>(*this, *other, offsetX, offsetY);
    default: return sumOfTwo<3>(*this, *other, offsetX, offsetY);
    }
}
