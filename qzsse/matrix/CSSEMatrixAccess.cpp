#include "qzsse/matrix/CSSEMatrix.h"

#include <cstddef>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/core/detail/ClampInto.h"

namespace qzsse::detail {
namespace {

inline float clampUnit(float v)
{
    if (v < 0.0f)
        v = 0.0f;
    if (v > 1.0f)
        v = 1.0f;
    return v;
}

// Written so that a NaN v always lands in the pixel and a NaN pixel is always replaced.
inline float minInto(float old, float v) { return (v > old) ? old : v; }
inline float maxInto(float old, float v) { return (old > v) ? old : v; }

struct StoreOp {
    static float apply(float, float v) { return v; }
};
struct MinOp {
    static float apply(float old, float v) { return minInto(old, v); }
};
struct MaxOp {
    static float apply(float old, float v) { return maxInto(old, v); }
};

inline float* pixelAddress(__m128** data, int x, int y)
{
    return reinterpret_cast<float*>(data[y >> 2]) + (x << 2) + (y & 3);
}

// Applies Op to the (2r+1) x (2r+1) box around a centre that the caller already moved
// inwards, row by row so that each band pointer is looked up once per row.
template <class Op>
inline void applyBox(__m128** data, int cx, int cy, int r, float v)
{
    for (int y = cy - r; y <= cy + r; ++y) {
        float* row = reinterpret_cast<float*>(data[y >> 2]) + (y & 3);
        for (int x = cx - r; x <= cx + r; ++x) {
            float& p = row[x << 2];
            p = Op::apply(p, v);
        }
    }
}

template <class Op>
inline void applyCross(__m128** data, int cx, int cy, float v)
{
    float* c = pixelAddress(data, cx, cy);
    *c = Op::apply(*c, v);
    float* l = pixelAddress(data, cx - 1, cy);
    *l = Op::apply(*l, v);
    float* r = pixelAddress(data, cx + 1, cy);
    *r = Op::apply(*r, v);
    float* u = pixelAddress(data, cx, cy - 1);
    *u = Op::apply(*u, v);
    float* d = pixelAddress(data, cx, cy + 1);
    *d = Op::apply(*d, v);
}

// Float to int towards zero without undefined behaviour: NaN and values outside the int
// range give INT_MIN, as the hardware conversion does, and are then clamped like any
// other far-away coordinate.
inline int truncToInt(float v)
{
    return _mm_cvttss_si32(_mm_set_ss(v));
}

} // namespace
} // namespace qzsse::detail

using qzsse::detail::clampInto;

float CSSEMatrix::GetPoint(int x, int y) const
{
    x = clampInto(x, 0, m_SizeX - 1);
    y = clampInto(y, 0, m_SizeY - 1);
    return GetPointUnsafe(x, y);
}

void CSSEMatrix::SetPoint(int x, int y, float v)
{
    x = clampInto(x, 0, m_SizeX - 1);
    y = clampInto(y, 0, m_SizeY - 1);
    SetPointUnsafe(x, y, v);
}

float* CSSEMatrix::GetPointAddress(int x, int y)
{
    x = clampInto(x, 0, m_SizeX - 1);
    y = clampInto(y, 0, m_SizeY - 1);
    return GetPointAddressUnsafe(x, y);
}

void CSSEMatrix::SetPointMin(int x, int y, float v)
{
    float* p = GetPointAddress(x, y);
    *p = qzsse::detail::minInto(*p, v);
}

void CSSEMatrix::SetPointMax(int x, int y, float v)
{
    float* p = GetPointAddress(x, y);
    *p = qzsse::detail::maxInto(*p, v);
}

void CSSEMatrix::SetPointAndRightOfPoint(int x, int y, float v)
{
    x = clampInto(x, 0, m_SizeX - 2);
    y = clampInto(y, 0, m_SizeY - 1);
    float* p = GetPointAddressUnsafe(x, y);
    p[0] = v;
    p[4] = v;
}

void CSSEMatrix::SetPointAndLeftOfPoint(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 1);
    y = clampInto(y, 0, m_SizeY - 1);
    float* p = GetPointAddressUnsafe(x, y);
    p[-4] = v;
    p[0] = v;
}

void CSSEMatrix::SetTriplePointMin(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 0, m_SizeY - 1);
    float* p = GetPointAddressUnsafe(x, y);
    p[-4] = qzsse::detail::minInto(p[-4], v);
    p[0] = qzsse::detail::minInto(p[0], v);
    p[4] = qzsse::detail::minInto(p[4], v);
}

void CSSEMatrix::SetTriplePointMax(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 0, m_SizeY - 1);
    float* p = GetPointAddressUnsafe(x, y);
    p[-4] = qzsse::detail::maxInto(p[-4], v);
    p[0] = qzsse::detail::maxInto(p[0], v);
    p[4] = qzsse::detail::maxInto(p[4], v);
}

void CSSEMatrix::SetCross(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 1, m_SizeY - 2);
    qzsse::detail::applyCross<qzsse::detail::StoreOp>(m_Data, x, y, v);
}

void CSSEMatrix::SetCrossMin(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 1, m_SizeY - 2);
    qzsse::detail::applyCross<qzsse::detail::MinOp>(m_Data, x, y, v);
}

void CSSEMatrix::SetCrossMax(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 1, m_SizeY - 2);
    qzsse::detail::applyCross<qzsse::detail::MaxOp>(m_Data, x, y, v);
}

void CSSEMatrix::Set3x3BoxPoint(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 1, m_SizeY - 2);
    qzsse::detail::applyBox<qzsse::detail::StoreOp>(m_Data, x, y, 1, v);
}

void CSSEMatrix::Set3x3BoxPointMin(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 1, m_SizeY - 2);
    qzsse::detail::applyBox<qzsse::detail::MinOp>(m_Data, x, y, 1, v);
}

void CSSEMatrix::Set3x3BoxPointMax(int x, int y, float v)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 1, m_SizeY - 2);
    qzsse::detail::applyBox<qzsse::detail::MaxOp>(m_Data, x, y, 1, v);
}

void CSSEMatrix::Set5x5BoxPointMin(int x, int y, float v)
{
    x = clampInto(x, 2, m_SizeX - 3);
    y = clampInto(y, 2, m_SizeY - 3);
    qzsse::detail::applyBox<qzsse::detail::MinOp>(m_Data, x, y, 2, v);
}

void CSSEMatrix::Set5x5BoxPointMax(int x, int y, float v)
{
    x = clampInto(x, 2, m_SizeX - 3);
    y = clampInto(y, 2, m_SizeY - 3);
    qzsse::detail::applyBox<qzsse::detail::MaxOp>(m_Data, x, y, 2, v);
}

void CSSEMatrix::Set11x11BoxPointMax(int x, int y, float v)
{
    x = clampInto(x, 5, m_SizeX - 6);
    y = clampInto(y, 5, m_SizeY - 6);
    qzsse::detail::applyBox<qzsse::detail::MaxOp>(m_Data, x, y, 5, v);
}

// The maximum is taken in the order centre, left, right, above, below, each step keeping
// the running value only when it is strictly larger, so a NaN neighbour wins its step.
float CSSEMatrix::GetPointMax3x3(int x, int y)
{
    x = clampInto(x, 1, m_SizeX - 2);
    y = clampInto(y, 1, m_SizeY - 2);
    float m = GetPointUnsafe(x, y);
    m = qzsse::detail::maxInto(m, GetPointUnsafe(x - 1, y));
    m = qzsse::detail::maxInto(m, GetPointUnsafe(x + 1, y));
    m = qzsse::detail::maxInto(m, GetPointUnsafe(x, y - 1));
    m = qzsse::detail::maxInto(m, GetPointUnsafe(x, y + 1));
    return m;
}

// The integer corner is kept one pixel inside the image so that both neighbours it reads
// exist; the fractions are clamped instead, which is what pins the outer ring to its inner
// neighbours.
float CSSEMatrix::GetPixelPreciseFloat(float x, float y, bool /*unused*/) const
{
    const int ix = clampInto(qzsse::detail::truncToInt(x), 1, m_SizeX - 2);
    const int iy = clampInto(qzsse::detail::truncToInt(y), 1, m_SizeY - 2);
    const float fx = qzsse::detail::clampUnit(x - static_cast<float>(ix));
    const float fy = qzsse::detail::clampUnit(y - static_cast<float>(iy));
    const float gx = 1.0f - fx;
    const float gy = 1.0f - fy;
    return gy * gx * GetPointUnsafe(ix, iy) + gy * fx * GetPointUnsafe(ix + 1, iy)
         + fy * gx * GetPointUnsafe(ix, iy + 1) + fy * fx * GetPointUnsafe(ix + 1, iy + 1);
}

// Finishes r's band row by row, then stamps whole vectors of row r into every later band,
// padding rows included, so the bulk of the work is aligned vector stores.
void CSSEMatrix::FillMatrixWithProcessedRow()
{
    if (m_SizeX < 1 || m_SizeY < 1)
        return;

    const int r = clampInto(m_RowProcessed, 0, m_SizeY - 1);
    const int e = (r & ~3) + 4;

    auto* rowVectors = static_cast<__m128*>(
        SafeAlignedAlloc(static_cast<size_t>(m_SizeX) * sizeof(__m128), 16));

    const float* source = GetPointAddressUnsafe(0, r);
    for (int x = 0; x < m_SizeX; ++x)
        rowVectors[x] = _mm_set1_ps(source[x << 2]);

    for (int y = r + 1; y < e; ++y) {
        const float* from = GetPointAddressUnsafe(0, clampInto(y - 1, 0, m_SizeY - 1));
        float* to = GetPointAddressUnsafe(0, clampInto(y, 0, m_SizeY - 1));
        for (int x = 0; x < m_SizeX; ++x)
            to[x << 2] = from[x << 2];
    }

    for (int band = e >> 2; band < m_SSESizeY; ++band) {
        __m128* dst = m_Data[band];
        for (int x = 0; x < m_SSESizeX; ++x)
            dst[x] = rowVectors[x];
    }

    SafeAlignedFree(rowVectors);
}
