#include <algorithm>
#include <utility>
#include <vector>

#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

// Squared distance from p to the segment a-b, in double.
double SegmentDistance2(double px, double py, double ax, double ay, double bx, double by)
{
    const double vx = bx - ax, vy = by - ay;
    const double wx = px - ax, wy = py - ay;
    const double c1 = wx * vx + wy * vy;
    if (c1 <= 0.0)
        return wx * wx + wy * wy;
    const double c2 = vx * vx + vy * vy;
    if (c2 <= c1) {
        const double dx = px - bx, dy = py - by;
        return dx * dx + dy * dy;
    }
    const double b = c1 / c2;
    const double dx = px - (ax + b * vx), dy = py - (ay + b * vy);
    return dx * dx + dy * dy;
}

// Douglas-Peucker over the run first..last of the index sequence `order`, marking kept
// positions; an explicit stack keeps long outlines off the call stack.
void ReduceRun(const float* x, const float* y, const std::vector<int>& order, int first, int last,
               double limit2, std::vector<char>& keep)
{
    std::vector<std::pair<int, int>> runs{{first, last}};
    while (!runs.empty()) {
        const auto [a, b] = runs.back();
        runs.pop_back();
        if (b - a < 2)
            continue;
        const int ia = order[static_cast<size_t>(a)], ib = order[static_cast<size_t>(b)];
        double worst = -1.0;
        int at = -1;
        for (int k = a + 1; k < b; ++k) {
            const int i = order[static_cast<size_t>(k)];
            const double d2 = SegmentDistance2(x[i], y[i], x[ia], y[ia], x[ib], y[ib]);
            if (d2 > worst) {
                worst = d2;
                at = k;
            }
        }
        if (worst > limit2) {
            keep[static_cast<size_t>(at)] = 1;
            runs.push_back({at, b});
            runs.push_back({a, at});
        }
    }
}

inline float Median3(float a, float b, float c)
{
    return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

} // namespace

void CSSE3dPolygon::ReducePoints(float maxDeviation, bool closed)
{
    const int n = m_nNumPoints;
    if (n < 3)
        return;
    const double limit = maxDeviation > 0.0f ? static_cast<double>(maxDeviation) : 0.0;
    const double limit2 = limit * limit;

    // The run(s) as index sequences; a closed outline is split at point 0 and the point
    // farthest from it, both ends of each half shared.
    std::vector<int> order;
    order.reserve(static_cast<size_t>(n) + 1);
    for (int i = 0; i < n; ++i)
        order.push_back(i);
    std::vector<char> keep(static_cast<size_t>(n) + 1, 0);
    keep[0] = 1;
    if (closed) {
        int far = 0;
        double farthest = -1.0;
        for (int i = 1; i < n; ++i) {
            const double dx = static_cast<double>(m_pX[i]) - m_pX[0], dy = static_cast<double>(m_pY[i]) - m_pY[0];
            if (dx * dx + dy * dy > farthest) {
                farthest = dx * dx + dy * dy;
                far = i;
            }
        }
        order.push_back(0);
        keep[static_cast<size_t>(far)] = 1;
        ReduceRun(m_pX, m_pY, order, 0, far, limit2, keep);
        ReduceRun(m_pX, m_pY, order, far, n, limit2, keep);
    } else {
        keep[static_cast<size_t>(n) - 1] = 1;
        ReduceRun(m_pX, m_pY, order, 0, n - 1, limit2, keep);
    }

    std::vector<int> kept;
    for (int i = 0; i < n; ++i)
        if (keep[static_cast<size_t>(i)])
            kept.push_back(i);
    if (static_cast<int>(kept.size()) == n)
        return;
    CSSE3dPolygon result;
    result.copySelectedPoints(*this, kept.data(), static_cast<int>(kept.size()));
    swapPoints(result);
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::FilterMedian3(bool closed)
{
    const int n = m_nNumPoints;
    if (n < 3)
        return;
    std::vector<float> source(static_cast<size_t>(n));
    for (float* a : {m_pX, m_pY, m_pZ, m_pXNorm, m_pYNorm, m_pZNorm}) {
        std::copy(a, a + n, source.begin());
        for (int i = 1; i < n - 1; ++i)
            a[i] = Median3(source[static_cast<size_t>(i) - 1], source[static_cast<size_t>(i)],
                           source[static_cast<size_t>(i) + 1]);
        if (closed) {
            a[0] = Median3(source[static_cast<size_t>(n) - 1], source[0], source[1]);
            a[n - 1] = Median3(source[static_cast<size_t>(n) - 2], source[static_cast<size_t>(n) - 1], source[0]);
        }
    }
    m_bBoundingBoxCalculated = false;
}
