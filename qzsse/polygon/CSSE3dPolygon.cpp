#include "qzsse/polygon/CSSE3dPolygon.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <xmmintrin.h>

#include "qzsse/base/RbVector3f.h"
#include "qzsse/base/RyHermiteSpline.h"
#include "qzsse/base/RyPolyLineOld.h"
#include "qzsse/contour/CPixelChain.h"
#include "qzsse/core/SafeAlloc.h"
#include "qzsse/polygon/detail/PolygonSums.h"

namespace {

constexpr float c_fBoxSeed = 1000000.0f;
constexpr float c_fClosingDistanceSquared = 1.1920929e-7f;

// Padded length of each coordinate array: n rounded up to a multiple of four.
size_t paddedSlots(int n)
{
    const long long slots = ((static_cast<long long>(n) + 3) / 4) * 4;
    return slots > 0 ? static_cast<size_t>(slots) : 0;
}

} // namespace

// --- records -------------------------------------------------------------------------------

void CSSE3dPolygon::allocateRecords()
{
    auto* block = static_cast<SSEPoint*>(SafeAlignedAlloc(5 * sizeof(SSEPoint), 16));
    for (int k = 0; k < 5; ++k)
        block[k].m = _mm_setzero_ps();
    m_pTopRight = block;
    m_pBottomLeft = block + 1;
    m_pTopRight2D = block + 2;
    m_pBottomLeft2D = block + 3;
    m_pGeometricCenter = block + 4;
}

void CSSE3dPolygon::releaseRecords()
{
    SafeAlignedFree(m_pTopRight);
    m_pTopRight = m_pBottomLeft = m_pTopRight2D = m_pBottomLeft2D = m_pGeometricCenter = nullptr;
}

// --- construction --------------------------------------------------------------------------

CSSE3dPolygon::CSSE3dPolygon() { allocateRecords(); }

CSSE3dPolygon::CSSE3dPolygon(const CSSE3dPolygon& other) : RbReferenceCounted()
{
    allocateRecords();
    for (int k = 0; k < 5; ++k)
        m_pTopRight[k] = other.m_pTopRight[k];
    m_bBoundingBoxCalculated = other.m_bBoundingBoxCalculated;
    Create(other.m_nNumPoints);
    const size_t bytes = paddedSlots(m_nNumPoints) * sizeof(float);
    if (bytes != 0) {
        std::memcpy(m_pX, other.m_pX, bytes);
        std::memcpy(m_pY, other.m_pY, bytes);
        std::memcpy(m_pZ, other.m_pZ, bytes);
        std::memcpy(m_pXNorm, other.m_pXNorm, bytes);
        std::memcpy(m_pYNorm, other.m_pYNorm, bytes);
        std::memcpy(m_pZNorm, other.m_pZNorm, bytes);
    }
}

CSSE3dPolygon::CSSE3dPolygon(CPixelChain& chain, int step)
{
    allocateRecords();
    const int m = chain.GetCount();
    if (m <= 0)
        return;
    const pixel* pixels = chain.GetPixelData();
    if (step > 1) {
        const int k = m / step;
        if (k <= 0)
            return;
        Create(k);
        for (int j = 0; j < k; ++j) {
            const pixel& p = pixels[j * step];
            SetPoint(j, static_cast<float>(p.x), static_cast<float>(p.y), 0.0f);
        }
    } else {
        Create(m);
        for (int j = 0; j < m; ++j)
            SetPoint(j, static_cast<float>(pixels[j].x), static_cast<float>(pixels[j].y), 0.0f);
    }
}

CSSE3dPolygon::CSSE3dPolygon(const RyPolyLineOld* line, float step, bool reParametrize,
                             bool orientCounterClockwise)
{
    allocateRecords();
    CreateFromPolyLine(line, step, reParametrize, orientCounterClockwise);
}

CSSE3dPolygon::CSSE3dPolygon(RyHermiteSpline* spline, float step, bool reParametrize,
                             bool orientCounterClockwise)
{
    allocateRecords();
    if (spline == nullptr)
        return;
    spline->SubdivideByLength();
    RbSmartPtr<RyPolyLineOld> line = spline->GetSubdivision();
    CreateFromPolyLine(line.Get(), step, reParametrize, orientCounterClockwise);
}

CSSE3dPolygon::~CSSE3dPolygon()
{
    Free();
    releaseDetachedArrays();
    releaseRecords();
}

CSSE3dPolygon& CSSE3dPolygon::operator=(const CSSE3dPolygon& other)
{
    if (this == &other)
        return *this;
    releaseRecords();
    allocateRecords();
    for (int k = 0; k < 5; ++k)
        m_pTopRight[k] = other.m_pTopRight[k];
    m_bBoundingBoxCalculated = other.m_bBoundingBoxCalculated;
    // n first, then Create: its Free then sees the source's count, and the point writes
    // leave the flag false whatever the source's was.
    m_nNumPoints = other.m_nNumPoints;
    Create(m_nNumPoints);
    const size_t bytes = paddedSlots(m_nNumPoints) * sizeof(float);
    if (bytes != 0) {
        std::memcpy(m_pX, other.m_pX, bytes);
        std::memcpy(m_pY, other.m_pY, bytes);
        std::memcpy(m_pZ, other.m_pZ, bytes);
        std::memcpy(m_pXNorm, other.m_pXNorm, bytes);
        std::memcpy(m_pYNorm, other.m_pYNorm, bytes);
        std::memcpy(m_pZNorm, other.m_pZNorm, bytes);
    }
    m_bBoundingBoxCalculated = false;
    return *this;
}

// --- storage -------------------------------------------------------------------------------

// Free skips a polygon whose count is below 1 even if arrays are attached (an assignment
// from an empty polygon leaves them so); they are released here instead of being lost.
void CSSE3dPolygon::releaseDetachedArrays()
{
    float** arrays[6] = {&m_pX, &m_pY, &m_pZ, &m_pXNorm, &m_pYNorm, &m_pZNorm};
    for (float** a : arrays) {
        SafeAlignedFree(*a);
        *a = nullptr;
    }
}

void CSSE3dPolygon::Create(int n)
{
    Free();
    releaseDetachedArrays();
    if (n != 0) {
        const size_t bytes = paddedSlots(n) * sizeof(float);
        float** arrays[6] = {&m_pX, &m_pY, &m_pZ, &m_pXNorm, &m_pYNorm, &m_pZNorm};
        try {
            for (float** a : arrays) {
                *a = static_cast<float*>(SafeAlignedAlloc(bytes, 16));
                // Zeroed so that padding lanes and unwritten points never carry garbage
                // into SSE code or into a written file.
                std::memset(*a, 0, bytes);
            }
        } catch (...) {
            releaseDetachedArrays();
            m_nNumPoints = 0;
            m_bBoundingBoxCalculated = false;
            throw;
        }
    }
    m_nNumPoints = n;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::Free()
{
    if (m_nNumPoints < 1)
        return;
    releaseDetachedArrays();
    m_nNumPoints = 0;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::CreateSimilar(const CSSE3dPolygon* other)
{
    if (other == this)
        return;
    Create(other->m_nNumPoints);
    const size_t bytes = paddedSlots(m_nNumPoints) * sizeof(float);
    if (bytes != 0) {
        std::memcpy(m_pX, other->m_pX, bytes);
        std::memcpy(m_pY, other->m_pY, bytes);
        std::memcpy(m_pZ, other->m_pZ, bytes);
    }
    for (int k = 0; k < 5; ++k)
        m_pTopRight[k] = other->m_pTopRight[k];
    m_bBoundingBoxCalculated = other->m_bBoundingBoxCalculated;
}

// --- point access --------------------------------------------------------------------------

void CSSE3dPolygon::SetPoint(int i, float x, float y, float z)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pX[i] = x;
    m_pY[i] = y;
    m_pZ[i] = z;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::GetPoint(int i, float& x, float& y, float& z) const
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    x = m_pX[i];
    y = m_pY[i];
    z = m_pZ[i];
}

void CSSE3dPolygon::SetPointX(int i, float x)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pX[i] = x;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::SetPointY(int i, float y)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pY[i] = y;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::SetPointZ(int i, float z)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pZ[i] = z;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::SetPointXY(int i, float x, float y)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pX[i] = x;
    m_pY[i] = y;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::SetPointXZ(int i, float x, float z)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pX[i] = x;
    m_pZ[i] = z;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::SetPointZY(int i, float z, float y)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pZ[i] = z;
    m_pY[i] = y;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::GetPointX(int i, float& x) const
{
    if (i >= 0 && i < m_nNumPoints)
        x = m_pX[i];
}

void CSSE3dPolygon::GetPointY(int i, float& y) const
{
    if (i >= 0 && i < m_nNumPoints)
        y = m_pY[i];
}

void CSSE3dPolygon::GetPointZ(int i, float& z) const
{
    if (i >= 0 && i < m_nNumPoints)
        z = m_pZ[i];
}

void CSSE3dPolygon::GetPointXY(int i, float& x, float& y) const
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    x = m_pX[i];
    y = m_pY[i];
}

void CSSE3dPolygon::GetPointXZ(int i, float& x, float& z) const
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    x = m_pX[i];
    z = m_pZ[i];
}

void CSSE3dPolygon::GetPointZY(int i, float& z, float& y) const
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    z = m_pZ[i];
    y = m_pY[i];
}

void CSSE3dPolygon::SetPointSSE(int i, const SSEPoint& p)
{
    SetPoint(i, p.x, p.y, p.z);
}

void CSSE3dPolygon::GetPointSSE(int i, SSEPoint& p) const
{
    p.m = _mm_setzero_ps();
    if (i < 0 || i >= m_nNumPoints)
        return;
    p.m = _mm_setr_ps(m_pX[i], m_pY[i], m_pZ[i], 0.0f);
}

void CSSE3dPolygon::GetPointXYSSE(int i, SSEPoint& p) const
{
    p.m = _mm_setzero_ps();
    if (i < 0 || i >= m_nNumPoints)
        return;
    p.m = _mm_setr_ps(m_pX[i], m_pY[i], 0.0f, 0.0f);
}

void CSSE3dPolygon::GetPointSSEClosed(int i, SSEPoint& p) const
{
    if (m_nNumPoints < 1) {
        p.m = _mm_setzero_ps();
        return;
    }
    GetPointSSE(i % m_nNumPoints, p);
}

void CSSE3dPolygon::GetPointSSEModulo(int i, SSEPoint& p) const
{
    if (m_nNumPoints < 1) {
        p.m = _mm_setzero_ps();
        return;
    }
    int r = i % m_nNumPoints;
    if (r < 0)
        r += m_nNumPoints;
    GetPointSSE(r, p);
}

void CSSE3dPolygon::SetPointNormalized(int i, float x, float y, float z)
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    m_pXNorm[i] = x;
    m_pYNorm[i] = y;
    m_pZNorm[i] = z;
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::GetPointNormalized(int i, float& x, float& y, float& z) const
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    x = m_pXNorm[i];
    y = m_pYNorm[i];
    z = m_pZNorm[i];
}

void CSSE3dPolygon::GetPointNormalizedXY(int i, float& x, float& y) const
{
    if (i < 0 || i >= m_nNumPoints)
        return;
    x = m_pXNorm[i];
    y = m_pYNorm[i];
}

void CSSE3dPolygon::GetPointNormalizedSSE(int i, SSEPoint& p) const
{
    p.m = _mm_setzero_ps();
    if (i < 0 || i >= m_nNumPoints)
        return;
    p.m = _mm_setr_ps(m_pXNorm[i], m_pYNorm[i], m_pZNorm[i], 0.0f);
}

void CSSE3dPolygon::GetPointNormalizedXYSSE(int i, SSEPoint& p) const
{
    p.m = _mm_setzero_ps();
    if (i < 0 || i >= m_nNumPoints)
        return;
    p.m = _mm_setr_ps(m_pXNorm[i], m_pYNorm[i], 0.0f, 0.0f);
}

void CSSE3dPolygon::SetPointNormalizedSSE(int i, const SSEPoint& p)
{
    SetPointNormalized(i, p.x, p.y, p.z);
}

namespace {

void fillSlots(float* a, size_t slots, float value)
{
    const __m128 v = _mm_set1_ps(value);
    for (size_t k = 0; k < slots; k += 4)
        _mm_store_ps(a + k, v);
}

void addToSlots(float* a, size_t slots, float value)
{
    const __m128 v = _mm_set1_ps(value);
    for (size_t k = 0; k < slots; k += 4)
        _mm_store_ps(a + k, _mm_add_ps(_mm_load_ps(a + k), v));
}

} // namespace

void CSSE3dPolygon::SetAllXValues(float value)
{
    fillSlots(m_pX, paddedSlots(m_nNumPoints), value);
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::SetAllYValues(float value)
{
    fillSlots(m_pY, paddedSlots(m_nNumPoints), value);
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::SetAllZValues(float value)
{
    fillSlots(m_pZ, paddedSlots(m_nNumPoints), value);
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::AddValueToAllXValues(float value)
{
    addToSlots(m_pX, paddedSlots(m_nNumPoints), value);
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::AddValueToAllYValues(float value)
{
    addToSlots(m_pY, paddedSlots(m_nNumPoints), value);
    m_bBoundingBoxCalculated = false;
}

// --- derived quantities --------------------------------------------------------------------

// Four points are turned from the coordinate arrays into (x, y, z, 0) registers by one
// transpose and folded in index order, which is the per-point max/min of the definition.
void CSSE3dPolygon::CalcBoundingBox()
{
    __m128 hi = _mm_set1_ps(-c_fBoxSeed);
    __m128 lo = _mm_set1_ps(c_fBoxSeed);
    const int n = m_nNumPoints;
    for (int base = 0; base < n; base += 4) {
        __m128 p0 = _mm_load_ps(m_pX + base);
        __m128 p1 = _mm_load_ps(m_pY + base);
        __m128 p2 = _mm_load_ps(m_pZ + base);
        __m128 p3 = _mm_setzero_ps();
        _MM_TRANSPOSE4_PS(p0, p1, p2, p3);
        const __m128 points[4] = {p0, p1, p2, p3};
        const int count = n - base < 4 ? n - base : 4;
        for (int k = 0; k < count; ++k) {
            hi = _mm_max_ps(hi, points[k]);
            lo = _mm_min_ps(lo, points[k]);
        }
    }
    const __m128 keepXYZ = _mm_castsi128_ps(_mm_setr_epi32(-1, -1, -1, 0));
    const __m128 keepXY = _mm_castsi128_ps(_mm_setr_epi32(-1, -1, 0, 0));
    m_pTopRight->m = _mm_and_ps(hi, keepXYZ);
    m_pBottomLeft->m = _mm_and_ps(lo, keepXYZ);
    m_pTopRight2D->m = _mm_and_ps(hi, keepXY);
    m_pBottomLeft2D->m = _mm_and_ps(lo, keepXY);
    m_bBoundingBoxCalculated = true;
}

void CSSE3dPolygon::GetBoundingBox2D(int& minX, int& minY, int& maxX, int& maxY)
{
    if (!m_bBoundingBoxCalculated)
        CalcBoundingBox();
    const SSEPoint& a = *m_pBottomLeft;
    const SSEPoint& b = *m_pTopRight;
    minX = static_cast<int>(a.x < b.x ? a.x : b.x);
    minY = static_cast<int>(a.y < b.y ? a.y : b.y);
    maxX = static_cast<int>(a.x > b.x ? a.x : b.x);
    maxY = static_cast<int>(a.y > b.y ? a.y : b.y);
}

void CSSE3dPolygon::GetBoundingBox3D(float& minX, float& minY, float& minZ, float& maxX, float& maxY,
                                     float& maxZ)
{
    if (!m_bBoundingBoxCalculated)
        CalcBoundingBox();
    minX = m_pBottomLeft->x;
    minY = m_pBottomLeft->y;
    minZ = m_pBottomLeft->z;
    maxX = m_pTopRight->x;
    maxY = m_pTopRight->y;
    maxZ = m_pTopRight->z;
}

void CSSE3dPolygon::CalcGeometricCenter()
{
    const int n = m_nNumPoints;
    if (n < 1) {
        m_pGeometricCenter->m = _mm_setzero_ps();
        return;
    }
    const __m128 count = _mm_set1_ps(static_cast<float>(n));
    __m128 sum = _mm_setzero_ps();
    for (int base = 0; base < n; base += 4) {
        // Dividing four coordinates at once gives each point's own quotient.
        __m128 p0 = _mm_div_ps(_mm_load_ps(m_pX + base), count);
        __m128 p1 = _mm_div_ps(_mm_load_ps(m_pY + base), count);
        __m128 p2 = _mm_div_ps(_mm_load_ps(m_pZ + base), count);
        __m128 p3 = _mm_setzero_ps();
        _MM_TRANSPOSE4_PS(p0, p1, p2, p3);
        const __m128 points[4] = {p0, p1, p2, p3};
        const int used = n - base < 4 ? n - base : 4;
        for (int k = 0; k < used; ++k)
            sum = _mm_add_ps(sum, points[k]);
    }
    m_pGeometricCenter->m = sum;
}

float CSSE3dPolygon::CalcCircumference() const
{
    const int n = m_nNumPoints;
    if (n < 1)
        return 0.0f;
    const float open = qzsse::detail::SumOfEdgeLengths(m_pX, m_pY, m_pZ, n - 1);
    const float dx = m_pX[0] - m_pX[n - 1];
    const float dy = m_pY[0] - m_pY[n - 1];
    const float dz = m_pZ[0] - m_pZ[n - 1];
    return open + std::sqrt(dx * dx + dy * dy + dz * dz);
}

float CSSE3dPolygon::CalcCircumferenceOpen() const
{
    if (m_nNumPoints < 2)
        return 0.0f;
    return qzsse::detail::SumOfEdgeLengths(m_pX, m_pY, m_pZ, m_nNumPoints - 1);
}

float CSSE3dPolygon::CalcXYArea() const { return qzsse::detail::ShoelaceSum(m_pX, m_pY, m_nNumPoints); }
float CSSE3dPolygon::CalcXZArea() const { return qzsse::detail::ShoelaceSum(m_pX, m_pZ, m_nNumPoints); }
float CSSE3dPolygon::CalcYZArea() const { return qzsse::detail::ShoelaceSum(m_pY, m_pZ, m_nNumPoints); }

void CSSE3dPolygon::NormalizeXYZ(t_resolutiondata& resolution)
{
    const __m128 sx = _mm_set1_ps(resolution.fResolutionX);
    const __m128 sy = _mm_set1_ps(resolution.fResolutionY);
    const __m128 sz = _mm_set1_ps(resolution.fResolutionZ);
    const size_t slots = paddedSlots(m_nNumPoints);
    for (size_t k = 0; k < slots; k += 4) {
        _mm_store_ps(m_pXNorm + k, _mm_mul_ps(_mm_load_ps(m_pX + k), sx));
        _mm_store_ps(m_pYNorm + k, _mm_mul_ps(_mm_load_ps(m_pY + k), sy));
        _mm_store_ps(m_pZNorm + k, _mm_mul_ps(_mm_load_ps(m_pZ + k), sz));
    }
}

void CSSE3dPolygon::DebugSaveXYZ(CString path) const
{
    std::FILE* file = std::fopen(path.c_str(), "w");
    if (file == nullptr)
        return;
    for (int i = 0; i < m_nNumPoints; ++i)
        std::fprintf(file, "%.3f %.3f %.3f\n", static_cast<double>(m_pX[i]), static_cast<double>(m_pY[i]),
                     static_cast<double>(m_pZ[i]));
    std::fclose(file);
}

// --- conversion to and from the mesh library ----------------------------------------------

bool CSSE3dPolygon::IsPolyLineValid(const RyPolyLineOld* line)
{
    if (line == nullptr || line->GetNumVertices() < 2)
        return true;
    const RbVector3f& first = line->GetFirstVertex()->GetPosition();
    const RbVector3f& last = line->GetLastVertex()->GetPosition();
    const float dx = last.x - first.x;
    const float dy = last.y - first.y;
    const float dz = last.z - first.z;
    return dx * dx + dy * dy + dz * dz > c_fClosingDistanceSquared;
}

void CSSE3dPolygon::CreateFromPolyLine(const RyPolyLineOld* line, float step, bool reParametrize,
                                       bool orientCounterClockwise)
{
    // Start over as a fresh object would; the earlier storage is released rather than lost.
    Free();
    releaseDetachedArrays();
    releaseRecords();
    allocateRecords();
    m_nNumPoints = 0;
    m_bBoundingBoxCalculated = false;
    if (line == nullptr)
        return;

    int n = line->GetNumVertices();
    if (!IsPolyLineValid(line))
        n = n - 1;
    Create(n);

    const bool backwards = orientCounterClockwise
                           && line->CheckVertexList() == RyPolyLineOld::c_iVertexListConsistent
                           && line->ComputeArea(RbVector3f(0.0f, 0.0f, 1.0f)) <= 0.0f;
    const RyPolyLineOld::Vertex* v = backwards ? line->GetLastVertex() : line->GetFirstVertex();
    for (int i = 0; i < n && v != nullptr; ++i) {
        const RbVector3f& p = v->GetPosition();
        SetPoint(i, p.x, p.y, p.z);
        v = backwards ? v->GetPrevious() : v->GetNext();
    }

    if (reParametrize)
        ReParametrize(step);
}

RyPolyLineOld* CSSE3dPolygon::ConvertToPolyLine() const
{
    auto* line = new RyPolyLineOld();
    for (int i = 0; i < m_nNumPoints; ++i)
        line->AppendVertexTail(RbVector3f(m_pX[i], m_pY[i], m_pZ[i]));
    line->Finish();
    return line;
}
