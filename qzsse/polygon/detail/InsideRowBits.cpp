#include "qzsse/polygon/detail/InsideRowBits.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include <emmintrin.h>

#include "qzsse/polygon/detail/FirstHolding.h"

namespace qzsse::detail {
namespace {

constexpr long long c_llLargestExactPixel = 1LL << 24;

// All ones in the first min(count, 4) lanes.
inline __m128 inRange(size_t count)
{
    const int c = count < 4 ? static_cast<int>(count) : 4;
    return _mm_castsi128_ps(_mm_cmpgt_epi32(_mm_set1_epi32(c), _mm_setr_epi32(0, 1, 2, 3)));
}

} // namespace

InsideRowBits::InsideRowBits(const OutlineXY& outline, int x0, int x1, int base)
    : m_outline(outline), m_base(base), m_lastRow(std::numeric_limits<float>::infinity())
{
    const int n = outline.n;
    if (n < 3 || x0 < base)
        return;
    if (!scannableOutline(outline))
        return;
    if (x0 < -c_llLargestExactPixel || x1 > c_llLargestExactPixel)
        return;
    m_exact = true;

    // float(x) is exact here, so the box test's x >= minX is x >= ceil(minX).
    const long long c0 = std::max<long long>(x0, static_cast<long long>(std::ceil(static_cast<double>(outline.minX))));
    const long long c1 = std::min<long long>(x1, static_cast<long long>(std::floor(static_cast<double>(outline.maxX))));
    if (c0 > c1)
        return;
    m_first = static_cast<int>(c0);
    m_last = static_cast<int>(c1);
    m_firstWord = (m_first - base) >> 6;
    m_lastWord = (m_last - base) >> 6;
    m_origin = base + 64 * m_firstWord;

    m_edges.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        float ax, ay, bx, by;
        if (!edgeLeftToRight(outline, i, ax, ay, bx, by))
            continue;
        const double first = std::max(std::floor(static_cast<double>(ax)) + 1.0, static_cast<double>(m_first));
        const double last = std::min(std::floor(static_cast<double>(bx)), static_cast<double>(m_last));
        if (first > last)
            continue; // toggles no scanned column
        m_edges.push_back({ax, ay, bx - ax, by - ay, static_cast<int>(first), static_cast<int>(last), std::max(ay, by)});
    }
    std::sort(m_edges.begin(), m_edges.end(), [](const Edge& a, const Edge& b) { return a.maxY > b.maxY; });
    m_gone.reserve(m_edges.size());
    restart();
}

void InsideRowBits::restart()
{
    m_next = 0;
    m_met = 0;
    m_above.assign(static_cast<size_t>(m_lastWord - m_firstWord + 1), 0);
    // One word more: an interval's end may toggle the column after the last one.
    m_toggles.assign(m_above.size() + 1, 0);
    const size_t padded = (m_edges.size() + 3) & ~size_t(3);
    for (std::vector<float>* v : {&m_ax, &m_ay, &m_dx, &m_dy, &m_slope})
        v->assign(padded, 0.0f);
    m_mFirst.assign(padded, 0);
    m_mLast.assign(padded, 0);
}

void InsideRowBits::meet(const Edge& e)
{
    m_ax[m_met] = e.ax;
    m_ay[m_met] = e.ay;
    m_dx[m_met] = e.dx;
    m_dy[m_met] = e.dy;
    // Only a guess (checked): a horizontal edge never has a crossing to guess.
    m_slope[m_met] = e.dy != 0.0f ? e.dx / e.dy : 0.0f;
    m_mFirst[m_met] = e.first;
    m_mLast[m_met] = e.last;
    flipToEnd(fixedEnd(m_met));
    ++m_met;
}

void InsideRowBits::flipToEnd(int from)
{
    const int lastColumn = m_origin + 64 * static_cast<int>(m_above.size()) - 1;
    if (from <= lastColumn)
        flip(m_above.data(), from, lastColumn);
}

void InsideRowBits::forget(size_t k)
{
    const size_t last = --m_met;
    m_ax[k] = m_ax[last];
    m_ay[k] = m_ay[last];
    m_dx[k] = m_dx[last];
    m_dy[k] = m_dy[last];
    m_slope[k] = m_slope[last];
    m_mFirst[k] = m_mFirst[last];
    m_mLast[k] = m_mLast[last];
}

void InsideRowBits::flip(std::uint64_t* words, int from, int to) const
{
    // words[0] is word m_firstWord of a row.
    const int b0 = from - m_base, b1 = to - m_base;
    const int w0 = (b0 >> 6) - m_firstWord, w1 = (b1 >> 6) - m_firstWord;
    const std::uint64_t head = ~std::uint64_t(0) << (b0 & 63);
    const std::uint64_t tail = ~std::uint64_t(0) >> (63 - (b1 & 63));
    if (w0 == w1) {
        words[w0] ^= head & tail;
        return;
    }
    words[w0] ^= head;
    for (int w = w0 + 1; w < w1; ++w)
        words[w] = ~words[w];
    words[w1] ^= tail;
}

// Where met edge k's comparison changes within its range in row fy (it holds at one end
// only): the first column of the suffix where it holds, or the first after the prefix.
int InsideRowBits::boundary(size_t k, float fy) const
{
    const float ax = m_ax[k], dx = m_dx[k], dy = m_dy[k];
    const float rhs = dx * (fy - m_ay[k]);
    const auto passesAbove = [=](int x) { return dy * (static_cast<float>(x) - ax) > rhs; };
    const double crossing = static_cast<double>(ax) + static_cast<double>(dx) *
                                                         (static_cast<double>(fy) - static_cast<double>(m_ay[k])) /
                                                         static_cast<double>(dy);
    if (passesAbove(m_mLast[k]))
        return firstHolding(m_mFirst[k] + 1, m_mLast[k], std::floor(crossing) + 1.0, passesAbove);
    return firstHolding(m_mFirst[k] + 1, m_mLast[k], std::ceil(crossing), [&](int x) { return !passesAbove(x); });
}

bool InsideRowBits::scanRow(int y, std::uint64_t* row)
{
    if (!m_exact || m_first > m_last)
        return false;
    const float fy = static_cast<float>(y);
    if (fy < m_outline.minY || fy > m_outline.maxY)
        return false;
    if (fy > m_lastRow)
        restart();
    m_lastRow = fy;

    // Edges whose top reaches the row start being evaluated (those below never toggle).
    while (m_next < m_edges.size() && m_edges[m_next].maxY >= fy)
        meet(m_edges[m_next++]);

    // Four met edges at a time, each lane with the rule's own float operations. The
    // comparison is evaluated at a guessed boundary g and at g - 1: where it differs there,
    // with g - 1 and g both in the range, it fails at the range's first column and holds at
    // its last (or the reverse), by monotony, so the lane is settled. Only a group with some
    // other lane evaluates the comparison at both ends of each range; a lane whose guess is
    // then not confirmed is searched.
    const __m128 vfy = _mm_set1_ps(fy);
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128i origin = _mm_set1_epi32(m_origin);
    const __m128i nowhere = _mm_set1_epi32(m_origin + 64 * static_cast<int>(m_above.size()));
    alignas(16) int moving[4];
    m_gone.clear();
    for (size_t k = 0; k < m_met; k += 4) {
        const __m128 ax = _mm_loadu_ps(&m_ax[k]);
        const __m128 dy = _mm_loadu_ps(&m_dy[k]);
        const __m128 rise = _mm_sub_ps(vfy, _mm_loadu_ps(&m_ay[k]));
        const __m128 rhs = _mm_mul_ps(_mm_loadu_ps(&m_dx[k]), rise);
        const __m128i firstI = _mm_loadu_si128(reinterpret_cast<const __m128i*>(&m_mFirst[k]));
        const __m128i lastI = _mm_loadu_si128(reinterpret_cast<const __m128i*>(&m_mLast[k]));
        const __m128 first = _mm_cvtepi32_ps(firstI);
        const __m128 last = _mm_cvtepi32_ps(lastI);
        const auto passesAbove = [&](__m128 x) { return _mm_cmpgt_ps(_mm_mul_ps(dy, _mm_sub_ps(x, ax)), rhs); };
        int lanes = 15;
        if (m_met - k < 4)
            lanes = (1 << (m_met - k)) - 1;
        // The comparison grows with x where dy > 0 (it holds on a suffix) and shrinks where
        // dy < 0 (a prefix); with dy = 0 it is constant and never changes within a range.
        const __m128 suffixPs = _mm_cmpgt_ps(dy, _mm_setzero_ps());
        // g: floor(crossing) + 1 for a suffix, ceil(crossing) for a prefix, kept within
        // first + 1 .. last (both exact as floats); truncation is floor on the clamped values
        // once shifted by -first.
        const __m128 crossing = _mm_add_ps(ax, _mm_mul_ps(rise, _mm_loadu_ps(&m_slope[k])));
        const __m128 rel = _mm_min_ps(_mm_max_ps(_mm_sub_ps(crossing, first), _mm_setzero_ps()), _mm_sub_ps(last, first));
        const __m128 down = _mm_cvtepi32_ps(_mm_cvttps_epi32(rel));
        const __m128 up = _mm_add_ps(down, _mm_and_ps(_mm_cmplt_ps(down, rel), one));
        const __m128 step = _mm_or_ps(_mm_and_ps(suffixPs, _mm_add_ps(down, one)), _mm_andnot_ps(suffixPs, up));
        const __m128 g = _mm_add_ps(first, _mm_min_ps(_mm_max_ps(step, one), _mm_sub_ps(last, first)));
        const __m128 changes = _mm_xor_ps(passesAbove(g), passesAbove(_mm_sub_ps(g, one)));
        const int settled = _mm_movemask_ps(_mm_and_ps(changes, _mm_cmplt_ps(first, last))) & lanes;
        const __m128i inRangeI = _mm_castps_si128(inRange(m_met - k));
        // Each met edge's interval is its fixed end (kept in the running parity, see
        // fixedEnd) and one moving toggle: g or the searched boundary where it crosses the
        // row, the fixed end itself where it passes above no pixel of the row (an empty
        // interval), and none (a column past the row) for edges leaving and padding lanes.
        __m128i movingI = _mm_or_si128(_mm_and_si128(inRangeI, _mm_cvttps_epi32(g)), _mm_andnot_si128(inRangeI, nowhere));
        int searched = 0;
        if (settled != lanes) {
            const __m128 atFirst = passesAbove(first);
            const __m128 atLast = passesAbove(last);
            const int whole = _mm_movemask_ps(_mm_and_ps(atFirst, atLast)) & lanes;
            const int partial = _mm_movemask_ps(_mm_xor_ps(atFirst, atLast)) & lanes;
            if (whole != 0)
                for (int lane = 0; lane < 4; ++lane)
                    if (whole & (1 << lane))
                        m_gone.push_back(k + static_cast<size_t>(lane));
            searched = partial & ~_mm_movemask_ps(changes);
            const __m128i suffix = _mm_castps_si128(suffixPs);
            const __m128i fixedI = _mm_or_si128(_mm_and_si128(suffix, _mm_add_epi32(lastI, _mm_set1_epi32(1))),
                                                _mm_andnot_si128(suffix, firstI));
            const __m128i partialI = _mm_and_si128(inRangeI, _mm_castps_si128(_mm_xor_ps(atFirst, atLast)));
            const __m128i emptyI = _mm_andnot_si128(_mm_castps_si128(_mm_or_ps(atFirst, atLast)), inRangeI);
            movingI = _mm_or_si128(_mm_and_si128(partialI, movingI),
                                   _mm_or_si128(_mm_and_si128(emptyI, fixedI),
                                                _mm_andnot_si128(_mm_or_si128(partialI, emptyI), nowhere)));
        }
        // Stored as bits of m_toggles (column minus m_origin).
        _mm_store_si128(reinterpret_cast<__m128i*>(moving), _mm_sub_epi32(movingI, origin));
        for (int lane = 0; searched != 0 && lane < 4; ++lane)
            if (searched & (1 << lane))
                moving[lane] = boundary(k + static_cast<size_t>(lane), fy) - m_origin;
        for (int lane = 0; lane < 4; ++lane)
            toggle(moving[lane]);
    }
    // Edges wholly above here are so in every lower row: their ranges join the running parity.
    for (size_t i = m_gone.size(); i-- > 0;) {
        const size_t k = m_gone[i];
        flip(m_above.data(), m_mFirst[k], m_mLast[k]);
        flipToEnd(fixedEnd(k));
        forget(k);
    }

    // The row: the running parity, flipped from each toggle on (a prefix xor of the toggles).
    // Most words have no toggle: those are the running parity or its complement, two words
    // at a time.
    std::uint64_t carry = 0;
    std::uint64_t* words = row + m_firstWord;
    const std::uint64_t* above = m_above.data();
    std::uint64_t* toggles = m_toggles.data();
    const auto prefixWord = [&](size_t w) {
        std::uint64_t t = toggles[w];
        toggles[w] = 0;
        t ^= t << 1;
        t ^= t << 2;
        t ^= t << 4;
        t ^= t << 8;
        t ^= t << 16;
        t ^= t << 32;
        t ^= carry;
        carry = std::uint64_t(0) - (t >> 63);
        words[w] |= above[w] ^ t;
    };
    const size_t n = m_above.size();
    size_t w = 0;
    for (; w + 2 <= n; w += 2) {
        const __m128i t = _mm_loadu_si128(reinterpret_cast<const __m128i*>(toggles + w));
        if (_mm_movemask_epi8(_mm_cmpeq_epi32(t, _mm_setzero_si128())) == 0xffff) {
            __m128i* out = reinterpret_cast<__m128i*>(words + w);
            const __m128i flipped = _mm_xor_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(above + w)),
                                                  _mm_set1_epi64x(static_cast<long long>(carry)));
            _mm_storeu_si128(out, _mm_or_si128(_mm_loadu_si128(out), flipped));
            continue;
        }
        prefixWord(w);
        prefixWord(w + 1);
    }
    if (w < n)
        prefixWord(w);
    toggles[n] = 0;
    return true;
}

} // namespace qzsse::detail
