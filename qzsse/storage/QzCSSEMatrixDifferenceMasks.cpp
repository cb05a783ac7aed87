// Element-wise pieces of the difference coder: size enforcement, masks and smoothing.

#include <algorithm>
#include <cstring>
#include <emmintrin.h>
#include <limits>

#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"
#include "qzsse/storage/QzCSSEMatrixLibrary.h"
#include "qzsse/storage/detail/DifferenceCoding.h"

namespace qzsse::detail {
namespace {

// Lane-wise "v equals value" where a NaN value matches every NaN lane; valueIsNaN is all
// ones when value is NaN, so no branch is needed per vector.
inline __m128 equalsValue(__m128 v, __m128 value, __m128 valueIsNaN)
{
    return _mm_or_ps(_mm_cmpeq_ps(v, value), _mm_and_ps(_mm_cmpunord_ps(v, v), valueIsNaN));
}

inline __m128 nanFlag(float value)
{
    const __m128 v = _mm_set1_ps(value);
    return _mm_cmpunord_ps(v, v);
}

// Gives out the size of `like`; storage is reused when the size already fits.
void sizeLike(const CSSEMatrix& like, CSSEMatrix& out)
{
    if (out.GetMatrixDataDirectly() == nullptr || !SameSize(like, out))
        out.CreateNoClear(like.GetSizeX(), like.GetSizeY());
}

inline __m128 shiftLanesUp(__m128 v, __m128 above)
{
    // [above3, v0, v1, v2]: the row above each lane.
    const __m128i vi = _mm_castps_si128(v);
    return _mm_castsi128_ps(_mm_or_si128(_mm_slli_si128(vi, 4), _mm_srli_si128(_mm_castps_si128(above), 12)));
}

inline __m128 shiftLanesDown(__m128 v, __m128 below)
{
    // [v1, v2, v3, below0]: the row below each lane.
    const __m128i vi = _mm_castps_si128(v);
    return _mm_castsi128_ps(_mm_or_si128(_mm_srli_si128(vi, 4), _mm_slli_si128(_mm_castps_si128(below), 12)));
}

} // namespace

float MaxAbsDifference(const CSSEMatrix& a, const CSSEMatrix& b)
{
    const __m128 signBit = _mm_set1_ps(-0.0f);
    const __m128 inf = _mm_set1_ps(std::numeric_limits<float>::infinity());
    __m128 largest = _mm_setzero_ps();
    __m128** da = a.GetMatrixDataDirectly();
    __m128** db = b.GetMatrixDataDirectly();
    const int width = std::min(a.GetSizeX(), b.GetSizeX());
    const int height = std::min(a.GetSizeY(), b.GetSizeY());
    for (int j = 0; 4 * j < height; ++j) {
        const __m128 real = realRowsMask(j, height);
        for (int x = 0; x < width; ++x) {
            const __m128 va = da[j][x];
            const __m128 vb = db[j][x];
            const __m128 nanA = _mm_cmpunord_ps(va, va);
            const __m128 nanB = _mm_cmpunord_ps(vb, vb);
            __m128 d = _mm_andnot_ps(signBit, _mm_sub_ps(va, vb));
            d = select(_mm_or_ps(_mm_cmpeq_ps(va, vb), _mm_and_ps(nanA, nanB)), _mm_setzero_ps(), d);
            d = select(_mm_xor_ps(nanA, nanB), inf, d);
            largest = _mm_max_ps(largest, _mm_and_ps(real, d));
        }
    }
    alignas(16) float lanes[4];
    _mm_store_ps(lanes, largest);
    return std::max(std::max(lanes[0], lanes[1]), std::max(lanes[2], lanes[3]));
}

void CopyMatrixValues(const CSSEMatrix& src, CSSEMatrix& dst)
{
    const size_t bandBytes = static_cast<size_t>(src.GetSSESizeX()) * sizeof(__m128);
    if (bandBytes == 0)
        return;
    __m128** s = src.GetMatrixDataDirectly();
    __m128** d = dst.GetMatrixDataDirectly();
    for (int j = 0; j < src.GetSSESizeY(); ++j)
        std::memcpy(d[j], s[j], bandBytes);
}

void RepeatLastRowIntoPadding(CSSEMatrix& m)
{
    const int height = m.GetSizeY();
    if (height < 1)
        return;
    const int width = m.GetSizeX();
    __m128** data = m.GetMatrixDataDirectly();
    const float* last = reinterpret_cast<const float*>(data[(height - 1) >> 2]) + ((height - 1) & 3);
    for (int y = height; y < 4 * m.GetSSESizeY(); ++y) {
        float* row = reinterpret_cast<float*>(data[y >> 2]) + (y & 3);
        for (int x = 0; x < width; ++x)
            row[4 * x] = last[4 * x];
    }
}

} // namespace qzsse::detail

using namespace qzsse::detail;

void QzCSSEMatrixLibrary::enforceMatrixSize(const CSSEMatrix& matrix, const CSSEMatrix& reference, CSSEMatrix& out)
{
    const int width = reference.GetSizeX();
    const int height = reference.GetSizeY();
    CSSEMatrix sized;
    sized.Create(width, height);
    sized.SetCompressionParameters(matrix.GetCompressionParameters());
    const int commonWidth = std::min(width, matrix.GetSizeX());
    const int commonHeight = std::min(height, matrix.GetSizeY());
    __m128** src = matrix.GetMatrixDataDirectly();
    __m128** dst = sized.GetMatrixDataDirectly();
    for (int j = 0; 4 * j < commonHeight; ++j) {
        const __m128 keep = realRowsMask(j, commonHeight);
        for (int x = 0; x < commonWidth; ++x)
            dst[j][x] = _mm_and_ps(keep, src[j][x]);
    }
    out = sized;
}

bool QzCSSEMatrixLibrary::createMask(const CSSEMatrix& src, CSSEMatrix& mask, float value)
{
    sizeLike(src, mask);
    const __m128 v = _mm_set1_ps(value);
    const __m128 vNaN = nanFlag(value);
    const __m128 one = _mm_set1_ps(1.0f);
    forEachVectorPairThisExtent(mask, src, [&](__m128& m, __m128 s) { m = _mm_and_ps(one, equalsValue(s, v, vNaN)); });
    return true;
}

bool QzCSSEMatrixLibrary::applyMask(CSSEMatrix& matrix, const CSSEMatrix& mask, float value)
{
    if (!SameSize(matrix, mask))
        return false;
    const __m128 v = _mm_set1_ps(value);
    const __m128 zero = _mm_setzero_ps();
    // cmpneq is true for NaN, which is "not 0" as well.
    forEachVectorPairThisExtent(matrix, mask, [&](__m128& p, __m128 m) { p = select(_mm_cmpneq_ps(m, zero), v, p); });
    return true;
}

bool QzCSSEMatrixLibrary::assembleMatrix(const CSSEMatrix& a, const CSSEMatrix& b, CSSEMatrix& out, float value)
{
    if (!SameSize(a, b))
        return false;
    sizeLike(a, out);
    const __m128 v = _mm_set1_ps(value);
    const __m128 vNaN = nanFlag(value);
    __m128** da = a.GetMatrixDataDirectly();
    __m128** db = b.GetMatrixDataDirectly();
    __m128** dout = out.GetMatrixDataDirectly();
    for (int j = 0; j < a.GetSSESizeY(); ++j)
        for (int x = 0; x < a.GetSSESizeX(); ++x) {
            const __m128 vb = db[j][x];
            dout[j][x] = select(equalsValue(vb, v, vNaN), da[j][x], vb);
        }
    return true;
}

void QzCSSEMatrixLibrary::smoothBlock(const CSSEMatrix& src, CSSEMatrix& dst, int band)
{
    const int width = src.GetSizeX();
    if (width < 1)
        return;
    __m128** data = src.GetMatrixDataDirectly();
    const __m128* cur = data[band];
    const __m128* above = band > 0 ? data[band - 1] : nullptr;
    const __m128* below = band + 1 < src.GetSSESizeY() ? data[band + 1] : nullptr;
    __m128* out = dst.GetMatrixDataDirectly()[band];
    const __m128 quarter = _mm_set1_ps(0.25f);
    const __m128 half = _mm_set1_ps(0.5f);

    // Rows beyond the first and the last band repeat the edge row.
    auto smoothed = [&](int x, __m128 left, __m128 right) {
        const __m128 c = cur[x];
        const __m128 up = above ? shiftLanesUp(c, above[x]) : _mm_shuffle_ps(c, c, _MM_SHUFFLE(2, 1, 0, 0));
        const __m128 down = below ? shiftLanesDown(c, below[x]) : _mm_shuffle_ps(c, c, _MM_SHUFFLE(3, 3, 2, 1));
        const __m128 sum = _mm_add_ps(_mm_add_ps(up, down), _mm_add_ps(left, right));
        return _mm_mul_ps(_mm_add_ps(c, _mm_mul_ps(sum, quarter)), half);
    };
    if (width == 1) {
        out[0] = smoothed(0, cur[0], cur[0]);
        return;
    }
    out[0] = smoothed(0, cur[0], cur[1]);
    for (int x = 1; x < width - 1; ++x)
        out[x] = smoothed(x, cur[x - 1], cur[x + 1]);
    out[width - 1] = smoothed(width - 1, cur[width - 2], cur[width - 1]);
}

void QzCSSEMatrixLibrary::smooth(CSSEMatrix& matrix, const CSSEMatrix* known, int iterations)
{
    if (matrix.GetSizeX() < 1 || matrix.GetSizeY() < 1 || iterations < 1)
        return;
    if (known != nullptr && !SameSize(matrix, *known))
        return;
    CSSEMatrix smoothed;
    smoothed.Create(matrix.GetSizeX(), matrix.GetSizeY());
    for (int i = 0; i < iterations; ++i) {
        RepeatLastRowIntoPadding(matrix);
        for (int j = 0; j < matrix.GetSSESizeY(); ++j)
            smoothBlock(matrix, smoothed, j);
        if (known != nullptr)
            assembleMatrix(smoothed, *known, matrix, c_fDifferenceCodingPNGSpecialValue);
        else
            CopyMatrixValues(smoothed, matrix);
    }
}
