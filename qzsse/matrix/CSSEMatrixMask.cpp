#include <algorithm>
#include <cstdint>
#include <emmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"

namespace qzsse::detail {
namespace {

constexpr float c_fMaskLevel = 0.1f;
constexpr float c_fStencilLevel = 5.0f;

// trunc(i * scale + 0.5) clamped to [0, size - 1]. The clamp is done on the float before
// the conversion, which gives the same index and keeps huge or NaN positions defined.
inline int clampedSample(int i, float scale, int size)
{
    const float pos = static_cast<float>(i) * scale + 0.5f;
    if (!(pos >= 0.0f))
        return 0;
    if (pos >= static_cast<float>(size))
        return size - 1;
    return static_cast<int>(pos);
}

// trunc((i - offset) * scale + 0.5), or -1 when that position lies outside [0, size).
inline int placedSample(int i, int offset, float scale, int size)
{
    const float pos = static_cast<float>(static_cast<int64_t>(i) - offset) * scale + 0.5f;
    if (!(pos >= 0.0f) || !(pos < static_cast<float>(size)))
        return -1;
    return static_cast<int>(pos);
}

inline const float* floatRow(const CSSEMatrix& m, int y)
{
    return reinterpret_cast<const float*>(m.GetMatrixDataDirectly()[y >> 2]) + (y & 3);
}

inline const signed char* byteRow(const CSSEcharMatrix& m, int y)
{
    return reinterpret_cast<const signed char*>(m.GetMatrixDataDirectly()[y >> 4]) + (y & 15);
}

// Walks the real pixels of `m` vector by vector and zeroes the lanes for which
// erase(band, x) sets the mask; the callback gathers its samples for the four rows at once.
template <class Erase>
void eraseRealPixels(CSSEMatrix& m, Erase erase)
{
    __m128** data = m.GetMatrixDataDirectly();
    for (int j = 0; j < m.GetSSESizeY(); ++j) {
        const __m128 real = realRowsMask(j, m.GetSizeY());
        __m128* band = data[j];
        for (int x = 0; x < m.GetSSESizeX(); ++x)
            band[x] = _mm_andnot_ps(_mm_and_ps(real, erase(j, x)), band[x]);
    }
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

void CSSEMatrix::MaskOut(CSSEMatrix& mask)
{
    const __m128 level = _mm_set1_ps(c_fMaskLevel);
    const __m128 zero = _mm_setzero_ps();
    forEachVectorPairCommonExtent(*this, mask, [&](__m128& p, __m128 m) {
        const __m128 erase = _mm_or_ps(_mm_cmplt_ps(m, level), _mm_cmplt_ps(p, zero));
        p = _mm_andnot_ps(erase, p);
    });
}

void CSSEMatrix::MaskOutAndValidate(CSSEMatrix& mask)
{
    const __m128 level = _mm_set1_ps(c_fMaskLevel);
    const __m128 zero = _mm_setzero_ps();
    forEachVectorPairCommonExtent(*this, mask, [&](__m128& p, __m128 m) {
        const __m128 erase = _mm_and_ps(_mm_cmplt_ps(m, level), _mm_cmpgt_ps(p, zero));
        p = _mm_andnot_ps(erase, p);
    });
}

void CSSEMatrix::StencilThreshAbove(CSSEMatrix& stencil, float t)
{
    const __m128 level = _mm_set1_ps(t);
    forEachVectorPairCommonExtent(*this, stencil, [&](__m128& p, __m128 s) {
        p = _mm_andnot_ps(_mm_cmplt_ps(s, level), p);
    });
}

// Kept under its own name for callers; the test is not reversed.
void CSSEMatrix::StencilThreshBelow(CSSEMatrix& stencil, float t)
{
    StencilThreshAbove(stencil, t);
}

// A scale of exactly 1 on both axes pairs the vectors directly (padding rows included);
// any other scale samples the stencil once per real pixel.
void CSSEMatrix::Stencil(CSSEMatrix& stencil, float sx, float sy)
{
    if (sx == 1.0f && sy == 1.0f) {
        StencilThreshAbove(stencil, c_fStencilLevel);
        return;
    }
    const int width = stencil.GetSizeX();
    const int height = stencil.GetSizeY();
    if (stencil.GetMatrixDataDirectly() == nullptr || width < 1 || height < 1)
        return;
    const __m128 level = _mm_set1_ps(c_fStencilLevel);
    const float* rows[4] = {};
    int rowsOfBand = -1;
    eraseRealPixels(*this, [&](int j, int x) {
        if (rowsOfBand != j) {
            for (int lane = 0; lane < 4; ++lane)
                rows[lane] = floatRow(stencil, clampedSample(4 * j + lane, sy, height));
            rowsOfBand = j;
        }
        const int column = 4 * clampedSample(x, sx, width);
        const __m128 s = _mm_setr_ps(rows[0][column], rows[1][column], rows[2][column], rows[3][column]);
        return _mm_cmplt_ps(s, level);
    });
}

void CSSEMatrix::Stencil(CSSEcharMatrix& stencil, float sx, float sy)
{
    const int width = stencil.GetSizeX();
    const int height = stencil.GetSizeY();
    if (stencil.GetMatrixDataDirectly() == nullptr || width < 1 || height < 1)
        return;
    const signed char* rows[4] = {};
    int rowsOfBand = -1;
    eraseRealPixels(*this, [&](int j, int x) {
        if (rowsOfBand != j) {
            for (int lane = 0; lane < 4; ++lane)
                rows[lane] = byteRow(stencil, clampedSample(4 * j + lane, sy, height));
            rowsOfBand = j;
        }
        const int column = 16 * clampedSample(x, sx, width);
        const __m128i s = _mm_setr_epi32(rows[0][column], rows[1][column], rows[2][column], rows[3][column]);
        return _mm_castsi128_ps(_mm_cmpeq_epi32(s, _mm_setzero_si128()));
    });
}

void CSSEMatrix::BinarizeBackground(float threshold, float value)
{
    const __m128 t = _mm_set1_ps(threshold);
    const __m128 v = _mm_set1_ps(value);
    forEachVector(*this, [&](__m128& p) { p = select(_mm_cmplt_ps(t, p), p, v); });
}

void CSSEMatrix::MaskMatrix(const CSSEMatrix& mask, float threshold, int offsetX, int offsetY, float sx, float sy)
{
    const bool hasStorage = mask.GetMatrixDataDirectly() != nullptr;
    const int width = hasStorage ? mask.GetSizeX() : 0;
    const int height = hasStorage ? mask.GetSizeY() : 0;
    const __m128 level = _mm_set1_ps(threshold);
    const float* rows[4] = {};
    __m128i rowOutside = _mm_setzero_si128();
    int rowsOfBand = -1;
    eraseRealPixels(*this, [&](int j, int x) {
        if (rowsOfBand != j) {
            alignas(16) int outside[4];
            for (int lane = 0; lane < 4; ++lane) {
                const int row = placedSample(4 * j + lane, offsetY, sy, height);
                outside[lane] = row < 0 ? -1 : 0;
                rows[lane] = row < 0 ? nullptr : floatRow(mask, row);
            }
            rowOutside = _mm_load_si128(reinterpret_cast<const __m128i*>(outside));
            rowsOfBand = j;
        }
        const int column = placedSample(x, offsetX, sx, width);
        if (column < 0)
            return _mm_castsi128_ps(_mm_set1_epi32(-1));
        const int at = 4 * column;
        const __m128 s = _mm_setr_ps(rows[0] ? rows[0][at] : 0.0f, rows[1] ? rows[1][at] : 0.0f,
                                     rows[2] ? rows[2][at] : 0.0f, rows[3] ? rows[3][at] : 0.0f);
        return _mm_or_ps(_mm_castsi128_ps(rowOutside), _mm_cmplt_ps(s, level));
    });
}

void CSSEMatrix::MaskOutWithValue(const CSSEMatrix& mask, float lo, float hi, float maskThreshold, float value,
                                  bool inside)
{
    if (m_Data == nullptr || mask.GetMatrixDataDirectly() == nullptr)
        return;
    const int cols = std::min(m_SizeX, mask.GetSizeX());
    const int height = std::min(m_SizeY, mask.GetSizeY());
    const int bands = std::min(m_SSESizeY, mask.GetSSESizeY());
    const __m128 low = _mm_set1_ps(lo);
    const __m128 high = _mm_set1_ps(hi);
    const __m128 level = _mm_set1_ps(maskThreshold);
    const __m128 v = _mm_set1_ps(value);
    // XOR with all ones turns "lo < p < hi" into its complement for !inside.
    const __m128 flip = inside ? _mm_setzero_ps() : _mm_castsi128_ps(_mm_set1_epi32(-1));
    __m128** mdata = mask.GetMatrixDataDirectly();
    for (int j = 0; j < bands; ++j) {
        const __m128 real = realRowsMask(j, height);
        __m128* band = m_Data[j];
        const __m128* mband = mdata[j];
        for (int x = 0; x < cols; ++x) {
            const __m128 p = band[x];
            const __m128 between = _mm_and_ps(_mm_cmplt_ps(low, p), _mm_cmplt_ps(p, high));
            const __m128 chosen = _mm_xor_ps(between, flip);
            const __m128 replace = _mm_and_ps(real, _mm_and_ps(_mm_cmplt_ps(mband[x], level), chosen));
            band[x] = select(replace, v, p);
        }
    }
}
