#include <algorithm>
#include <cstring>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"
#include "qzsse/matrix/detail/ByteRows.h"

using qzsse::detail::realByteRowsMask;
using qzsse::detail::setBytes;

void CSSEcharMatrix::Fill(signed char value)
{
    if (m_Data == nullptr)
        return;
    std::memset(m_Block, value, static_cast<size_t>(m_SSESizeY) * static_cast<size_t>(m_SSESizeX) * sizeof(__m128i));
}

// One byte vector holds the same column of four float bands: four packed compares, then
// two saturating packs keep the row order (-1 stays -1, 0 stays 0).
void CSSEcharMatrix::CreateFromMatrix(const CSSEMatrix& src, float threshold, bool above)
{
    const int w = src.GetMatrixDataDirectly() != nullptr ? src.GetSizeX() : 0;
    const int h = src.GetMatrixDataDirectly() != nullptr ? src.GetSizeY() : 0;
    if (m_Data == nullptr || m_SizeX != w || m_SizeY != h)
        Create(w, h);
    // Float bands past the last stored one read as zeros (their rows are masked off anyway).
    struct Lanes {
        __m128 v;
    };
    const std::vector<Lanes> zeroRow(static_cast<size_t>(w), Lanes{_mm_setzero_ps()});
    const __m128* zeros = &zeroRow.data()->v;
    const __m128 t = _mm_set1_ps(threshold);
    const __m128i one = _mm_set1_epi8(1);
    const int bands = m_SSESizeY;
    for (int j = 0; j < bands; ++j) {
        const __m128* f[4];
        for (int q = 0; q < 4; ++q)
            f[q] = 4 * j + q < src.GetSSESizeY() && w > 0 ? src.GetMatrixDataDirectly()[4 * j + q] : zeros;
        const __m128i keep = _mm_and_si128(realByteRowsMask(j, h), one);
        __m128i* d = m_Data[j];
        for (int x = 0; x < w; ++x) {
            __m128i m[4];
            for (int q = 0; q < 4; ++q)
                m[q] = _mm_castps_si128(above ? _mm_cmpgt_ps(f[q][x], t) : _mm_cmplt_ps(f[q][x], t));
            const __m128i packed = _mm_packs_epi16(_mm_packs_epi32(m[0], m[1]), _mm_packs_epi32(m[2], m[3]));
            d[x] = _mm_and_si128(packed, keep);
        }
    }
}

// The reverse: each set byte widens to a 32-bit all-ones lane by unpacking with itself.
void CSSEcharMatrix::CopyToMatrix(CSSEMatrix& dst, float value) const
{
    const int w = m_Data != nullptr ? m_SizeX : 0;
    const int h = m_Data != nullptr ? m_SizeY : 0;
    if (dst.GetMatrixDataDirectly() == nullptr || dst.GetSizeX() != w || dst.GetSizeY() != h)
        dst.CreateNoClear(w, h);
    if (w == 0)
        return;
    const __m128 v = _mm_set1_ps(value);
    __m128** out = dst.GetMatrixDataDirectly();
    for (int j = 0; 4 * j < dst.GetSSESizeY(); ++j) {
        const __m128i real = realByteRowsMask(j, h);
        __m128* f[4];
        for (int q = 0; q < 4; ++q)
            f[q] = 4 * j + q < dst.GetSSESizeY() ? out[4 * j + q] : nullptr;
        const __m128i* s = m_Data[j];
        for (int x = 0; x < w; ++x) {
            const __m128i set = _mm_and_si128(setBytes(s[x]), real);
            const __m128i lo = _mm_unpacklo_epi8(set, set), hi = _mm_unpackhi_epi8(set, set);
            const __m128i q32[4] = {_mm_unpacklo_epi16(lo, lo), _mm_unpackhi_epi16(lo, lo),
                                    _mm_unpacklo_epi16(hi, hi), _mm_unpackhi_epi16(hi, hi)};
            for (int q = 0; q < 4; ++q)
                if (f[q] != nullptr)
                    f[q][x] = _mm_and_ps(_mm_castsi128_ps(q32[q]), v);
        }
    }
}

namespace {

// r = op(this set, other set) over this image, as 1 / 0; other is empty beyond its image.
template <class Op>
void combine(CSSEcharMatrix& m, const CSSEcharMatrix& other, Op op)
{
    __m128i** data = m.GetMatrixDataDirectly();
    if (data == nullptr)
        return;
    __m128i** odata = other.GetMatrixDataDirectly();
    const int ow = odata != nullptr ? std::min(other.GetSizeX(), m.GetSizeX()) : 0;
    const int oh = odata != nullptr ? other.GetSizeY() : 0;
    // Sizes in locals: a store through a vector pointer may alias anything.
    const int w = m.GetSizeX(), h = m.GetSizeY(), bands = m.GetSSESizeY();
    const __m128i one = _mm_set1_epi8(1);
    for (int j = 0; j < bands; ++j) {
        const __m128i keep = _mm_and_si128(realByteRowsMask(j, h), one);
        const __m128i oreal = realByteRowsMask(j, oh);
        const int cols = 16 * j < oh ? ow : 0;
        __m128i* d = data[j];
        const __m128i* o = cols > 0 ? odata[j] : nullptr;
        const auto both = [&](int i) {
            d[i] = _mm_and_si128(op(setBytes(d[i]), _mm_and_si128(setBytes(o[i]), oreal)), keep);
        };
        int x = 0;
        for (; x + 2 <= cols; x += 2) {
            both(x);
            both(x + 1);
        }
        for (; x < cols; ++x)
            both(x);
        for (; x < w; ++x)
            d[x] = _mm_and_si128(op(setBytes(d[x]), _mm_setzero_si128()), keep);
    }
}

} // namespace

void CSSEcharMatrix::LogicalAnd(const CSSEcharMatrix& other)
{
    combine(*this, other, [](__m128i a, __m128i b) { return _mm_and_si128(a, b); });
}

void CSSEcharMatrix::LogicalOr(const CSSEcharMatrix& other)
{
    combine(*this, other, [](__m128i a, __m128i b) { return _mm_or_si128(a, b); });
}

void CSSEcharMatrix::LogicalNot()
{
    if (m_Data == nullptr)
        return;
    const int w = m_SizeX, h = m_SizeY, bands = m_SSESizeY;
    const __m128i one = _mm_set1_epi8(1);
    for (int j = 0; j < bands; ++j) {
        const __m128i keep = _mm_and_si128(realByteRowsMask(j, h), one);
        __m128i* d = m_Data[j];
        const auto invert = [keep](__m128i v) { return _mm_and_si128(_mm_cmpeq_epi8(v, _mm_setzero_si128()), keep); };
        int x = 0;
        for (; x + 4 <= w; x += 4) { // four at a time: the loop overhead is most of the work
            d[x] = invert(d[x]);
            d[x + 1] = invert(d[x + 1]);
            d[x + 2] = invert(d[x + 2]);
            d[x + 3] = invert(d[x + 3]);
        }
        for (; x < w; ++x)
            d[x] = invert(d[x]);
    }
}

// Counts the empty bytes (each compare is -1, subtracted) and takes them from the real
// pixels; only the last bands need the real-row mask. Byte counters take at most 255
// columns before they are summed into 64-bit lanes.
int CSSEcharMatrix::CountNonZero() const
{
    if (m_Data == nullptr)
        return 0;
    const int w = m_SizeX, h = m_SizeY;
    const __m128i zero = _mm_setzero_si128();
    __m128i total = _mm_setzero_si128();
    for (int j = 0; 16 * j < h; ++j) {
        const bool full = 16 * (j + 1) <= h;
        const __m128i real = realByteRowsMask(j, h);
        const __m128i* s = m_Data[j];
        for (int x0 = 0; x0 < w; x0 += 255) {
            __m128i acc = _mm_setzero_si128();
            const int x1 = std::min(x0 + 255, w);
            if (full) {
                __m128i acc2 = _mm_setzero_si128(); // two chains, four vectors a step
                int x = x0;
                for (; x + 4 <= x1; x += 4) {
                    acc = _mm_sub_epi8(acc, _mm_cmpeq_epi8(s[x], zero));
                    acc2 = _mm_sub_epi8(acc2, _mm_cmpeq_epi8(s[x + 1], zero));
                    acc = _mm_sub_epi8(acc, _mm_cmpeq_epi8(s[x + 2], zero));
                    acc2 = _mm_sub_epi8(acc2, _mm_cmpeq_epi8(s[x + 3], zero));
                }
                for (; x < x1; ++x)
                    acc = _mm_sub_epi8(acc, _mm_cmpeq_epi8(s[x], zero));
                total = _mm_add_epi64(total, _mm_sad_epu8(acc2, zero));
            } else {
                for (int x = x0; x < x1; ++x)
                    acc = _mm_sub_epi8(acc, _mm_and_si128(_mm_cmpeq_epi8(s[x], zero), real));
            }
            total = _mm_add_epi64(total, _mm_sad_epu8(acc, zero));
        }
    }
    const long long empty = _mm_cvtsi128_si64(total) + _mm_cvtsi128_si64(_mm_srli_si128(total, 8));
    return static_cast<int>(static_cast<long long>(w) * h - empty);
}
