#include "qzsse/mesh/CHTriangulation.h"

#include <cmath>
#include <cstring>
#include <emmintrin.h>

#include "qzsse/core/SafeAlloc.h"

namespace {

SSEPoint* allocPoints(long long count)
{
    // A zero-size aligned request still gets a block, so an empty mesh has valid arrays.
    return static_cast<SSEPoint*>(SafeAlignedAlloc(static_cast<unsigned long long>(count) * sizeof(SSEPoint), 16));
}

template <class T>
void releaseAligned(T*& p)
{
    SafeAlignedFree(p);
    p = nullptr;
}

} // namespace

// The fields are nulled even here (the described object leaves them unset) so that a
// default-constructed mesh can be destroyed safely.
CHTriangulation::CHTriangulation()
    : m_pEdgeArray(nullptr), m_pNormalArray(nullptr), m_pMainNormalArray(nullptr), m_pTArray(nullptr),
      m_pSArray(nullptr), m_pVArray(nullptr), m_pTriangles(nullptr), m_iNumTriangles(0), m_pTriangleList(nullptr),
      m_fScaleX(0), m_fScaleY(0), m_fScaleZ(0), m_fScanConvResX(0), m_fScanConvResY(0), m_fScanConvResZ(0),
      m_pMinPoint(nullptr), m_pMaxPoint(nullptr), m_pCenterPoint(nullptr), m_pMaxPointArray(nullptr),
      m_pUpperPointArray(nullptr), m_fScanConvDiagonal(0), m_pStretchList(nullptr)
{
}

CHTriangulation::CHTriangulation(CHTriangulation* source) : CHTriangulation()
{
    BaseInitialization(source->m_fScaleX, source->m_fScaleY, source->m_fScaleZ);
    CopyFromHTriangulation(source);
}

CHTriangulation::CHTriangulation(int n, float scaleX, float scaleY, float scaleZ) : CHTriangulation()
{
    BaseInitialization(scaleX, scaleY, scaleZ);
    CreateTriangulation(n);
}

CHTriangulation::~CHTriangulation()
{
    FreeTriangulation();
    releaseAligned(m_pMinPoint);
    m_pMaxPoint = m_pCenterPoint = nullptr;
}

void CHTriangulation::BaseInitialization(float scaleX, float scaleY, float scaleZ)
{
    m_pEdgeArray = m_pNormalArray = m_pMainNormalArray = nullptr;
    m_pTArray = m_pSArray = m_pVArray = nullptr;
    m_pMaxPointArray = m_pUpperPointArray = nullptr;
    m_pTriangles = nullptr;
    m_iNumTriangles = 0;
    m_pTriangleList = nullptr;
    m_pStretchList = nullptr;
    m_fScaleX = m_fScanConvResX = scaleX;
    m_fScaleY = m_fScanConvResY = scaleY;
    m_fScaleZ = m_fScanConvResZ = scaleZ;
    m_fScanConvDiagonal = std::sqrt(scaleX * scaleX + scaleY * scaleY);
    // A second initialisation must not leak the block of the first.
    SafeAlignedFree(m_pMinPoint);
    m_pMinPoint = allocPoints(3);
    std::memset(static_cast<void*>(m_pMinPoint), 0, 3 * sizeof(SSEPoint));
    m_pMaxPoint = m_pMinPoint + 1;
    m_pCenterPoint = m_pMinPoint + 2;
}

void CHTriangulation::FreeTriangulation()
{
    releaseAligned(m_pEdgeArray);
    releaseAligned(m_pNormalArray);
    releaseAligned(m_pMainNormalArray);
    releaseAligned(m_pTArray);
    releaseAligned(m_pSArray);
    releaseAligned(m_pVArray);
    releaseAligned(m_pMaxPointArray);
    releaseAligned(m_pUpperPointArray);
    SafeFree(m_pTriangles);
    m_pTriangles = nullptr;
    m_pTriangleList = nullptr;
    m_iNumTriangles = 0;
}

void CHTriangulation::CreateTriangulation(int n)
{
    FreeTriangulation();
    if (n < 0)
        n = 0;
    const long long count = n;
    m_pTriangles = static_cast<t_htriangle*>(SafeMalloc(static_cast<unsigned long long>(count) * sizeof(t_htriangle)));
    m_pEdgeArray = allocPoints(3 * count);
    m_pNormalArray = allocPoints(3 * count);
    m_pMainNormalArray = allocPoints(count);
    m_pTArray = allocPoints(count);
    m_pSArray = allocPoints(count);
    m_pVArray = allocPoints(count);
    m_pMaxPointArray = allocPoints(count);
    m_pUpperPointArray = allocPoints(count);
    m_iNumTriangles = n;

    const __m128 zero = _mm_setzero_ps();
    for (int i = 0; i < n; ++i) {
        t_htriangle& t = m_pTriangles[i];
        t.iIndex = i;
        t.iTag = -1;
        for (int k = 0; k < 3; ++k) {
            t.pPoint[k] = &m_pEdgeArray[3 * i + k];
            t.pNormal[k] = &m_pNormalArray[3 * i + k];
            t.pPoint[k]->m = zero;
            t.pNormal[k]->m = zero;
            t.pNeighbour[k] = nullptr;
        }
        t.pT = &m_pTArray[i];
        t.pS = &m_pSArray[i];
        t.pV = &m_pVArray[i];
        t.pMainNormal = &m_pMainNormalArray[i];
        t.pMinPoint = &m_pMaxPointArray[i];
        t.pMaxPoint = &m_pUpperPointArray[i];
        t.pT->m = t.pS->m = t.pV->m = t.pMainNormal->m = zero;
        // The per-triangle bounds are only valid after CalcSTV, but must not be garbage.
        t.pMinPoint->m = t.pMaxPoint->m = zero;
        t.pNext = t.pPrev = nullptr;
    }
}

void CHTriangulation::CopyFromHTriangulation(CHTriangulation* source)
{
    if (source == this)
        return;
    CreateTriangulation(source->m_iNumTriangles);
    const long long n = m_iNumTriangles;
    if (n > 0) {
        std::memcpy(static_cast<void*>(m_pEdgeArray), source->m_pEdgeArray, 3 * n * sizeof(SSEPoint));
        std::memcpy(static_cast<void*>(m_pNormalArray), source->m_pNormalArray, 3 * n * sizeof(SSEPoint));
        std::memcpy(static_cast<void*>(m_pMainNormalArray), source->m_pMainNormalArray, n * sizeof(SSEPoint));
        std::memcpy(static_cast<void*>(m_pTArray), source->m_pTArray, n * sizeof(SSEPoint));
        std::memcpy(static_cast<void*>(m_pSArray), source->m_pSArray, n * sizeof(SSEPoint));
        std::memcpy(static_cast<void*>(m_pVArray), source->m_pVArray, n * sizeof(SSEPoint));
        std::memcpy(static_cast<void*>(m_pMaxPointArray), source->m_pMaxPointArray, n * sizeof(SSEPoint));
        std::memcpy(static_cast<void*>(m_pUpperPointArray), source->m_pUpperPointArray, n * sizeof(SSEPoint));
    }
    // Links into the source's records are re-pointed at the copy's records of the same index.
    auto remap = [&](const t_htriangle* p) -> t_htriangle* {
        return p ? m_pTriangles + (p - source->m_pTriangles) : nullptr;
    };
    for (long long i = 0; i < n; ++i) {
        const t_htriangle& s = source->m_pTriangles[i];
        t_htriangle& d = m_pTriangles[i];
        for (int k = 0; k < 3; ++k)
            d.pNeighbour[k] = remap(s.pNeighbour[k]);
        d.pNext = remap(s.pNext);
        d.pPrev = remap(s.pPrev);
        d.iTag = s.iTag;
    }
    m_pTriangleList = remap(source->m_pTriangleList);
    m_fScaleX = source->m_fScaleX;
    m_fScaleY = source->m_fScaleY;
    m_fScaleZ = source->m_fScaleZ;
    SetScanConvResolution(source->m_fScanConvResX, source->m_fScanConvResY, source->m_fScanConvResZ);
    for (int k = 0; k < 3; ++k)
        m_pMinPoint[k] = source->m_pMinPoint[k];
}

t_htriangle* CHTriangulation::GetTriangle(int i) const
{
    if (i < 0 || i >= m_iNumTriangles)
        return nullptr;
    return &m_pTriangles[i];
}

void CHTriangulation::SetScanConvResolution(float resX, float resY, float resZ)
{
    m_fScanConvResX = resX;
    m_fScanConvResY = resY;
    m_fScanConvResZ = resZ;
    m_fScanConvDiagonal = std::sqrt(resX * resX + resY * resY);
}

void CHTriangulation::CalcBoundingBox()
{
    __m128 lo = _mm_set1_ps(1000000.0f);
    __m128 hi = _mm_set1_ps(-1000000.0f);
    const long long corners = 3LL * m_iNumTriangles;
    for (long long i = 0; i < corners; ++i) {
        lo = _mm_min_ps(lo, m_pEdgeArray[i].m);
        hi = _mm_max_ps(hi, m_pEdgeArray[i].m);
    }
    m_pMinPoint->m = lo;
    m_pMaxPoint->m = hi;
}

void CHTriangulation::CalcSTV()
{
    for (int i = 0; i < m_iNumTriangles; ++i) {
        const __m128 c0 = m_pEdgeArray[3 * i].m;
        const __m128 c1 = m_pEdgeArray[3 * i + 1].m;
        const __m128 c2 = m_pEdgeArray[3 * i + 2].m;
        m_pSArray[i].m = _mm_sub_ps(c1, c0);
        m_pTArray[i].m = _mm_sub_ps(c2, c0);
        m_pVArray[i].m = _mm_sub_ps(c2, c1);
        m_pMaxPointArray[i].m = _mm_min_ps(_mm_min_ps(c0, c1), c2);
        m_pUpperPointArray[i].m = _mm_max_ps(_mm_max_ps(c0, c1), c2);
    }
}

void CHTriangulation::CalcCenterPoint()
{
    __m128 sum = _mm_setzero_ps();
    const long long corners = 3LL * m_iNumTriangles;
    for (long long i = 0; i < corners; ++i)
        sum = _mm_add_ps(sum, m_pEdgeArray[i].m);
    m_pCenterPoint->m = _mm_div_ps(sum, _mm_set1_ps(static_cast<float>(corners)));
}
