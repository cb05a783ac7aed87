#include <algorithm>
#include <cstdint>
#include <vector>
#include <xmmintrin.h>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/RowMask.h"

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

// The weights of a tap table as broadcast vectors, so the packed pass loads them whole.
class WeightVectors {
public:
    explicit WeightVectors(const AxisTaps& taps)
        : m_Data(static_cast<__m128*>(SafeAlignedAlloc(sizeof(__m128) * (taps.weight.size() + 1), 16)))
    {
        for (size_t k = 0; k < taps.weight.size(); ++k)
            m_Data[k] = _mm_set1_ps(taps.weight[k]);
    }
    ~WeightVectors() { SafeAlignedFree(m_Data); }
    WeightVectors(const WeightVectors&) = delete;
    WeightVectors& operator=(const WeightVectors&) = delete;
    const __m128* data() const { return m_Data; }

private:
    __m128* m_Data;
};

// Resamples one source band along its rows: four rows at a time, one packed multiply per tap.
void resampleBand(const __m128* s, __m128* d, const AxisTaps& across, const __m128* weights, int sizeX)
{
    const int* first = across.first.data();
    const int* index = across.index.data();
    const float* weight = across.weight.data();
    for (int x = 0; x < sizeX; ++x) {
        const int k0 = first[x], taps = first[x + 1] - k0;
        // The source is read once, in order: ask for it well ahead of use.
        _mm_prefetch(reinterpret_cast<const char*>(s + index[k0] + 64), _MM_HINT_T0);
        if (taps == 2) {
            d[x] = _mm_add_ps(_mm_mul_ps(s[index[k0]], weights[k0]), _mm_mul_ps(s[index[k0 + 1]], weights[k0 + 1]));
        } else if (taps == 1 && weight[k0] == 1.0f) {
            d[x] = s[index[k0]];
        } else {
            __m128 acc = _mm_mul_ps(s[index[k0]], weights[k0]);
            for (int k = k0 + 1; k < k0 + taps; ++k)
                acc = _mm_add_ps(acc, _mm_mul_ps(s[index[k]], weights[k]));
            d[x] = acc;
        }
    }
}

// Source bands resampled along their rows, computed on first use and kept in a ring of
// slots: target rows ask for source rows in increasing order, and the ring holds every
// band one target row needs, so the intermediate image never exists whole.
class RowBandCache {
public:
    RowBandCache(const CSSEMatrix& src, const AxisTaps& across, int sizeX, int slots)
        : m_Src(src), m_Across(across), m_Weights(across), m_SizeX(sizeX), m_Slots(slots),
          m_Block(static_cast<__m128*>(SafeAlignedAlloc(sizeof(__m128) * static_cast<size_t>(sizeX) * slots, 16))),
          m_Band(static_cast<size_t>(slots), -1)
    {
    }
    ~RowBandCache() { SafeAlignedFree(m_Block); }
    RowBandCache(const RowBandCache&) = delete;
    RowBandCache& operator=(const RowBandCache&) = delete;

    // Lane row & 3 of the resampled band holding source row `row`, as a float pointer of stride 4.
    const float* row(int row)
    {
        const int band = row >> 2, slot = band % m_Slots;
        __m128* d = m_Block + static_cast<size_t>(slot) * m_SizeX;
        if (m_Band[slot] != band) {
            resampleBand(m_Src.GetMatrixDataDirectly()[band], d, m_Across, m_Weights.data(), m_SizeX);
            m_Band[slot] = band;
        }
        return reinterpret_cast<const float*>(d) + (row & 3);
    }

private:
    const CSSEMatrix& m_Src;
    const AxisTaps& m_Across;
    WeightVectors m_Weights;
    int m_SizeX;
    int m_Slots;
    __m128* m_Block;
    std::vector<int> m_Band;
};

// Exact halving in both directions: target band J comes from source bands 2J and 2J + 1
// and column x from columns 2x and 2x + 1, so both passes stay packed (the rows of a band
// pair are split into even and odd rows by a shuffle). The same taps, weights and order as
// the general passes, so the same values.
void halve(const CSSEMatrix& src, CSSEMatrix& dst, CSSEMatrix::ScaleMode mode)
{
    const int w = dst.GetSizeX(), h = dst.GetSizeY(), bands = dst.GetSSESizeY(), srcBands = src.GetSSESizeY();
    __m128** s = src.GetMatrixDataDirectly();
    __m128** d = dst.GetMatrixDataDirectly();
    const __m128 half = _mm_set1_ps(0.5f);
    // A missing second band holds only rows below the image: zeros, masked off below.
    struct Lanes {
        __m128 v;
    };
    const std::vector<Lanes> zeroRow(2 * static_cast<size_t>(w), Lanes{_mm_setzero_ps()});
    for (int j = 0; j < bands; ++j) { // the padding band too: its rows become 0
        const __m128* a = s[2 * j];
        const __m128* b = 2 * j + 1 < srcBands ? s[2 * j + 1] : &zeroRow.data()->v;
        const __m128 real = realRowsMask(j, h);
        __m128* out = d[j];
        for (int x = 0; x < w; ++x) {
            __m128 v;
            if (mode == CSSEMatrix::ScaleMode::Nearest) {
                v = _mm_shuffle_ps(a[2 * x + 1], b[2 * x + 1], _MM_SHUFFLE(3, 1, 3, 1));
            } else {
                const __m128 ha = _mm_add_ps(_mm_mul_ps(a[2 * x], half), _mm_mul_ps(a[2 * x + 1], half));
                const __m128 hb = _mm_add_ps(_mm_mul_ps(b[2 * x], half), _mm_mul_ps(b[2 * x + 1], half));
                const __m128 even = _mm_shuffle_ps(ha, hb, _MM_SHUFFLE(2, 0, 2, 0));
                const __m128 odd = _mm_shuffle_ps(ha, hb, _MM_SHUFFLE(3, 1, 3, 1));
                v = _mm_add_ps(_mm_mul_ps(even, half), _mm_mul_ps(odd, half));
            }
            out[x] = _mm_and_ps(v, real);
        }
    }
}

} // namespace
} // namespace qzsse::detail

// Two separable passes: along rows band by band (packed), then along columns row by row;
// the four lanes of a target vector come from different source rows, so that pass runs
// lane by lane.
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
    if (srcW == 2 * sizeX && srcH == 2 * sizeY) {
        qzsse::detail::halve(src, *this, mode);
        return;
    }
    for (int y = sizeY; y < 4 * m_SSESizeY; ++y) // padding rows
        for (int x = 0; x < sizeX; ++x)
            reinterpret_cast<float*>(m_Data[y >> 2])[4 * x + (y & 3)] = 0.0f;

    const AxisTaps across = qzsse::detail::axisTaps(srcW, sizeX, mode);
    const AxisTaps down = qzsse::detail::axisTaps(srcH, sizeY, mode);
    // Enough slots for every source band the four rows of one target band use.
    int slots = 1;
    for (int y = 0; y < sizeY; y += 4) {
        const int last = std::min(y + 3, sizeY - 1);
        slots = std::max(slots, (down.index[down.first[last + 1] - 1] >> 2) - (down.index[down.first[y]] >> 2) + 1);
    }
    qzsse::detail::RowBandCache rows(src, across, sizeX, slots);

    const float* r[64];
    for (int y = 0; y < sizeY; ++y) {
        // A whole band of two-tap rows: one packed multiply per tap, the four lanes gathered
        // from their rows (the same products and sum as lane by lane).
        if ((y & 3) == 0 && y + 3 < sizeY && down.count(y) == 2 && down.count(y + 1) == 2 && down.count(y + 2) == 2
            && down.count(y + 3) == 2) {
            const int* i = down.index.data() + down.first[y];
            const float* w = down.weight.data() + down.first[y];
            const float* a[4];
            const float* b[4];
            for (int l = 0; l < 4; ++l) {
                a[l] = rows.row(i[2 * l]);
                b[l] = rows.row(i[2 * l + 1]);
            }
            const __m128 wa = _mm_setr_ps(w[0], w[2], w[4], w[6]), wb = _mm_setr_ps(w[1], w[3], w[5], w[7]);
            __m128* d = m_Data[y >> 2];
            for (int x = 0; x < sizeX; ++x) {
                const __m128 va = _mm_setr_ps(a[0][4 * x], a[1][4 * x], a[2][4 * x], a[3][4 * x]);
                const __m128 vb = _mm_setr_ps(b[0][4 * x], b[1][4 * x], b[2][4 * x], b[3][4 * x]);
                d[x] = _mm_add_ps(_mm_mul_ps(va, wa), _mm_mul_ps(vb, wb));
            }
            y += 3;
            continue;
        }
        float* d = reinterpret_cast<float*>(m_Data[y >> 2]) + (y & 3);
        const int* i = down.index.data() + down.first[y];
        const float* w = down.weight.data() + down.first[y];
        const int taps = down.count(y);
        if (taps == 1 && w[0] == 1.0f) {
            const float* r0 = rows.row(i[0]);
            for (int x = 0; x < sizeX; ++x)
                d[4 * x] = r0[4 * x];
        } else if (taps == 2) {
            const float* r0 = rows.row(i[0]);
            const float* r1 = rows.row(i[1]);
            const float w0 = w[0], w1 = w[1];
            for (int x = 0; x < sizeX; ++x)
                d[4 * x] = r0[4 * x] * w0 + r1[4 * x] * w1;
        } else {
            // Long columns of taps (strong shrinking) in chunks of 64 rows.
            for (int k0 = 0; k0 < taps; k0 += 64) {
                const int n = std::min(64, taps - k0);
                for (int k = 0; k < n; ++k)
                    r[k] = rows.row(i[k0 + k]);
                for (int x = 0; x < sizeX; ++x) {
                    float acc = k0 == 0 ? r[0][4 * x] * w[0] : d[4 * x] + r[0][4 * x] * w[k0];
                    for (int k = 1; k < n; ++k)
                        acc = acc + r[k][4 * x] * w[k0 + k];
                    d[4 * x] = acc;
                }
            }
        }
    }
}
