#include <algorithm>
#include <bit>
#include <cstring>
#include <emmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"

namespace qzsse::detail {
namespace {

// Lane l of the result is lane l + shift of lo for l + shift < 4, else lane l + shift - 4
// of hi: four consecutive rows starting `shift` rows into the band lo.
inline __m128 joinBands(__m128 lo, __m128 hi, int shift)
{
    const __m128i l = _mm_castps_si128(lo), h = _mm_castps_si128(hi);
    switch (shift) {
    case 0: return lo;
    case 1: return _mm_castsi128_ps(_mm_or_si128(_mm_srli_si128(l, 4), _mm_slli_si128(h, 12)));
    case 2: return _mm_castsi128_ps(_mm_or_si128(_mm_srli_si128(l, 8), _mm_slli_si128(h, 8)));
    default: return _mm_castsi128_ps(_mm_or_si128(_mm_srli_si128(l, 12), _mm_slli_si128(h, 4)));
    }
}

// Storage for sizeX x sizeY, reused when the sizes already match (new pages cost more than
// the copy into them); the contents are left as they are.
inline void ensureSize(CSSEMatrix& m, int sizeX, int sizeY)
{
    if (m.GetMatrixDataDirectly() == nullptr || m.GetSizeX() != sizeX || m.GetSizeY() != sizeY)
        m.CreateNoClear(sizeX, sizeY);
}

// Zeroes the padding rows, those of the last band below the image.
inline void clearPaddingRows(CSSEMatrix& m)
{
    const int last = m.GetSSESizeY() - 1;
    const __m128 real = realRowsMask(last, m.GetSizeY());
    __m128* band = m.GetMatrixDataDirectly()[last];
    for (int x = 0; x < m.GetSSESizeX(); ++x)
        band[x] = _mm_and_ps(band[x], real);
}

} // namespace
} // namespace qzsse::detail

// Every destination band is assembled from the (at most two) source bands its rows come
// from, so the copy stays vector-wide whatever the top margin.
void CSSEMatrix::EmbedMatrix(const CSSEMatrix& src, int left, int top, int right, int bottom, float borderValue)
{
    using namespace qzsse::detail;
    left = std::max(left, 0);
    top = std::max(top, 0);
    right = std::max(right, 0);
    bottom = std::max(bottom, 0);
    if (&src == this) {
        const CSSEMatrix copy(src);
        EmbedMatrix(copy, left, top, right, bottom, borderValue);
        return;
    }
    const int srcW = src.GetMatrixDataDirectly() != nullptr ? src.m_SizeX : 0;
    const int srcH = src.GetMatrixDataDirectly() != nullptr ? src.m_SizeY : 0;
    CSSEMatrix& out = *this;
    ensureSize(out, srcW + left + right, srcH + top + bottom);
    const __m128 border = _mm_set1_ps(borderValue);
    // Sizes in locals: a store through a vector pointer may alias anything.
    const int outW = out.m_SizeX, outH = out.m_SizeY, outBands = out.m_SSESizeY, srcBands = src.m_SSESizeY;
    __m128** srcData = src.m_Data;
    for (int j = 0; j < outBands; ++j) {
        __m128* d = out.m_Data[j];
        const __m128 real = realRowsMask(j, outH);
        const __m128 frame = _mm_and_ps(real, border);
        const int srcTop = 4 * j - top;
        const int band = srcTop >> 2, shift = srcTop & 3;
        const __m128 inside = _mm_and_ps(real, rowRangeMask(srcTop, 0, srcH - 1));
        int x = 0;
        if (_mm_movemask_ps(inside) != 0) {
            const __m128* lo = band >= 0 && band < srcBands ? srcData[band] : nullptr;
            const __m128* hi = shift != 0 && band + 1 >= 0 && band + 1 < srcBands ? srcData[band + 1] : nullptr;
            for (; x < left; ++x)
                d[x] = frame;
            __m128* dm = d + left;
            if (lo != nullptr && hi != nullptr)
                for (int sx = 0; sx < srcW; ++sx)
                    dm[sx] = select(inside, joinBands(lo[sx], hi[sx], shift), frame);
            else if (lo != nullptr)
                for (int sx = 0; sx < srcW; ++sx)
                    dm[sx] = select(inside, joinBands(lo[sx], _mm_setzero_ps(), shift), frame);
            else
                for (int sx = 0; sx < srcW; ++sx)
                    dm[sx] = select(inside, joinBands(_mm_setzero_ps(), hi[sx], shift), frame);
            x += srcW;
        }
        for (; x < outW; ++x)
            d[x] = frame;
    }
}

// Scalar by name: one lane at a time. When the frame's top row starts a source band, whole
// vectors line up and each band is one block copy.
void CSSEMatrix::ExtractFrame_nonSSE(const CSSEMatrix& src, int x0, int y0, int sizeX, int sizeY)
{
    using namespace qzsse::detail;
    if (&src == this) {
        const CSSEMatrix copy(src);
        ExtractFrame_nonSSE(copy, x0, y0, sizeX, sizeY);
        return;
    }
    sizeX = std::max(sizeX, 0);
    sizeY = std::max(sizeY, 0);
    CSSEMatrix& out = *this;
    ensureSize(out, sizeX, sizeY);
    const int srcW = src.GetMatrixDataDirectly() != nullptr ? src.m_SizeX : 0;
    const int srcH = src.GetMatrixDataDirectly() != nullptr ? src.m_SizeY : 0;
    const int xFrom = std::clamp(-x0, 0, sizeX);                       // first column inside src
    const int xTo = std::clamp(srcW - x0, xFrom, sizeX);               // one past the last
    const int yFrom = std::clamp(-y0, 0, sizeY);
    const int yTo = std::clamp(srcH - y0, yFrom, sizeY);
    if (xFrom > 0 || xTo < sizeX || yFrom > 0 || yTo < sizeY)
        Clear();
    if (xFrom < xTo && yFrom < yTo && (y0 & 3) == 0) {
        for (int j = yFrom >> 2; 4 * j < yTo; ++j) {
            float* d = reinterpret_cast<float*>(out.m_Data[j]) + 4 * xFrom;
            const float* s = reinterpret_cast<const float*>(src.m_Data[j + (y0 >> 2)]) + 4 * (xFrom + x0);
            std::memcpy(d, s, sizeof(float) * 4 * static_cast<size_t>(xTo - xFrom));
            // Rows below the source's last row or the frame's last row are cleared again.
            for (int l = 0; l < 4; ++l)
                if (4 * j + l >= yTo)
                    for (int x = 0; x < xTo - xFrom; ++x)
                        d[4 * x + l] = 0.0f;
        }
    } else if (xFrom < xTo) {
        // Band by band, each target vector written whole from the source rows of its lanes.
        for (int j = yFrom >> 2; 4 * j < yTo; ++j) {
            const float* s[4];
            bool anyOutside = false;
            for (int l = 0; l < 4; ++l) {
                const int y = 4 * j + l, sy = y + y0;
                const bool inside = y >= yFrom && y < yTo;
                anyOutside |= !inside;
                s[l] = reinterpret_cast<const float*>(src.m_Data[inside ? sy >> 2 : 0]) + (inside ? (sy & 3) : 0);
            }
            float* d = reinterpret_cast<float*>(out.m_Data[j]);
            const int count = xTo - xFrom;
            const float *s0 = s[0] + 4 * (xFrom + x0), *s1 = s[1] + 4 * (xFrom + x0);
            const float *s2 = s[2] + 4 * (xFrom + x0), *s3 = s[3] + 4 * (xFrom + x0);
            float* dx = d + 4 * xFrom;
            for (int i = 0; i < count; ++i) {
                dx[4 * i] = s0[4 * i];
                dx[4 * i + 1] = s1[4 * i];
                dx[4 * i + 2] = s2[4 * i];
                dx[4 * i + 3] = s3[4 * i];
            }
            if (anyOutside) // lanes above the source or below its or the frame's last row
                for (int l = 0; l < 4; ++l)
                    if (4 * j + l < yFrom || 4 * j + l >= yTo)
                        for (int i = 0; i < count; ++i)
                            dx[4 * i + l] = 0.0f;
        }
    }
    clearPaddingRows(out);
}

// The compare masks of a band are ORed over its columns first, so a band without a hit
// costs one pass of packed compares; only the band that has one is looked at per column.
bool CSSEMatrix::FindFirstPoint(int& x, int& y, float threshold, bool above) const
{
    using namespace qzsse::detail;
    x = y = -1;
    if (m_Data == nullptr)
        return false;
    const __m128 t = _mm_set1_ps(threshold);
    const auto hit = [&](__m128 v) { return above ? _mm_cmpgt_ps(v, t) : _mm_cmplt_ps(v, t); };
    for (int j = 0; 4 * j < m_SizeY; ++j) {
        const __m128* band = m_Data[j];
        __m128 any = _mm_setzero_ps();
        for (int i = 0; i < m_SizeX; ++i)
            any = _mm_or_ps(any, hit(band[i]));
        const int rows = _mm_movemask_ps(_mm_and_ps(any, realRowsMask(j, m_SizeY)));
        if (rows == 0)
            continue;
        const int lane = std::countr_zero(static_cast<unsigned>(rows));
        for (int i = 0; i < m_SizeX; ++i)
            if ((_mm_movemask_ps(hit(band[i])) >> lane) & 1) {
                x = i;
                y = 4 * j + lane;
                return true;
            }
    }
    return false;
}
