#include "qzsse/geometry/CHSimpleBasisFcns.h"

#include <cfloat>
#include <cmath>
#include <xmmintrin.h>

namespace qzsse::detail {

constexpr float c_fOrientationTolerance = 0.0005f;
constexpr float c_fParameterTolerance = 0.0001f;

inline float DoubledArea(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

inline bool SamePoint(const t_h2dpoint& a, const t_h2dpoint& b)
{
    return a.x == b.x && a.y == b.y;
}

bool SegmentIntersection(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c, const t_h2dpoint& d,
                         t_h2dpoint& p)
{
    const double ax = a.x, ay = a.y, bx = b.x, by = b.y;
    const double cx = c.x, cy = c.y, dx = d.x, dy = d.y;
    const double denom = ax * (dy - cy) + bx * (cy - dy) + dx * (by - ay) + cx * (ay - by);
    if (denom == 0.0) {
        const float l1 = std::sqrt((b.x - a.x) * (b.x - a.x) + (b.y - a.y) * (b.y - a.y));
        const float l2 = std::sqrt((d.x - c.x) * (d.x - c.x) + (d.y - c.y) * (d.y - c.y));
        if (l1 > l2) {
            p = (SamePoint(c, a) || SamePoint(c, b)) ? d : c;
        } else if (a.x == c.x && a.y != 0.0f && c.y != 0.0f) {
            p = b;
        } else {
            p = SamePoint(a, d) ? b : a;
        }
        return false;
    }
    const double s = (ax * (dy - cy) + cx * (ay - dy) + dx * (cy - ay)) / denom;
    const double t = -(ax * (cy - by) + bx * (ay - cy) + cx * (by - ay)) / denom;
    p.x = static_cast<float>(ax + s * (bx - ax));
    p.y = static_cast<float>(ay + s * (by - ay));
    const double slack = c_fParameterTolerance;
    return !(s + slack < 0.0) && !(s > 1.0 + slack) && !(t + slack < 0.0) && !(t > 1.0 + slack);
}

}  // namespace qzsse::detail

using qzsse::detail::c_fOrientationTolerance;
using qzsse::detail::DoubledArea;

float CHSimpleBasisFcns::AreaSign(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const
{
    const float area = DoubledArea(a, b, c);
    if (area > c_fOrientationTolerance)
        return 1.0f;
    if (area < -c_fOrientationTolerance)
        return -1.0f;
    return 0.0f;
}

bool CHSimpleBasisFcns::Left(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const
{
    return DoubledArea(a, b, c) > c_fOrientationTolerance;
}

bool CHSimpleBasisFcns::LeftOn(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const
{
    const float area = DoubledArea(a, b, c);
    return area > c_fOrientationTolerance || !(area < -c_fOrientationTolerance);
}

bool CHSimpleBasisFcns::Collinear(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const
{
    const float area = DoubledArea(a, b, c);
    return area >= -c_fOrientationTolerance && area <= c_fOrientationTolerance;
}

bool CHSimpleBasisFcns::Between(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const
{
    if (!Collinear(a, b, c))
        return false;
    if (a.x != b.x)
        return (a.x <= c.x && c.x <= b.x) || (a.x >= c.x && c.x >= b.x);
    return (a.y <= c.y && c.y <= b.y) || (a.y >= c.y && c.y >= b.y);
}

bool CHSimpleBasisFcns::IntersectProp(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c,
                                      const t_h2dpoint& d) const
{
    if (Collinear(a, b, c) || Collinear(a, b, d) || Collinear(c, d, a) || Collinear(c, d, b))
        return false;
    return (Left(a, b, c) != Left(a, b, d)) && (Left(c, d, a) != Left(c, d, b));
}

bool CHSimpleBasisFcns::Intersect(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c,
                                  const t_h2dpoint& d) const
{
    if (IntersectProp(a, b, c, d))
        return true;
    return Between(a, b, c) || Between(a, b, d) || Between(c, d, a) || Between(c, d, b);
}

bool CHSimpleBasisFcns::ParallelInt(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c,
                                    const t_h2dpoint& d, t_h2dpoint& p) const
{
    if (!Collinear(a, b, c))
        return false;
    if (Between(a, b, c)) {
        p = c;
        return true;
    }
    if (Between(a, b, d)) {
        p = d;
        return true;
    }
    if (Between(c, d, a)) {
        p = a;
        return true;
    }
    if (Between(c, d, b)) {
        p = b;
        return true;
    }
    return false;
}

bool CHSimpleBasisFcns::InCone(const t_hvertex* a, const t_hvertex* b) const
{
    const t_h2dpoint& a0 = a->prev->position;
    const t_h2dpoint& a1 = a->next->position;
    if (LeftOn(a->position, a1, a0))
        return Left(a->position, b->position, a0) && Left(b->position, a->position, a1);
    return !(LeftOn(a->position, b->position, a1) && LeftOn(b->position, a->position, a0));
}

bool CHSimpleBasisFcns::GetIntersection(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c,
                                        const t_h2dpoint& d, t_h2dpoint& p) const
{
    return qzsse::detail::SegmentIntersection(a, b, c, d, p);
}

bool CHSimpleBasisFcns::GetIntersection(const SSEPoint& a, const SSEPoint& b, const SSEPoint& c,
                                        const SSEPoint& d, SSEPoint& p)
{
    const t_h2dpoint a2{a.x, a.y}, b2{b.x, b.y}, c2{c.x, c.y}, d2{d.x, d.y};
    t_h2dpoint result{FLT_MAX, FLT_MAX};
    const bool hit = qzsse::detail::SegmentIntersection(a2, b2, c2, d2, result);
    p.x = result.x;
    p.y = result.y;
    p.z = 0.0f;
    return hit;
}

int CHSimpleBasisFcns::VertexAlreadyThereInArray(const SSEPoint* array, const SSEPoint& point, int n)
{
    const __m128 tolerance = _mm_set1_ps(qzsse::detail::c_fParameterTolerance);
    const __m128 signMask = _mm_set1_ps(-0.0f);
    for (int i = 0; i < n; ++i) {
        const __m128 difference = _mm_andnot_ps(signMask, _mm_sub_ps(array[i].m, point.m));
        if (_mm_movemask_ps(_mm_cmplt_ps(difference, tolerance)) == 0xF)
            return i;
    }
    return -1;
}

void CHSimpleBasisFcns::FindOrthogonal(const t_vector& v, t_vector& out)
{
    if (v.y == 0.0f) {
        out = {0.0f, 1.0f, 0.0f};
        return;
    }
    const float s = v.x / v.y;
    const float length = std::sqrt(1.0f + s * s);
    if (length == 0.0f)
        return;
    out = {1.0f / length, -s / length, 0.0f};
}

void CHSimpleBasisFcns::FindLine(const SSEPoint& a, const SSEPoint& b, t_vector& out)
{
    const float dx = a.x - b.x;
    const float dy = a.y - b.y;
    const float length = std::sqrt(dx * dx + dy * dy);
    if (length == 0.0f) {
        out = {0.0f, 0.0f, 0.0f};
        return;
    }
    out = {dx / length, dy / length, 0.0f};
}

void CHSimpleBasisFcns::FindFoodPoint(const t_vector& dir, const SSEPoint& base, const SSEPoint& p, SSEPoint& out)
{
    const float lengthSquared = dir.x * dir.x + dir.y * dir.y;
    if (!(lengthSquared > FLT_EPSILON)) {
        out.m = _mm_setzero_ps();
        return;
    }
    const float t = (dir.x * (p.x - base.x) + dir.y * (p.y - base.y)) / lengthSquared;
    out.m = _mm_setr_ps(base.x + t * dir.x, base.y + t * dir.y, 0.0f, 0.0f);
}

void CHSimpleBasisFcns::FindPointOnLine(const t_vector& dir, const SSEPoint& base, float t, SSEPoint& out)
{
    out.m = _mm_setr_ps(base.x + t * dir.x, base.y + t * dir.y, 0.0f, 0.0f);
}

void CHSimpleBasisFcns::FindParameterOfPoint(const t_vector& dir, const SSEPoint& base, const SSEPoint& p,
                                             float& t)
{
    t = 0.0f;
    if (std::fabs(p.x - base.x) > qzsse::detail::c_fParameterTolerance)
        t = (p.x - base.x) / dir.x;
    else if (std::fabs(p.y - base.y) > qzsse::detail::c_fParameterTolerance)
        t = (p.y - base.y) / dir.y;
}

bool CHSimpleBasisFcns::IsPointInHalfeplain(float a, float b, float c, bool inclusive, const SSEPoint& p)
{
    const float value = a * p.x + b * p.y;
    return inclusive ? value >= c : c > value;
}

float CHSimpleBasisFcns::GetDistance(const SSEPoint& p, const SSEPoint& q)
{
    const float dx = p.x - q.x;
    const float dy = p.y - q.y;
    return std::sqrt(dx * dx + dy * dy);
}

float CHSimpleBasisFcns::GetRealAngle(float angle)
{
    constexpr float pi = 3.1415927f;
    constexpr float twoPi = 6.2831855f;
    const float slack = qzsse::detail::c_fParameterTolerance;
    // Where a step of 2 pi no longer changes the float (infinities, |angle| beyond about 1e8)
    // the loops could never end; such angles come back unchanged.
    if (angle + twoPi == angle || angle - twoPi == angle)
        return angle;
    float value = angle;
    while (value <= pi && std::fabs(value - pi) > slack)
        value += twoPi;
    while (value > pi || std::fabs(value - pi) <= slack)
        value -= twoPi;
    return value;
}
