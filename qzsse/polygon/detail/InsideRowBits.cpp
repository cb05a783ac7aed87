#include "qzsse/polygon/detail/InsideRowBits.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>

#include "qzsse/polygon/detail/FirstHolding.h"

namespace qzsse::detail {
namespace {

constexpr double c_dLargestSafeCoordinate = 1e18;
constexpr long long c_llLargestExactPixel = 1LL << 24;

bool safeCoordinate(float v)
{
    return std::isfinite(v) && std::fabs(v) <= c_dLargestSafeCoordinate;
}

} // namespace

InsideRowBits::InsideRowBits(const OutlineXY& outline, int x0, int x1, int base)
    : m_outline(outline), m_base(base), m_lastRow(std::numeric_limits<float>::infinity())
{
    const int n = outline.n;
    if (n < 3 || x0 < base)
        return;
    if (!(safeCoordinate(outline.minX) && safeCoordinate(outline.minY) && safeCoordinate(outline.maxX) &&
          safeCoordinate(outline.maxY)))
        return;
    for (int i = 0; i < n; ++i)
        if (!(safeCoordinate(outline.x[i]) && safeCoordinate(outline.y[i])))
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

    m_edges.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        const int prev = (i == 0) ? n - 1 : i - 1;
        const float px = outline.x[prev], py = outline.y[prev];
        const float cx = outline.x[i], cy = outline.y[i];
        if (px == cx)
            continue; // an empty half-open x-range: never toggles
        const bool prevSmaller = px < cx;
        const float ax = prevSmaller ? px : cx, ay = prevSmaller ? py : cy;
        const float bx = prevSmaller ? cx : px, by = prevSmaller ? cy : py;
        const double first = std::max(std::floor(static_cast<double>(ax)) + 1.0, static_cast<double>(m_first));
        const double last = std::min(std::floor(static_cast<double>(bx)), static_cast<double>(m_last));
        if (first > last)
            continue; // toggles no scanned column
        m_edges.push_back({ax, ay, bx - ax, by - ay, static_cast<int>(first), static_cast<int>(last), std::max(ay, by)});
    }
    std::sort(m_edges.begin(), m_edges.end(), [](const Edge& a, const Edge& b) { return a.maxY > b.maxY; });
    restart();
}

void InsideRowBits::restart()
{
    m_next = 0;
    m_met.clear();
    m_above.assign(static_cast<size_t>(m_lastWord - m_firstWord + 1), 0);
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
        m_met.push_back(m_edges[m_next++]);

    m_flips.clear();
    for (size_t k = 0; k < m_met.size();) {
        const Edge& e = m_met[k];
        const float rhs = e.dx * (fy - e.ay);
        const auto passesAbove = [&e, rhs](int x) { return e.dy * (static_cast<float>(x) - e.ax) > rhs; };
        const bool atFirst = passesAbove(e.first);
        const bool atLast = passesAbove(e.last);
        if (atFirst && atLast) {
            // Above the whole range here, so also in every lower row.
            flip(m_above.data(), e.first, e.last);
            m_met[k] = m_met.back();
            m_met.pop_back();
            continue;
        }
        ++k;
        if (!atFirst && !atLast)
            continue; // above none of the range
        const double crossing = static_cast<double>(e.ax) + static_cast<double>(e.dx) *
                                                               (static_cast<double>(fy) - static_cast<double>(e.ay)) /
                                                               static_cast<double>(e.dy);
        if (atLast) {
            // Holds on a suffix (dy > 0).
            m_flips.push_back({firstHolding(e.first + 1, e.last, std::floor(crossing) + 1.0, passesAbove), e.last});
        } else {
            // Holds on a prefix (dy < 0).
            const int end = firstHolding(e.first + 1, e.last, std::ceil(crossing),
                                         [&passesAbove](int x) { return !passesAbove(x); });
            m_flips.push_back({e.first, end - 1});
        }
    }
    std::uint64_t* words = row + m_firstWord;
    std::memcpy(words, m_above.data(), m_above.size() * sizeof(std::uint64_t));
    for (const Flip& f : m_flips)
        flip(words, f.from, f.to);
    return true;
}

} // namespace qzsse::detail
