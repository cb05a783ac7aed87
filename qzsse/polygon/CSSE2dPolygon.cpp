#include "qzsse/polygon/CSSE2dPolygon.h"

#include <cmath>
#include <xmmintrin.h>

#include "qzsse/core/SafeAlloc.h"

CSSE2dPolygon& CSSE2dPolygon::operator=(const CSSE2dPolygon& other)
{
    m_pX = other.m_pX;
    m_pY = other.m_pY;
    m_nNumPoints = other.m_nNumPoints;
    return *this;
}

CSSE2dPolygon::~CSSE2dPolygon()
{
    SafeAlignedFree(m_pX);
    m_pX = nullptr;
    SafeAlignedFree(m_pY);
    m_pY = nullptr;
}

void CSSE2dPolygon::Create(int n)
{
    SafeAlignedFree(m_pX);
    m_pX = nullptr;
    SafeAlignedFree(m_pY);
    m_pY = nullptr;
    const long long bytes = ((static_cast<long long>(n) + 1) / 2) * 16;
    const unsigned long long size = bytes > 0 ? static_cast<unsigned long long>(bytes) : 0;
    m_pX = static_cast<float*>(SafeAlignedAlloc(size, 16));
    m_pY = static_cast<float*>(SafeAlignedAlloc(size, 16));
    m_nNumPoints = n;
}

void CSSE2dPolygon::SetPoint(int i, float x, float y)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pX[i] = x;
    m_pY[i] = y;
}

void CSSE2dPolygon::GetPoint(int i, float& x, float& y) const
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    x = m_pX[i];
    y = m_pY[i];
}

void CSSE2dPolygon::GetPoint(int i, t_h2dpoint& p) const
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    p.x = m_pX[i];
    p.y = m_pY[i];
}

float CSSE2dPolygon::GetMinEuclDistance(float x, float /*y*/) const
{
    const __m128 px = _mm_set1_ps(x);
    __m128 best = _mm_set1_ps(1000000.0f);
    const int groups = m_nNumPoints / 4;
    for (int g = 0; g < groups; ++g) {
        const __m128 d = _mm_sub_ps(px, _mm_load_ps(m_pX + 4 * g));
        const __m128 squared = _mm_mul_ps(d, d);
        best = _mm_min_ps(best, _mm_sqrt_ps(_mm_add_ps(squared, squared)));
    }
    best = _mm_min_ps(best, _mm_movehl_ps(best, best));
    best = _mm_min_ss(best, _mm_shuffle_ps(best, best, _MM_SHUFFLE(1, 1, 1, 1)));
    return _mm_cvtss_f32(best);
}

float CSSE2dPolygon::CalcArea() const
{
    const int n = m_nNumPoints;
    if (n < 3)
        return 0.0f;
    const float px = m_pX[n - 1], py = m_pY[n - 1];
    const float ax = m_pX[0], ay = m_pY[0];
    const float qx = m_pX[n - 2], qy = m_pY[n - 2];
    const float c = m_pX[1];
    const float t1 = (ax - px) * (c - py) - (ay - py) * (c - py);
    const float t2 = (px - qx) * (c - qy) - (py - qy) * (c - qy);
    return (t2 + t1) + 0.0f;
}

int CSSE2dPolygon::closestOnEvenIndices(const float* values, int n, float target)
{
    if (n - 1 < 1)
        return -1;
    float best = 10000000.0f;
    int index = -1;
    for (int i = 0; i < n - 1; i += 2) {
        const float d = std::fabs(values[i] - target);
        if (d < best) {
            best = d;
            index = i;
        }
    }
    return index;
}

int CSSE2dPolygon::ClosestPointX(float x) const { return closestOnEvenIndices(m_pX, m_nNumPoints, x); }
int CSSE2dPolygon::ClosestPointY(float y) const { return closestOnEvenIndices(m_pY, m_nNumPoints, y); }
