#include "qzsse/contour/CPixelChain.h"

#include <cstring>

#include "qzsse/core/SafeAlloc.h"

namespace qzsse::detail {
namespace {

pixel* allocatePixelBuffer()
{
    return static_cast<pixel*>(SafeAlignedAlloc(sizeof(pixel) * CPixelChain::c_iBufferPoints, 16));
}

// Mean of integer coordinates as the chain defines it: the sum stays an integer (64-bit so
// that no chain can overflow it), the division is done in float.
float meanOf(long long sum, int count)
{
    return static_cast<float>(sum) / static_cast<float>(count);
}

// The filters compare with < so that the result is one of the three inputs exactly.
float min3(float a, float b, float c)
{
    float m = a;
    if (b < m)
        m = b;
    if (c < m)
        m = c;
    return m;
}

float max3(float a, float b, float c)
{
    float m = a;
    if (b > m)
        m = b;
    if (c > m)
        m = c;
    return m;
}

template <class Combine>
void filterClosedChain(pixel* p, int count, Combine combine)
{
    if (count <= 0)
        return;
    // The temporary keeps every output computed from the values before the filter.
    float* out = static_cast<float*>(SafeAlignedAlloc(sizeof(float) * static_cast<size_t>(count), 16));
    for (int i = 0; i < count; ++i) {
        const int prev = (i == 0) ? count - 1 : i - 1;
        const int next = (i == count - 1) ? 0 : i + 1;
        out[i] = combine(p[prev].value, p[i].value, p[next].value);
    }
    for (int i = 0; i < count; ++i)
        p[i].value = out[i];
    SafeAlignedFree(out);
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

CPixelChain::CPixelChain() : m_pPixels(allocatePixelBuffer()) {}

CPixelChain::CPixelChain(const CPixelChain& other)
    : m_pPixels(allocatePixelBuffer()),
      m_iCount(other.m_iCount),
      m_iCenterX(other.m_iCenterX),
      m_iCenterY(other.m_iCenterY),
      m_fCenterXprecis(other.m_fCenterXprecis),
      m_fCenterYprecis(other.m_fCenterYprecis)
{
    std::memcpy(m_pPixels, other.m_pPixels, sizeof(pixel) * static_cast<size_t>(m_iCount));
}

CPixelChain& CPixelChain::operator=(const CPixelChain& other)
{
    if (this != &other) {
        m_iCount = other.m_iCount;
        m_iCenterX = other.m_iCenterX;
        m_iCenterY = other.m_iCenterY;
        m_fCenterXprecis = other.m_fCenterXprecis;
        m_fCenterYprecis = other.m_fCenterYprecis;
        std::memcpy(m_pPixels, other.m_pPixels, sizeof(pixel) * static_cast<size_t>(m_iCount));
    }
    return *this;
}

CPixelChain::~CPixelChain() { SafeAlignedFree(m_pPixels); }

void CPixelChain::AddPoint(long x, long y, float value)
{
    if (m_iCount >= c_iMaxPoints)
        return;
    pixel& p = m_pPixels[m_iCount++];
    p.x = static_cast<int>(x);
    p.y = static_cast<int>(y);
    p.value = value;
}

bool CPixelChain::GetPixel(int index, int& x, int& y) const
{
    if (index < 0 || index >= m_iCount)
        return false;
    x = m_pPixels[index].x;
    y = m_pPixels[index].y;
    return true;
}

void CPixelChain::OffsetChain(float delta)
{
    for (int i = 0; i < m_iCount; ++i)
        m_pPixels[i].value += delta;
}

void CPixelChain::CalculateGeomCenter_norm()
{
    if (m_iCount <= 0) {
        m_iCenterX = 0;
        m_iCenterY = 0;
        return;
    }
    long long sumX = 0;
    long long sumY = 0;
    for (int i = 0; i < m_iCount; ++i) {
        sumX += m_pPixels[i].x;
        sumY += m_pPixels[i].y;
    }
    m_iCenterX = static_cast<int>(meanOf(sumX, m_iCount) + 0.5f);
    m_iCenterY = static_cast<int>(meanOf(sumY, m_iCount) + 0.5f);
}

void CPixelChain::CalculateGeomCenter_norm(long* centerX, long* centerY)
{
    CalculateGeomCenter_norm();
    if (centerX)
        *centerX = m_iCenterX;
    if (centerY)
        *centerY = m_iCenterY;
}

void CPixelChain::CalculateGeomCenter_precis()
{
    if (m_iCount <= 0) {
        m_fCenterXprecis = 0.0f;
        m_fCenterYprecis = 0.0f;
        return;
    }
    long long sumX = 0;
    long long sumY = 0;
    for (int i = 0; i < m_iCount; ++i) {
        sumX += m_pPixels[i].x;
        sumY += m_pPixels[i].y;
    }
    m_fCenterXprecis = meanOf(sumX, m_iCount);
    m_fCenterYprecis = meanOf(sumY, m_iCount);
}

void CPixelChain::CalculateGeomCenter_precis(float* centerX, float* centerY)
{
    CalculateGeomCenter_precis();
    if (centerX)
        *centerX = m_fCenterXprecis;
    if (centerY)
        *centerY = m_fCenterYprecis;
}

void CPixelChain::CalcBoundingBox(int& minX, int& minY, int& maxX, int& maxY) const
{
    minX = minY = 1000000;
    maxX = maxY = -1000000;
    if (m_iCount <= 0)
        return;
    minX = maxX = m_pPixels[0].x;
    minY = maxY = m_pPixels[0].y;
    for (int i = 1; i < m_iCount; ++i) {
        const pixel& p = m_pPixels[i];
        if (p.x < minX)
            minX = p.x;
        if (p.x > maxX)
            maxX = p.x;
        if (p.y < minY)
            minY = p.y;
        if (p.y > maxY)
            maxY = p.y;
    }
}

int CPixelChain::GetminX() const
{
    int minX, minY, maxX, maxY;
    CalcBoundingBox(minX, minY, maxX, maxY);
    return minX;
}

int CPixelChain::GetmaxX() const
{
    int minX, minY, maxX, maxY;
    CalcBoundingBox(minX, minY, maxX, maxY);
    return maxX;
}

int CPixelChain::GetminY() const
{
    int minX, minY, maxX, maxY;
    CalcBoundingBox(minX, minY, maxX, maxY);
    return minY;
}

int CPixelChain::GetmaxY() const
{
    int minX, minY, maxX, maxY;
    CalcBoundingBox(minX, minY, maxX, maxY);
    return maxY;
}

float CPixelChain::GetMinBorderValue() const
{
    if (m_iCount <= 0)
        return 1000000.0f;
    float m = m_pPixels[0].value;
    for (int i = 1; i < m_iCount; ++i)
        if (m_pPixels[i].value < m)
            m = m_pPixels[i].value;
    return m;
}

float CPixelChain::GetMaxBorderValue() const
{
    if (m_iCount <= 0)
        return -1000000.0f;
    float m = m_pPixels[0].value;
    for (int i = 1; i < m_iCount; ++i)
        if (m_pPixels[i].value > m)
            m = m_pPixels[i].value;
    return m;
}

void CPixelChain::MinimumFilterChain() { filterClosedChain(m_pPixels, m_iCount, min3); }

void CPixelChain::MaximumFilterChain() { filterClosedChain(m_pPixels, m_iCount, max3); }
