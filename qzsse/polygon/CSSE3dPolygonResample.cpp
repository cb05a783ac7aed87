#include <cmath>
#include <utility>
#include <vector>

#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

// Upper bound of ReParametrize's point count, far beyond any polygon the library handles;
// it only keeps an absurd step from overflowing the count.
constexpr float c_fMaxResampledPoints = 268435456.0f;

} // namespace

void CSSE3dPolygon::swapPoints(CSSE3dPolygon& other)
{
    std::swap(m_pX, other.m_pX);
    std::swap(m_pY, other.m_pY);
    std::swap(m_pZ, other.m_pZ);
    std::swap(m_pXNorm, other.m_pXNorm);
    std::swap(m_pYNorm, other.m_pYNorm);
    std::swap(m_pZNorm, other.m_pZNorm);
    std::swap(m_nNumPoints, other.m_nNumPoints);
}

void CSSE3dPolygon::keepSelectedPoints(const std::vector<int>& kept)
{
    CSSE3dPolygon result;
    result.Create(static_cast<int>(kept.size()));
    for (size_t j = 0; j < kept.size(); ++j) {
        const int i = kept[j];
        result.m_pX[j] = m_pX[i];
        result.m_pY[j] = m_pY[i];
        result.m_pZ[j] = m_pZ[i];
        result.m_pXNorm[j] = m_pXNorm[i];
        result.m_pYNorm[j] = m_pYNorm[i];
        result.m_pZNorm[j] = m_pZNorm[i];
    }
    swapPoints(result);
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::Subsample(int step, bool keepLast)
{
    const int n = m_nNumPoints;
    if (step <= 1 || n < 1)
        return;
    std::vector<int> kept;
    kept.reserve(static_cast<size_t>(n / step + 2));
    for (int i = 0; i < n; i += step) {
        kept.push_back(i);
        if (i > n - 1 - step)
            break; // the next stride would pass the end (and might overflow)
    }
    if (keepLast && kept.back() != n - 1)
        kept.push_back(n - 1);

    keepSelectedPoints(kept);
}

void CSSE3dPolygon::RemoveEqualPointsXY()
{
    const int n = m_nNumPoints;
    if (n < 2)
        return;
    std::vector<int> kept;
    kept.reserve(static_cast<size_t>(n));
    kept.push_back(0);
    for (int i = 1; i < n; ++i) {
        const int last = kept.back();
        if (m_pX[i] != m_pX[last] || m_pY[i] != m_pY[last])
            kept.push_back(i);
    }
    // Read closed: points at the end that repeat point 0 go as well.
    while (kept.size() > 1 && m_pX[kept.back()] == m_pX[0] && m_pY[kept.back()] == m_pY[0])
        kept.pop_back();
    if (static_cast<int>(kept.size()) == n)
        return;

    keepSelectedPoints(kept);
}

// Walks the closed outline (edges i -> i + 1, the last back to 0) and places m points L / m
// apart along it, interpolating all six coordinates linearly on the edge that holds each.
void CSSE3dPolygon::ReParametrize(float step)
{
    const int n = m_nNumPoints;
    if (n < 2 || !(step > 0.0f))
        return;

    std::vector<float> edgeLength(static_cast<size_t>(n));
    float total = 0.0f;
    for (int i = 0; i < n; ++i) {
        const int j = (i + 1) % n;
        const float dx = m_pX[j] - m_pX[i];
        const float dy = m_pY[j] - m_pY[i];
        const float dz = m_pZ[j] - m_pZ[i];
        edgeLength[static_cast<size_t>(i)] = std::sqrt(dx * dx + dy * dy + dz * dz);
        total += edgeLength[static_cast<size_t>(i)];
    }
    if (!(total > 0.0f) || !std::isfinite(total))
        return;

    const float wanted = std::floor(total / step + 0.5f);
    const int m = wanted >= c_fMaxResampledPoints ? static_cast<int>(c_fMaxResampledPoints)
                                                   : (wanted >= 1.0f ? static_cast<int>(wanted) : 1);
    const float spacing = total / static_cast<float>(m);

    CSSE3dPolygon result;
    result.Create(m);
    int edge = 0;
    float edgeStart = 0.0f;
    for (int k = 0; k < m; ++k) {
        const float s = static_cast<float>(k) * spacing;
        while (edge < n - 1 && s >= edgeStart + edgeLength[static_cast<size_t>(edge)]) {
            edgeStart += edgeLength[static_cast<size_t>(edge)];
            ++edge;
        }
        const float length = edgeLength[static_cast<size_t>(edge)];
        float t = length > 0.0f ? (s - edgeStart) / length : 0.0f;
        t = t < 0.0f ? 0.0f : (t > 1.0f ? 1.0f : t);
        const int a = edge;
        const int b = (edge + 1) % n;
        result.m_pX[k] = m_pX[a] + t * (m_pX[b] - m_pX[a]);
        result.m_pY[k] = m_pY[a] + t * (m_pY[b] - m_pY[a]);
        result.m_pZ[k] = m_pZ[a] + t * (m_pZ[b] - m_pZ[a]);
        result.m_pXNorm[k] = m_pXNorm[a] + t * (m_pXNorm[b] - m_pXNorm[a]);
        result.m_pYNorm[k] = m_pYNorm[a] + t * (m_pYNorm[b] - m_pYNorm[a]);
        result.m_pZNorm[k] = m_pZNorm[a] + t * (m_pZNorm[b] - m_pZNorm[a]);
    }
    swapPoints(result);
    m_bBoundingBoxCalculated = false;
}
