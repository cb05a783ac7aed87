#include <algorithm>
#include <cstdint>
#include <vector>
#include <xmmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"

namespace qzsse::detail {
namespace {

// The source pixels and weights each target index of one axis takes, in summation order.
struct AxisTaps {
    std::vector<int> first;    // taps of target d: first[d] .. first[d + 1] - 1
    std::vector<int> index;
    std::vector<float> weight;

    void add(int i, float w)
    {
        index.push_back(i);
        weight.push_back(w);
    }
    void close() { first.push_back(static_cast<int>(index.size())); }
    int count(int d) const { return first[d + 1] - first[d]; }
};

// Positions are exact integer ratios (64-bit), so the taps do not depend on rounding of the
// scale factor: the source position of target d is ((2d + 1) * n - size) / (2 * size).
AxisTaps axisTaps(int n, int size, CSSEMatrix::ScaleMode mode)
{
    AxisTaps t;
    t.first.push_back(0);
    const int64_t srcN = n, dstN = size;
    if (mode == CSSEMatrix::ScaleMode::Area && size < n) {
        // Target cell [d * n, (d + 1) * n) against source pixel [i * size, (i + 1) * size),
        // both in units of 1 / size source pixels; weight = overlap / n.
        for (int64_t d = 0; d < dstN; ++d) {
            const int64_t lo = d * srcN, hi = lo + srcN;
            for (int64_t i = lo / dstN; i * dstN < hi; ++i) {
                const int64_t overlap = std::min(hi, (i + 1) * dstN) - std::max(lo, i * dstN);
                if (overlap > 0)
                    t.add(static_cast<int>(i), static_cast<float>(overlap) / static_cast<float>(srcN));
            }
            t.close();
        }
        return t;
    }
    for (int64_t d = 0; d < dstN; ++d) {
        if (mode == CSSEMatrix::ScaleMode::Nearest) {
            t.add(static_cast<int>(std::min((2 * d + 1) * srcN / (2 * dstN), srcN - 1)), 1.0f);
        } else {
            const int64_t num = (2 * d + 1) * srcN - dstN, den = 2 * dstN;
            const int64_t i = num < 0 ? 0 : num / den;
            if (num < 0 || i >= srcN - 1) {
                t.add(static_cast<int>(std::min(i, srcN - 1)), 1.0f); // beyond the outer centres
            } else {
                const float frac = static_cast<float>(num % den) / static_cast<float>(den);
                t.add(static_cast<int>(i), 1.0f - frac);
                t.add(static_cast<int>(i + 1), frac);
            }
        }
        t.close();
    }
    return t;
}

} // namespace
} // namespace qzsse::detail

// Two separable passes. Along rows every band is handled four rows at a time, one packed
// multiply per tap; along columns the four lanes of a target vector come from different
// source rows, so that pass runs lane by lane.
void CSSEMatrix::ScaleMatrix(const CSSEMatrix& src, int sizeX, int sizeY, ScaleMode mode)
{
    using qzsse::detail::AxisTaps;
    if (&src == this) {
        const CSSEMatrix copy(src);
        ScaleMatrix(copy, sizeX, sizeY, mode);
        return;
    }
    sizeX = std::max(sizeX, 0);
    sizeY = std::max(sizeY, 0);
    if (m_Data == nullptr || m_SizeX != sizeX || m_SizeY != sizeY)
        CreateNoClear(sizeX, sizeY);
    const int srcW = src.m_Data != nullptr ? src.m_SizeX : 0;
    const int srcH = src.m_Data != nullptr ? src.m_SizeY : 0;
    if (srcW == 0 || srcH == 0 || sizeX == 0 || sizeY == 0) {
        Clear();
        return;
    }
    for (int y = sizeY; y < 4 * m_SSESizeY; ++y) // padding rows
        for (int x = 0; x < sizeX; ++x)
            reinterpret_cast<float*>(m_Data[y >> 2])[4 * x + (y & 3)] = 0.0f;

    const AxisTaps across = qzsse::detail::axisTaps(srcW, sizeX, mode);
    const AxisTaps down = qzsse::detail::axisTaps(srcH, sizeY, mode);

    // Along rows: sizeX x srcH.
    CSSEMatrix rows;
    rows.CreateNoClear(sizeX, srcH);
    for (int j = 0; 4 * j < srcH; ++j) {
        const __m128* s = src.m_Data[j];
        __m128* d = rows.m_Data[j];
        for (int x = 0; x < sizeX; ++x) {
            const int* i = across.index.data() + across.first[x];
            const float* w = across.weight.data() + across.first[x];
            const int taps = across.count(x);
            if (taps == 1 && w[0] == 1.0f) {
                d[x] = s[i[0]];
                continue;
            }
            __m128 acc = _mm_mul_ps(s[i[0]], _mm_set1_ps(w[0]));
            for (int k = 1; k < taps; ++k)
                acc = _mm_add_ps(acc, _mm_mul_ps(s[i[k]], _mm_set1_ps(w[k])));
            d[x] = acc;
        }
    }

    // Along columns, lane by lane.
    for (int y = 0; y < sizeY; ++y) {
        float* d = reinterpret_cast<float*>(m_Data[y >> 2]) + (y & 3);
        const int* i = down.index.data() + down.first[y];
        const float* w = down.weight.data() + down.first[y];
        const int taps = down.count(y);
        const auto row = [&](int k) {
            return reinterpret_cast<const float*>(rows.m_Data[i[k] >> 2]) + (i[k] & 3);
        };
        const float* r0 = row(0);
        const float w0 = w[0];
        if (taps == 1 && w0 == 1.0f) {
            for (int x = 0; x < sizeX; ++x)
                d[4 * x] = r0[4 * x];
        } else if (taps == 2) {
            const float* r1 = row(1);
            const float w1 = w[1];
            for (int x = 0; x < sizeX; ++x)
                d[4 * x] = r0[4 * x] * w0 + r1[4 * x] * w1;
        } else {
            for (int x = 0; x < sizeX; ++x)
                d[4 * x] = r0[4 * x] * w0;
            for (int k = 1; k < taps; ++k) {
                const float* r = row(k);
                const float wk = w[k];
                for (int x = 0; x < sizeX; ++x)
                    d[4 * x] = d[4 * x] + r[4 * x] * wk;
            }
        }
    }
}
