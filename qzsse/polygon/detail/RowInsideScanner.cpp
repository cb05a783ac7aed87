#include "qzsse/polygon/detail/RowInsideScanner.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>

#include <emmintrin.h>

#include "qzsse/polygon/detail/FirstHolding.h"

namespace qzsse::detail {
namespace {

constexpr long long c_llLargestExactPixel = 1LL << 24;
constexpr double c_dColumnLimit = 1073741824.0; // 2^30: far beyond any exact pixel column

// SSE2 has no packed 32-bit max / min.
inline __m128i maxInt32(__m128i a, __m128i b)
{
    const __m128i greater = _mm_cmpgt_epi32(a, b);
    return _mm_or_si128(_mm_and_si128(greater, a), _mm_andnot_si128(greater, b));
}

inline __m128i minInt32(__m128i a, __m128i b)
{
    const __m128i greater = _mm_cmpgt_epi32(a, b);
    return _mm_or_si128(_mm_and_si128(greater, b), _mm_andnot_si128(greater, a));
}

} // namespace

RowInsideScanner::RowInsideScanner(const OutlineXY& outline)
    : m_outline(outline), m_lastRow(-std::numeric_limits<float>::infinity())
{
    const int n = outline.n;
    if (n < 3)
        return;
    m_direct = !scannableOutline(outline);
    if (m_direct)
        return;

    struct Edge {
        float ax, ay, dx, dy, maxY;
        int firstX, lastX;
    };
    std::vector<Edge> edges;
    edges.reserve(static_cast<size_t>(n));
    const auto column = [](double v) {
        return static_cast<int>(std::clamp(v, -c_dColumnLimit, c_dColumnLimit));
    };
    for (int i = 0; i < n; ++i) {
        float ax, ay, bx, by;
        if (!edgeLeftToRight(outline, i, ax, ay, bx, by))
            continue;
        edges.push_back({ax, ay, bx - ax, by - ay, std::max(ay, by), column(std::floor(static_cast<double>(ax)) + 1.0),
                         column(std::floor(static_cast<double>(bx)))});
    }
    std::sort(edges.begin(), edges.end(), [](const Edge& a, const Edge& b) { return a.maxY < b.maxY; });

    m_edgeCount = edges.size();
    const size_t padded = (m_edgeCount + 3) & ~size_t(3);
    m_ax.assign(padded, 0.0f);
    m_ay.assign(padded, 0.0f);
    m_dx.assign(padded, 0.0f);
    m_dy.assign(padded, 0.0f);
    m_maxY.assign(padded, 0.0f);
    m_firstX.assign(padded, static_cast<int>(c_dColumnLimit));
    m_lastX.assign(padded, -static_cast<int>(c_dColumnLimit));
    for (size_t k = 0; k < m_edgeCount; ++k) {
        m_ax[k] = edges[k].ax;
        m_ay[k] = edges[k].ay;
        m_dx[k] = edges[k].dx;
        m_dy[k] = edges[k].dy;
        m_maxY[k] = edges[k].maxY;
        m_firstX[k] = edges[k].firstX;
        m_lastX[k] = edges[k].lastX;
    }
}

void RowInsideScanner::scanRowDirect(float fy, int x0, int x1, std::vector<InsideRun>& runs) const
{
    for (long long wide = x0; wide <= x1; ++wide) {
        const int x = static_cast<int>(wide);
        const float fx = static_cast<float>(x);
        if (outsideBox(m_outline, fx, fy) || !crossingParity(m_outline.x, m_outline.y, m_outline.n, 1, fx, fy))
            continue;
        if (!runs.empty() && runs.back().last == x - 1)
            runs.back().last = x;
        else
            runs.push_back({x, x});
    }
}

void RowInsideScanner::scanRow(int y, int x0, int x1, std::vector<InsideRun>& runs)
{
    runs.clear();
    if (x1 < x0 || m_outline.n < 3)
        return;
    const float fy = static_cast<float>(y);
    if (fy < m_outline.minY || fy > m_outline.maxY)
        return;
    if (m_direct || y < -c_llLargestExactPixel || y > c_llLargestExactPixel || x0 < -c_llLargestExactPixel ||
        x1 > c_llLargestExactPixel) {
        scanRowDirect(fy, x0, x1, runs);
        return;
    }

    // Columns the box test lets through: float(x) is exact here, so x >= minX is x >= ceil(minX).
    const long long c0 = std::max<long long>(x0, static_cast<long long>(std::ceil(static_cast<double>(m_outline.minX))));
    const long long c1 = std::min<long long>(x1, static_cast<long long>(std::floor(static_cast<double>(m_outline.maxX))));
    if (c0 > c1)
        return;
    const int first = static_cast<int>(c0);
    const int last = static_cast<int>(c1);

    if (fy < m_lastRow)
        m_firstActive = 0;
    m_lastRow = fy;
    while (m_firstActive < m_edgeCount && m_maxY[m_firstActive] < fy)
        ++m_firstActive;

    m_toggles.assign(static_cast<size_t>(last - first) + 2, 0);
    unsigned char* toggles = m_toggles.data(); // index: column - first
    const __m128i vFirst = _mm_set1_epi32(first);
    const __m128i vLast = _mm_set1_epi32(last);
    const __m128 vfy = _mm_set1_ps(fy);
    alignas(16) int xsLane[4];
    alignas(16) int xeLane[4];
    // Whole blocks of four from the active cursor down to a multiple of four: the edges
    // before the cursor lie below the row and cannot pass above any pixel of it.
    for (size_t k = m_firstActive & ~size_t(3); k < m_edgeCount; k += 4) {
        const __m128i xs = maxInt32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(&m_firstX[k])), vFirst);
        const __m128i xe = minInt32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(&m_lastX[k])), vLast);
        const int empty = _mm_movemask_ps(_mm_castsi128_ps(_mm_cmpgt_epi32(xs, xe)));
        if (empty == 15)
            continue;
        // Both ends of each edge's column range, with the rule's own float operations.
        const __m128 ax = _mm_loadu_ps(&m_ax[k]);
        const __m128 dy = _mm_loadu_ps(&m_dy[k]);
        const __m128 rhs = _mm_mul_ps(_mm_loadu_ps(&m_dx[k]), _mm_sub_ps(vfy, _mm_loadu_ps(&m_ay[k])));
        const int atStart = _mm_movemask_ps(_mm_cmpgt_ps(_mm_mul_ps(dy, _mm_sub_ps(_mm_cvtepi32_ps(xs), ax)), rhs)) & ~empty;
        const int atEnd = _mm_movemask_ps(_mm_cmpgt_ps(_mm_mul_ps(dy, _mm_sub_ps(_mm_cvtepi32_ps(xe), ax)), rhs)) & ~empty;
        const int any = atStart | atEnd;
        if (any == 0)
            continue;
        _mm_store_si128(reinterpret_cast<__m128i*>(xsLane), xs);
        _mm_store_si128(reinterpret_cast<__m128i*>(xeLane), xe);
        for (int lane = 0; lane < 4; ++lane) {
            const int bit = 1 << lane;
            if ((any & bit) == 0)
                continue;
            const int s = xsLane[lane], e = xeLane[lane];
            if (atStart & atEnd & bit) {
                toggles[s - first] ^= 1;
                toggles[e + 1 - first] ^= 1;
                continue;
            }
            // The predicate changes inside [s, e]: find where, exactly.
            const size_t j = k + static_cast<size_t>(lane);
            const float eax = m_ax[j], eay = m_ay[j], edx = m_dx[j], edy = m_dy[j];
            const float erhs = edx * (fy - eay);
            const auto passesAbove = [=](int x) { return edy * (static_cast<float>(x) - eax) > erhs; };
            const double crossing = static_cast<double>(eax) + static_cast<double>(edx) *
                                                                   (static_cast<double>(fy) - static_cast<double>(eay)) /
                                                                   static_cast<double>(edy);
            if (atEnd & bit) {
                // Holds on a suffix (dy > 0).
                const int from = firstHolding(s + 1, e, std::floor(crossing) + 1.0, passesAbove);
                toggles[from - first] ^= 1;
                toggles[e + 1 - first] ^= 1;
            } else {
                // Holds on a prefix (dy < 0).
                const int end = firstHolding(s + 1, e, std::ceil(crossing), [&](int x) { return !passesAbove(x); });
                toggles[s - first] ^= 1;
                toggles[end - first] ^= 1;
            }
        }
    }

    // The inside state flips exactly at the non-zero toggles; zero stretches are skipped
    // eight bytes at a time.
    bool inside = false;
    int runStart = 0;
    const int count = last - first + 1;
    for (int k = 0; k < count;) {
        if ((k & 7) == 0 && k + 8 <= count) {
            std::uint64_t word;
            std::memcpy(&word, toggles + k, sizeof(word));
            if (word == 0) {
                k += 8;
                continue;
            }
        }
        if (toggles[k]) {
            if (inside)
                runs.push_back({runStart, first + k - 1});
            else
                runStart = first + k;
            inside = !inside;
        }
        ++k;
    }
    if (inside)
        runs.push_back({runStart, last});
}

} // namespace qzsse::detail
