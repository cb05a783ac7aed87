#include <algorithm>
#include <utility>
#include <vector>

#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

// Douglas-Peucker over positions first..last (position n is point 0 again, for the closing run
// of a closed outline), marking kept points; an explicit stack keeps long outlines off the
// call stack. Distances to a segment of squared length c2 are compared as squared distance
// times c2, which needs no division for points projecting inside the segment (the cross
// product squared).
void ReduceRun(const float* x, const float* y, int n, int first, int last, double limit2, std::vector<char>& keep)
{
    std::vector<std::pair<int, int>> runs{{first, last}};
    while (!runs.empty()) {
        const auto [a, b] = runs.back();
        runs.pop_back();
        if (b - a < 2)
            continue;
        const int ib = b == n ? 0 : b;
        const double ax = x[a], ay = y[a], bx = x[ib], by = y[ib];
        const double vx = bx - ax, vy = by - ay;
        const double c2 = vx * vx + vy * vy;
        const double scale = c2 > 0.0 ? c2 : 1.0;
        double worst = -1.0;
        int at = -1;
        for (int i = a + 1; i < b; ++i) {
            const double px = x[i] - ax, py = y[i] - ay;
            const double c1 = px * vx + py * vy;
            double key;
            if (c1 <= 0.0) {
                key = (px * px + py * py) * scale;
            } else if (c2 <= c1) {
                const double qx = x[i] - bx, qy = y[i] - by;
                key = (qx * qx + qy * qy) * scale;
            } else {
                const double cross = px * vy - py * vx;
                key = cross * cross;
            }
            if (key > worst) {
                worst = key;
                at = i;
            }
        }
        if (worst > limit2 * scale) {
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

    // A closed outline is split at point 0 and the point farthest from it, both ends of each
    // half shared.
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
        keep[static_cast<size_t>(far)] = 1;
        ReduceRun(m_pX, m_pY, n, 0, far, limit2, keep);
        ReduceRun(m_pX, m_pY, n, far, n, limit2, keep);
    } else {
        keep[static_cast<size_t>(n) - 1] = 1;
        ReduceRun(m_pX, m_pY, n, 0, n - 1, limit2, keep);
    }

    std::vector<int> kept;
    for (int i = 0; i < n; ++i)
        if (keep[static_cast<size_t>(i)])
            kept.push_back(i);
    if (static_cast<int>(kept.size()) == n)
        return;
    keepSelectedPoints(kept);
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
