#include "qzsse/contour/CPixelChain.h"

#include <cmath>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/matrix/CSSEMatrix.h"

namespace qzsse::detail {
namespace {

// Coordinate differences go through 64 bits so that chains built with AddPoint far
// outside any image cannot overflow; the float of the difference is what the rules use.
inline float diffF(int a, int b) { return static_cast<float>(static_cast<long long>(a) - b); }

// Float to int towards zero; NaN (only possible from a degenerate segment, which the
// caller excludes) and far values are not expected here but must not be undefined.
inline int truncToInt(float v)
{
    if (!(v > -2147483648.0f && v < 2147483648.0f))
        return 0;
    return static_cast<int>(v);
}

inline int clampInto(long long v, int lo, int hi)
{
    if (v > hi)
        v = hi;
    if (v < lo)
        v = lo;
    return static_cast<int>(v);
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

int CPixelChain::FindNearestPoint(int x, int y) const
{
    int best = -1;
    float bestDistance = 999999.9f;
    for (int i = 0; i < m_iCount; ++i) {
        const float dx = diffF(m_pPixels[i].x, x);
        const float dy = diffF(m_pPixels[i].y, y);
        const float d = std::sqrt(dx * dx + dy * dy);
        if (d < bestDistance) {
            bestDistance = d;
            best = i;
        }
    }
    return best;
}

int CPixelChain::FindNearestPointLimited(int x, int y) const
{
    int best = -1;
    float bestDistance = 999999.9f;
    for (int i = 0; i < m_iCount; ++i) {
        if (m_pPixels[i].y <= y)
            continue;
        const float d = std::fabs(diffF(m_pPixels[i].x, x));
        if (d < bestDistance) {
            bestDistance = d;
            best = i;
        }
    }
    return best;
}

int CPixelChain::GetNearestPixel(int x, int y, int& px, int& py) const
{
    const int index = FindNearestPoint(x, y);
    if (index >= 0) {
        px = m_pPixels[index].x;
        py = m_pPixels[index].y;
    }
    return index;
}

float CPixelChain::FindNearestIntersectionPointY(int x, int y, bool below)
{
    CalculateGeomCenter_norm();
    const int centerY = m_iCenterY;
    int left = -1;
    int right = -1;
    float bestLeft = 1000000.0f;
    float bestRight = 1000000.0f;
    for (int i = 0; i < m_iCount; ++i) {
        const pixel& p = m_pPixels[i];
        const bool between = below ? (centerY < p.y && p.y < y) : (y < p.y && p.y < centerY);
        if (!between || p.x == x)
            continue;
        const float dx = diffF(p.x, x);
        const float dy = diffF(p.y, y);
        const float d = dx * dx + 4.0f * (dy * dy);
        if (p.x < x) {
            if (d < bestLeft) {
                bestLeft = d;
                left = i;
            }
        } else if (d < bestRight) {
            bestRight = d;
            right = i;
        }
    }
    if (left >= 0 && right >= 0)
        return (static_cast<float>(m_pPixels[left].y) + static_cast<float>(m_pPixels[right].y)) * 0.5f;
    const int fallback = FindNearestPointLimited(x, y);
    if (fallback >= 0)
        return static_cast<float>(m_pPixels[fallback].y);
    return -1.0f;
}

void CPixelChain::GetInnerValueForPixelChain(CSSEMatrix* matrix, float level, bool above)
{
    if (!matrix || !matrix->GetMatrixDataDirectly() || matrix->GetSizeX() <= 0 || matrix->GetSizeY() <= 0)
        return;
    const int width = matrix->GetSizeX();
    const int height = matrix->GetSizeY();
    for (int i = 0; i < m_iCount; ++i) {
        const int j = (i + 1) % m_iCount;
        const float dx = diffF(m_pPixels[j].x, m_pPixels[i].x);
        const float dy = diffF(m_pPixels[j].y, m_pPixels[i].y);
        const float length = std::sqrt(dx * dx + dy * dy);
        int offsetX = 0;
        int offsetY = 0;
        if (length > 0.0f) {
            offsetX = truncToInt(-6.0f * dy / length + 0.5f);
            offsetY = truncToInt(6.0f * dx / length + 0.5f);
        }
        const int probeX = clampInto(static_cast<long long>(m_pPixels[i].x) + offsetX, 0, width);
        const int probeY = clampInto(static_cast<long long>(m_pPixels[i].y) + offsetY, 0, height);
        const float sample = matrix->GetPoint(probeX, probeY);
        float value;
        if (above)
            value = (sample <= level) ? sample : level;
        else
            value = (sample >= level) ? sample : level;
        m_pPixels[i].value = value;
    }
}

// Each point's pull is computed from its own value and the other chain alone; with the
// chain pulled towards itself, a copy keeps that true within a pass.
void CPixelChain::SmoothlyPullTogetherChains(CPixelChain* other, int iterations)
{
    if (!other || other->m_iCount <= 0 || m_iCount <= 0)
        return;
    const int otherCount = other->m_iCount;
    const bool self = (other == this);
    pixel* snapshot = nullptr;
    if (self)
        snapshot = static_cast<pixel*>(SafeAlignedAlloc(sizeof(pixel) * static_cast<size_t>(otherCount), 16));
    const pixel* q = self ? snapshot : other->m_pPixels;

    for (int it = 0; it < iterations; ++it) {
        if (self)
            for (int k = 0; k < otherCount; ++k)
                snapshot[k] = m_pPixels[k];
        for (int i = 0; i < m_iCount; ++i) {
            pixel& p = m_pPixels[i];
            const float pv = p.value;
            float sum = 0.0f;
            for (int k = 0; k < otherCount; ++k) {
                const float dy = diffF(p.y, q[k].y);
                const float dx = diffF(p.x, q[k].x);
                sum += (q[k].value - pv) / (dy * dy + dx * dx + 1.0f);
            }
            p.value = pv + 0.4f * sum;
        }
    }
    SafeAlignedFree(snapshot);
}
