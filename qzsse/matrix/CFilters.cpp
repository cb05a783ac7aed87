// Medians as compare-exchange networks of packed minima and maxima, four rows per vector.
// Each column of the box is sorted once and shared by the neighbouring outputs: the 3 x 3
// median is then med3(max of the lows, med3 of the middles, min of the highs); for 5 x 5,
// sorted column pairs are merged once and shared by the outputs two columns apart, and an
// odd-even merge of the two pairs and the fifth column, pruned to the thirteenth rank, gives
// the median (checked exhaustively on 0-1 inputs, which covers every input).

#include "qzsse/matrix/CFilters.h"

#include <algorithm>
#include <vector>

#include "qzsse/core/detail/ClampInto.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandRows.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"

using qzsse::detail::clampInto;
using qzsse::detail::holdsNaN;
using qzsse::detail::rowsFrom;

namespace {

inline void cex(__m128& a, __m128& b)
{
    const __m128 t = _mm_min_ps(a, b);
    b = _mm_max_ps(a, b);
    a = t;
}

inline __m128 anyNaN(__m128 a, __m128 b) { return _mm_cmpunord_ps(a, b); }

// The bands of src with rows outside the image replaced by the nearest edge row: band -1 is
// row 0 everywhere, the last band has its padding lanes set to row height - 1, and the band
// after it is that row everywhere.
class ClampedBands {
public:
    explicit ClampedBands(const CSSEMatrix& src)
        : m_src(src), m_last(src.GetSSESizeY() - 1), m_top(static_cast<size_t>(src.GetSSESizeX())),
          m_lastFixed(m_top.size()), m_bottom(m_top.size())
    {
        const int h = src.GetSizeY();
        const __m128 real = qzsse::detail::realRowsMask(m_last, h);
        for (int x = 0; x < src.GetSSESizeX(); ++x) {
            const size_t i = static_cast<size_t>(x);
            m_top[i] = _mm_set1_ps(src.GetPointUnsafe(x, 0));
            m_bottom[i] = _mm_set1_ps(src.GetPointUnsafe(x, h - 1));
            m_lastFixed[i] = qzsse::detail::select(real, src.GetMatrixDataDirectly()[m_last][x], m_bottom[i]);
        }
    }

    const __m128* band(int k) const
    {
        if (k < 0)
            return m_top.data();
        if (k == m_last)
            return m_lastFixed.data();
        if (k > m_last)
            return m_bottom.data();
        return m_src.GetMatrixDataDirectly()[k];
    }

private:
    const CSSEMatrix& m_src;
    int m_last;
    qzsse::detail::VectorBuffer m_top, m_lastFixed, m_bottom;
};

struct Column3 {
    __m128 lo, md, hi, nan;
};

template <bool NaN>
inline Column3 column3(const __m128* above, const __m128* own, const __m128* below, int x)
{
    Column3 c{rowsFrom<3>(above[x], own[x]), own[x], rowsFrom<1>(own[x], below[x]), _mm_setzero_ps()};
    if constexpr (NaN)
        c.nan = _mm_or_ps(anyNaN(c.lo, c.md), anyNaN(c.hi, c.hi));
    cex(c.lo, c.md);
    cex(c.md, c.hi);
    cex(c.lo, c.md);
    return c;
}

inline __m128 median3(__m128 a, __m128 b, __m128 c)
{
    return _mm_max_ps(_mm_min_ps(a, b), _mm_min_ps(_mm_max_ps(a, b), c));
}

// Outputs go in pairs: x and x + 1 share the extremes and the middle pair of columns x and
// x + 1, which saves four of the eighteen minima and maxima per pixel.
template <bool NaN>
void median3x3Band(const __m128* above, const __m128* own, const __m128* below, __m128* out, int w)
{
    auto col = [&](int x) { return column3<NaN>(above, own, below, x); };
    auto pairOfOutputs = [&](int x, const Column3& c0, const Column3& c1, const Column3& c2, const Column3& c3) {
        const __m128 lo = _mm_max_ps(c1.lo, c2.lo), hi = _mm_min_ps(c1.hi, c2.hi);
        const __m128 mdMin = _mm_min_ps(c1.md, c2.md), mdMax = _mm_max_ps(c1.md, c2.md);
        __m128 m0 = median3(_mm_max_ps(c0.lo, lo), _mm_max_ps(mdMin, _mm_min_ps(mdMax, c0.md)), _mm_min_ps(c0.hi, hi));
        __m128 m1 = median3(_mm_max_ps(lo, c3.lo), _mm_max_ps(mdMin, _mm_min_ps(mdMax, c3.md)), _mm_min_ps(hi, c3.hi));
        if constexpr (NaN) {
            const __m128 nan = _mm_or_ps(c1.nan, c2.nan);
            m0 = _mm_or_ps(m0, _mm_or_ps(nan, c0.nan));
            m1 = _mm_or_ps(m1, _mm_or_ps(nan, c3.nan));
        }
        out[x] = m0;
        out[x + 1] = m1;
    };
    Column3 c0 = col(0), c1 = c0; // column -1 repeats column 0
    int x = 0;
    for (; x + 2 < w; x += 2) {
        const Column3 c2 = col(x + 1), c3 = col(x + 2);
        pairOfOutputs(x, c0, c1, c2, c3);
        c0 = c2;
        c1 = c3;
    }
    // Past the last column the box repeats it: one or two outputs are left.
    if (x + 1 < w) {
        const Column3 c2 = col(x + 1);
        pairOfOutputs(x, c0, c1, c2, c2);
    } else if (x < w) {
        const __m128 lo = _mm_max_ps(c0.lo, c1.lo), hi = _mm_min_ps(c0.hi, c1.hi);
        __m128 m = median3(lo, median3(c0.md, c1.md, c1.md), hi);
        if constexpr (NaN)
            m = _mm_or_ps(m, _mm_or_ps(c0.nan, c1.nan));
        out[x] = m;
    }
}

inline void sortColumn5(__m128* v)
{
    __m128 v0 = v[0];
    __m128 v1 = v[1];
    __m128 v2 = v[2];
    __m128 v3 = v[3];
    __m128 v4 = v[4];
    cex(v0, v1);
    cex(v3, v4);
    cex(v2, v4);
    cex(v2, v3);
    cex(v0, v3);
    cex(v0, v2);
    cex(v1, v4);
    cex(v1, v3);
    cex(v1, v2);
    v[0] = v0;
    v[1] = v1;
    v[2] = v2;
    v[3] = v3;
    v[4] = v4;
}

inline void mergeColumns5(const __m128* a, const __m128* b, __m128* out)
{
    __m128 v0 = a[0];
    __m128 v1 = a[1];
    __m128 v2 = a[2];
    __m128 v3 = a[3];
    __m128 v4 = a[4];
    __m128 v5 = b[0];
    __m128 v6 = b[1];
    __m128 v7 = b[2];
    __m128 v8 = b[3];
    __m128 v9 = b[4];
    cex(v0, v5);
    cex(v4, v9);
    cex(v4, v5);
    cex(v2, v7);
    cex(v2, v4);
    cex(v7, v5);
    cex(v1, v6);
    cex(v3, v8);
    cex(v3, v6);
    cex(v1, v2);
    cex(v3, v4);
    cex(v6, v7);
    cex(v8, v5);
    out[0] = v0;
    out[1] = v1;
    out[2] = v2;
    out[3] = v3;
    out[4] = v4;
    out[5] = v6;
    out[6] = v7;
    out[7] = v8;
    out[8] = v5;
    out[9] = v9;
}

inline __m128 median25(const __m128* p, const __m128* q, const __m128* c)
{
    __m128 v0 = p[0];
    __m128 v1 = p[1];
    __m128 v2 = p[2];
    __m128 v3 = p[3];
    __m128 v4 = p[4];
    __m128 v5 = p[5];
    __m128 v6 = p[6];
    __m128 v7 = p[7];
    __m128 v8 = p[8];
    __m128 v9 = p[9];
    __m128 v10 = q[0];
    __m128 v11 = q[1];
    __m128 v12 = q[2];
    __m128 v13 = q[3];
    __m128 v14 = q[4];
    __m128 v15 = q[5];
    __m128 v16 = q[6];
    __m128 v17 = q[7];
    __m128 v18 = q[8];
    __m128 v19 = q[9];
    __m128 v20 = c[0];
    __m128 v21 = c[1];
    __m128 v22 = c[2];
    __m128 v23 = c[3];
    __m128 v24 = c[4];
    cex(v10, v20);
    cex(v18, v20);
    cex(v14, v24);
    cex(v14, v18);
    cex(v24, v20);
    cex(v12, v22);
    cex(v16, v22);
    cex(v12, v14);
    cex(v16, v18);
    cex(v22, v24);
    cex(v11, v21);
    cex(v19, v21);
    cex(v15, v19);
    cex(v13, v23);
    cex(v17, v23);
    cex(v13, v15);
    cex(v17, v19);
    cex(v23, v21);
    cex(v11, v12);
    cex(v13, v14);
    cex(v15, v16);
    cex(v17, v18);
    cex(v19, v22);
    cex(v23, v24);
    v21 = _mm_min_ps(v21, v20);
    v10 = _mm_max_ps(v0, v10);
    v8 = _mm_min_ps(v8, v18);
    v10 = _mm_max_ps(v8, v10);
    v14 = _mm_max_ps(v4, v14);
    v24 = _mm_min_ps(v24, v14);
    v24 = _mm_min_ps(v24, v10);
    v12 = _mm_max_ps(v2, v12);
    v22 = _mm_min_ps(v22, v12);
    v6 = _mm_min_ps(v6, v16);
    v22 = _mm_max_ps(v6, v22);
    v24 = _mm_max_ps(v22, v24);
    v11 = _mm_max_ps(v1, v11);
    v9 = _mm_min_ps(v9, v19);
    v11 = _mm_max_ps(v9, v11);
    v15 = _mm_max_ps(v5, v15);
    v21 = _mm_min_ps(v21, v15);
    v21 = _mm_min_ps(v21, v11);
    v13 = _mm_max_ps(v3, v13);
    v23 = _mm_min_ps(v23, v13);
    v7 = _mm_min_ps(v7, v17);
    v23 = _mm_max_ps(v7, v23);
    v23 = _mm_min_ps(v23, v21);
    v24 = _mm_max_ps(v23, v24);
    return v24;
}

struct Column5 {
    __m128 v[5];
    __m128 nan;
};

struct Pair5 {
    __m128 v[10];
    __m128 nan;
};

template <bool NaN>
inline void column5(const __m128* above, const __m128* own, const __m128* below, int x, Column5& c)
{
    c.v[0] = rowsFrom<2>(above[x], own[x]);
    c.v[1] = rowsFrom<3>(above[x], own[x]);
    c.v[2] = own[x];
    c.v[3] = rowsFrom<1>(own[x], below[x]);
    c.v[4] = rowsFrom<2>(own[x], below[x]);
    if constexpr (NaN)
        c.nan = _mm_or_ps(_mm_or_ps(anyNaN(c.v[0], c.v[1]), anyNaN(c.v[2], c.v[3])), anyNaN(c.v[4], c.v[4]));
    sortColumn5(c.v);
}

template <bool NaN>
inline void pair5(const Column5& a, const Column5& b, Pair5& p)
{
    mergeColumns5(a.v, b.v, p.v);
    if constexpr (NaN)
        p.nan = _mm_or_ps(a.nan, b.nan);
}

template <bool NaN>
void median5x5Band(const __m128* above, const __m128* own, const __m128* below, __m128* out, int w)
{
    // Rings indexed by column & 3: columns e .. e + 2 and pairs e - 2 .. e are live.
    Column5 cols[4];
    Pair5 pairs[4];
    auto col = [&](int e) -> Column5& { return cols[e & 3]; };
    auto pair = [&](int e) -> Pair5& { return pairs[e & 3]; };
    for (int e = -2; e <= 1; ++e)
        column5<NaN>(above, own, below, clampInto(e, 0, w - 1), col(e));
    pair5<NaN>(col(-2), col(-1), pair(-2));
    pair5<NaN>(col(-1), col(0), pair(-1));
    for (int x = 0; x < w; ++x) {
        column5<NaN>(above, own, below, std::min(x + 2, w - 1), col(x + 2));
        pair5<NaN>(col(x), col(x + 1), pair(x));
        const Pair5& left = pair(x - 2);
        const Pair5& right = pair(x);
        const Column5& last = col(x + 2);
        __m128 m = median25(left.v, right.v, last.v);
        if constexpr (NaN)
            m = _mm_or_ps(m, _mm_or_ps(_mm_or_ps(left.nan, right.nan), last.nan));
        out[x] = m;
    }
}

// Bands whose boxes reach no NaN take the filter without the NaN bookkeeping.
template <class BandFilter, class BandFilterNaN>
void filterBands(const CSSEMatrix& src, CSSEMatrix& dst, BandFilter filterBand, BandFilterNaN filterBandNaN)
{
    if (src.GetMatrixDataDirectly() == nullptr || src.GetSizeX() < 1 || src.GetSizeY() < 1)
        return;
    if (&src == &dst) {
        CSSEMatrix copy(src);
        filterBands(copy, dst, filterBand, filterBandNaN);
        return;
    }
    if (dst.GetMatrixDataDirectly() == nullptr || dst.GetSizeX() != src.GetSizeX() ||
        dst.GetSizeY() != src.GetSizeY())
        dst.CreateNoClear(src.GetSizeX(), src.GetSizeY());
    const ClampedBands bands(src);
    const int w = src.GetSSESizeX();
    const int last = src.GetSSESizeY() - 1;
    // nan[k + 1]: band k (the clamped ones included) holds a NaN
    std::vector<char> nan(static_cast<size_t>(last) + 3, 0);
    nan[0] = holdsNaN(bands.band(-1), w);
    nan[1] = holdsNaN(bands.band(0), w);
    for (int j = 0; j <= last; ++j) {
        const size_t k = static_cast<size_t>(j);
        nan[k + 2] = holdsNaN(bands.band(j + 1), w);
        const bool reached = nan[k] || nan[k + 1] || nan[k + 2];
        (reached ? filterBandNaN : filterBand)(bands.band(j - 1), bands.band(j), bands.band(j + 1),
                                               dst.GetMatrixDataDirectly()[j], w);
    }
    const __m128 real = qzsse::detail::realRowsMask(last, src.GetSizeY());
    __m128* out = dst.GetMatrixDataDirectly()[last];
    for (int x = 0; x < w; ++x)
        out[x] = _mm_and_ps(out[x], real);
}

} // namespace

void CFilters::Median3x3(const CSSEMatrix& src, CSSEMatrix& dst)
{
    filterBands(src, dst, median3x3Band<false>, median3x3Band<true>);
}

void CFilters::Median5x5(const CSSEMatrix& src, CSSEMatrix& dst)
{
    filterBands(src, dst, median5x5Band<false>, median5x5Band<true>);
}
