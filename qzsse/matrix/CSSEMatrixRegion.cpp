#include <algorithm>
#include <bit>
#include <emmintrin.h>
#include <limits>

#include "qzsse/core/CSSEFns.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"

namespace qzsse::detail {
namespace {

constexpr int c_iBoxMinSeed = 1000000;
constexpr int c_iBoxMaxSeed = -1000000;
constexpr float c_fEmptyPatch = -1000000.0f;
constexpr float c_fZeroTolerance = 0.002f;

struct Patch {
    int x0, y0, x1, y1;
    bool empty() const { return x0 > x1 || y0 > y1; }
};

inline Patch clampedPatch(const CSSEMatrix& m, int x0, int y0, int x1, int y1)
{
    if (m.GetMatrixDataDirectly() == nullptr || m.GetSizeX() < 1 || m.GetSizeY() < 1)
        return {0, 0, -1, -1};
    const int lastX = m.GetSizeX() - 1;
    const int lastY = m.GetSizeY() - 1;
    return {std::clamp(x0, 0, lastX), std::clamp(y0, 0, lastY), std::clamp(x1, 0, lastX),
            std::clamp(y1, 0, lastY)};
}

// Calls f(v, lanes) for every vector that touches the patch, with the mask of its lanes
// inside the patch.
template <class F>
void forEachPatchVector(const CSSEMatrix& m, const Patch& patch, F&& f)
{
    __m128** data = m.GetMatrixDataDirectly();
    for (int j = patch.y0 >> 2; j <= patch.y1 >> 2; ++j) {
        const __m128 lanes = rowRangeMask(4 * j, patch.y0, patch.y1);
        const __m128* band = data[j];
        for (int x = patch.x0; x <= patch.x1; ++x)
            f(band[x], lanes);
    }
}

// Running minimum as std::min(running, v), i.e. _mm_min_ps(v, running), from +infinity: a NaN
// pixel never replaces it. `found` collects the lanes that took part, so an all-NaN or
// all-excluded patch reports the empty value like a patch without pixels.
template <bool ExcludeZero>
void patchMinimum(const CSSEMatrix& m, float* minValue, int x0, int y0, int x1, int y1)
{
    if (minValue == nullptr)
        return;
    const Patch patch = clampedPatch(m, x0, y0, x1, y1);
    if (patch.empty()) {
        *minValue = c_fEmptyPatch;
        return;
    }
    const __m128 seed = _mm_set1_ps(std::numeric_limits<float>::infinity());
    const __m128 below = _mm_set1_ps(-c_fZeroTolerance);
    const __m128 above = _mm_set1_ps(c_fZeroTolerance);
    __m128 running = seed;
    __m128 found = _mm_setzero_ps();
    forEachPatchVector(m, patch, [&](__m128 v, __m128 lanes) {
        __m128 take = _mm_and_ps(lanes, _mm_cmpord_ps(v, v));
        if constexpr (ExcludeZero)
            take = _mm_andnot_ps(_mm_and_ps(_mm_cmplt_ps(below, v), _mm_cmplt_ps(v, above)), take);
        running = _mm_min_ps(select(take, v, seed), running);
        found = _mm_or_ps(found, take);
    });
    if (_mm_movemask_ps(found) == 0) {
        *minValue = c_fEmptyPatch;
        return;
    }
    CSSEFns::min_of_m128(running, minValue);
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

// One movemask per vector: a column counts when any of its lanes qualifies, and the lanes
// hit anywhere in a band give that band's first and last qualifying rows.
bool CSSEMatrix::CalcBoundingBox(int& minX, int& minY, int& maxX, int& maxY, float threshold, bool above)
{
    minX = minY = c_iBoxMinSeed;
    maxX = maxY = c_iBoxMaxSeed;
    if (m_Data == nullptr)
        return false;
    const __m128 t = _mm_set1_ps(threshold);
    for (int j = 0; j < m_SSESizeY; ++j) {
        const __m128 real = realRowsMask(j, m_SizeY);
        const __m128* band = m_Data[j];
        int rowsHit = 0;
        for (int x = 0; x < m_SSESizeX; ++x) {
            const __m128 hit = above ? _mm_cmplt_ps(t, band[x]) : _mm_cmplt_ps(band[x], t);
            const int bits = _mm_movemask_ps(_mm_and_ps(hit, real));
            if (bits != 0) {
                minX = std::min(minX, x);
                maxX = std::max(maxX, x);
                rowsHit |= bits;
            }
        }
        if (rowsHit != 0) {
            const unsigned lanes = static_cast<unsigned>(rowsHit);
            minY = std::min(minY, 4 * j + std::countr_zero(lanes));
            maxY = 4 * j + 31 - std::countl_zero(lanes);
        }
    }
    return maxX >= 0;
}

void CSSEMatrix::CalcMaxValueOfPatch(float* maxValue, int x0, int y0, int x1, int y1)
{
    if (maxValue == nullptr)
        return;
    const Patch patch = clampedPatch(*this, x0, y0, x1, y1);
    const __m128 seed = _mm_set1_ps(c_fEmptyPatch);
    __m128 running = seed;
    if (!patch.empty()) {
        // std::max(running, v) as _mm_max_ps(v, running): NaN pixels are passed over.
        forEachPatchVector(*this, patch, [&](__m128 v, __m128 lanes) {
            running = _mm_max_ps(select(lanes, v, seed), running);
        });
    }
    CSSEFns::max_of_m128(running, maxValue);
}

void CSSEMatrix::CalcMinValueOfPatch(float* minValue, int x0, int y0, int x1, int y1)
{
    patchMinimum<false>(*this, minValue, x0, y0, x1, y1);
}

void CSSEMatrix::CalcMinValueOfPatchExcludeZero(float* minValue, int x0, int y0, int x1, int y1)
{
    patchMinimum<true>(*this, minValue, x0, y0, x1, y1);
}
