#include "qzsse/geometry/detail/DecideRyTriInRyTriPredicates.h"

#include <algorithm>

#include "qzsse/geometry/detail/ExactIntegerSign.h"

namespace qzsse::detail {
namespace {

// Coordinate pairs onto which a plane may be projected.
constexpr int kPlanes[3][2] = {{0, 1}, {1, 2}, {0, 2}};

int orient2(const long long a[3], const long long b[3], const long long c[3], int plane)
{
    const int i = kPlanes[plane][0], j = kPlanes[plane][1];
    return OrientationSign2(a[i], a[j], b[i], b[j], c[i], c[j]);
}

// A projection that keeps the plane of abc (corners with area) one to one.
int planeOf(const long long a[3], const long long b[3], const long long c[3])
{
    for (int plane = 0; plane < 3; ++plane)
        if (orient2(a, b, c, plane) != 0)
            return plane;
    return -1;
}

bool withinBox(const long long p[3], const long long a[3], const long long b[3])
{
    for (int k = 0; k < 3; ++k)
        if (p[k] < std::min(a[k], b[k]) || p[k] > std::max(a[k], b[k]))
            return false;
    return true;
}

bool onSegment(const long long p[3], const long long a[3], const long long b[3])
{
    return withinBox(p, a, b) && CrossProductIsZero(a, b, p);
}

} // namespace

bool Collinear3(const long long a[3], const long long b[3], const long long c[3])
{
    return CrossProductIsZero(a, b, c);
}

bool PointInTriangle3(const long long p[3], const long long a[3], const long long b[3], const long long c[3])
{
    const int plane = planeOf(a, b, c);
    if (plane < 0)
        return onSegment(p, a, b) || onSegment(p, b, c) || onSegment(p, c, a);
    if (OrientationSign3(a, b, c, p) != 0)
        return false;
    const int s = orient2(a, b, c, plane);
    return s * orient2(a, b, p, plane) >= 0 && s * orient2(b, c, p, plane) >= 0 &&
           s * orient2(c, a, p, plane) >= 0;
}

bool SegmentsMeet3(const long long p[3], const long long q[3], const long long a[3], const long long b[3])
{
    if (Collinear3(p, q, a) && Collinear3(p, q, b)) {
        // One line (or points): along a coordinate that varies the intervals must overlap.
        if (p[0] == q[0] && p[1] == q[1] && p[2] == q[2])
            return onSegment(p, a, b);
        if (a[0] == b[0] && a[1] == b[1] && a[2] == b[2])
            return onSegment(a, p, q);
        const int k = p[0] != q[0] ? 0 : (p[1] != q[1] ? 1 : 2);
        return std::max(std::min(p[k], q[k]), std::min(a[k], b[k])) <=
               std::min(std::max(p[k], q[k]), std::max(a[k], b[k]));
    }
    if (OrientationSign3(p, q, a, b) != 0)
        return false;
    // Coplanar, not on one line: a triangle of three of them fixes a faithful projection.
    const int plane = Collinear3(p, q, a) ? planeOf(p, q, b) : planeOf(p, q, a);
    const int d1 = orient2(a, b, p, plane), d2 = orient2(a, b, q, plane);
    const int d3 = orient2(p, q, a, plane), d4 = orient2(p, q, b, plane);
    if (d1 * d2 < 0 && d3 * d4 < 0)
        return true;
    return (d1 == 0 && onSegment(p, a, b)) || (d2 == 0 && onSegment(q, a, b)) || (d3 == 0 && onSegment(a, p, q)) ||
           (d4 == 0 && onSegment(b, p, q));
}

bool SegmentMeetsTriangle(const long long p[3], const long long q[3], const long long a[3], const long long b[3],
                          const long long c[3])
{
    const int s1 = OrientationSign3(a, b, c, p), s2 = OrientationSign3(a, b, c, q);
    if (s1 == s2 && s1 != 0)
        return false;
    if (s1 == 0 && s2 == 0)
        return PointInTriangle3(p, a, b, c) || PointInTriangle3(q, a, b, c) || SegmentsMeet3(p, q, a, b) ||
               SegmentsMeet3(p, q, b, c) || SegmentsMeet3(p, q, c, a);
    // The segment reaches the plane; the line through it must pass the triangle's edges on
    // one side (or touch them).
    const int t1 = OrientationSign3(p, q, a, b), t2 = OrientationSign3(p, q, b, c), t3 = OrientationSign3(p, q, c, a);
    return (t1 >= 0 && t2 >= 0 && t3 >= 0) || (t1 <= 0 && t2 <= 0 && t3 <= 0);
}

bool TrianglesMeet(const long long p[3], const long long q[3], const long long r[3], const long long a[3],
                   const long long b[3], const long long c[3])
{
    if (SegmentMeetsTriangle(p, q, a, b, c) || SegmentMeetsTriangle(q, r, a, b, c) ||
        SegmentMeetsTriangle(r, p, a, b, c))
        return true;
    // Two triangles with area that meet do so where an edge of one meets the other.
    if (Collinear3(p, q, r))
        return false;
    return SegmentMeetsTriangle(a, b, p, q, r) || SegmentMeetsTriangle(b, c, p, q, r) ||
           SegmentMeetsTriangle(c, a, p, q, r);
}

} // namespace qzsse::detail
