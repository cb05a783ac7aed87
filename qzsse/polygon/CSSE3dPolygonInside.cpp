// Point-in-polygon forms of CSSE3dPolygon: the crossing-number test the fills rest on, its
// normalized and windowed variants, and the inside / outline / outside classification.

#include "qzsse/polygon/CSSE3dPolygon.h"

#include <emmintrin.h>

#include "qzsse/polygon/detail/PolygonCrossing.h"

namespace qzsse::detail {
namespace {

constexpr float c_fNormalizedBoxSeed = 1000000.0f;
constexpr float c_fCollinearTolerance = 0.0005f;

inline __m128 selectPs(__m128 mask, __m128 a, __m128 b)
{
    return _mm_or_ps(_mm_and_ps(mask, a), _mm_andnot_ps(mask, b));
}

// Lanes of the block starting at point `base` that hold real points.
inline __m128 realPointLanes(int base, int n)
{
    const __m128i index = _mm_add_epi32(_mm_set1_epi32(base), _mm_setr_epi32(0, 1, 2, 3));
    return _mm_castsi128_ps(_mm_cmplt_epi32(index, _mm_set1_epi32(n)));
}

inline float horizontalMin(__m128 v)
{
    v = _mm_min_ps(v, _mm_movehl_ps(v, v));
    v = _mm_min_ss(v, _mm_shuffle_ps(v, v, 1));
    return _mm_cvtss_f32(v);
}

inline float horizontalMax(__m128 v)
{
    v = _mm_max_ps(v, _mm_movehl_ps(v, v));
    v = _mm_max_ss(v, _mm_shuffle_ps(v, v, 1));
    return _mm_cvtss_f32(v);
}

// Box of the first n values of two padded arrays, four points per step; padding lanes are
// replaced by the seeds so that they cannot move the box.
void normalizedBox(const float* xs, const float* ys, int n, OutlineXY& o)
{
    const __m128 seedLo = _mm_set1_ps(c_fNormalizedBoxSeed);
    const __m128 seedHi = _mm_set1_ps(-c_fNormalizedBoxSeed);
    __m128 loX = seedLo, loY = seedLo, hiX = seedHi, hiY = seedHi;
    for (int base = 0; base < n; base += 4) {
        const __m128 real = realPointLanes(base, n);
        const __m128 vx = _mm_load_ps(xs + base);
        const __m128 vy = _mm_load_ps(ys + base);
        loX = _mm_min_ps(loX, selectPs(real, vx, seedLo));
        loY = _mm_min_ps(loY, selectPs(real, vy, seedLo));
        hiX = _mm_max_ps(hiX, selectPs(real, vx, seedHi));
        hiY = _mm_max_ps(hiY, selectPs(real, vy, seedHi));
    }
    o.minX = horizontalMin(loX);
    o.minY = horizontalMin(loY);
    o.maxX = horizontalMax(hiX);
    o.maxY = horizontalMax(hiY);
}

inline bool within(float v, float a, float b)
{
    return (a <= v && v <= b) || (b <= v && v <= a);
}

} // namespace
} // namespace qzsse::detail

using qzsse::detail::OutlineXY;

OutlineXY CSSE3dPolygon::rasterOutline()
{
    if (!m_bBoundingBoxCalculated)
        CalcBoundingBox();
    return {m_pX, m_pY, m_nNumPoints, m_pBottomLeft2D->x, m_pBottomLeft2D->y, m_pTopRight2D->x, m_pTopRight2D->y};
}

// The box test is one packed comparison against the cached 2-D corners, so points outside
// the box never reach the edge loop.
bool CSSE3dPolygon::PointInLineInnerArea(float x, float y, int step)
{
    if (m_nNumPoints < 3)
        return false;
    if (!m_bBoundingBoxCalculated)
        CalcBoundingBox();
    const __m128 p = _mm_setr_ps(x, y, 0.0f, 0.0f);
    const __m128 outside = _mm_or_ps(_mm_cmplt_ps(p, m_pBottomLeft2D->m), _mm_cmpgt_ps(p, m_pTopRight2D->m));
    if ((_mm_movemask_ps(outside) & 3) != 0)
        return false;
    return qzsse::detail::crossingParity(m_pX, m_pY, m_nNumPoints, step, x, y);
}

bool CSSE3dPolygon::PointInLineInnerArea(const SSEPoint& p, int step)
{
    return PointInLineInnerArea(p.x, p.y, step);
}

bool CSSE3dPolygon::PointInLineInnerAreaNormalized(float x, float y, int step)
{
    if (m_nNumPoints < 3)
        return false;
    OutlineXY o;
    qzsse::detail::normalizedBox(m_pXNorm, m_pYNorm, m_nNumPoints, o);
    if (qzsse::detail::outsideBox(o, x, y))
        return false;
    return qzsse::detail::crossingParity(m_pXNorm, m_pYNorm, m_nNumPoints, step, x, y);
}

bool CSSE3dPolygon::PointInLineInnerAreaNormalized(const SSEPoint& p, int step)
{
    return PointInLineInnerAreaNormalized(p.x, p.y, step);
}

// The window rejects points before any edge is read; inside it the answer is the plain one,
// because an edge lying wholly left or right of the window cannot toggle a point within it.
bool CSSE3dPolygon::PointInLineInnerAreaBoxed(float x, float y, float minX, float minY, float maxX, float maxY,
                                              int step)
{
    SSEPoint p;
    p.m = _mm_setr_ps(x, y, 0.0f, 0.0f);
    return PointInLineInnerAreaBoxed(p, minX, minY, maxX, maxY, step);
}

bool CSSE3dPolygon::PointInLineInnerAreaBoxed(const SSEPoint& p, float minX, float minY, float maxX, float maxY,
                                              int step)
{
    if (p.x < minX || p.y < minY || p.x > maxX || p.y > maxY)
        return false;
    return PointInLineInnerArea(p, step);
}

int CSSE3dPolygon::PointStatusWithRespectToPolygon(float x, float y)
{
    const int n = m_nNumPoints;
    if (n < 3)
        return -1;
    for (int i = 0; i < n; ++i) {
        const int prev = (i == 0) ? n - 1 : i - 1;
        const float ax = m_pX[prev], ay = m_pY[prev];
        const float bx = m_pX[i], by = m_pY[i];
        const float area = (bx - ax) * (y - ay) - (by - ay) * (x - ax);
        if (area < -qzsse::detail::c_fCollinearTolerance || area > qzsse::detail::c_fCollinearTolerance)
            continue;
        if (ax != bx ? qzsse::detail::within(x, ax, bx) : qzsse::detail::within(y, ay, by))
            return 0;
    }
    return PointInLineInnerArea(x, y, 1) ? 1 : -1;
}
