#include "qzsse/geometry/detail/RestorationOctreeGeometry.h"

#include <initializer_list>
#include <utility>

namespace qzsse::detail {
namespace {

inline double dot(const double u[3], const double v[3]) { return u[0] * v[0] + u[1] * v[1] + u[2] * v[2]; }

inline void sub(const double u[3], const double v[3], double out[3])
{
    out[0] = u[0] - v[0];
    out[1] = u[1] - v[1];
    out[2] = u[2] - v[2];
}

inline void cross(const double u[3], const double v[3], double out[3])
{
    out[0] = u[1] * v[2] - u[2] * v[1];
    out[1] = u[2] * v[0] - u[0] * v[2];
    out[2] = u[0] * v[1] - u[1] * v[0];
}

inline void along(const double a[3], const double d[3], double s, double out[3])
{
    out[0] = a[0] + s * d[0];
    out[1] = a[1] + s * d[1];
    out[2] = a[2] + s * d[2];
}

inline double squaredDistance(const double u[3], const double v[3])
{
    double d[3];
    sub(u, v, d);
    return dot(d, d);
}

// The same segment gives the same bits from either end, so triangles sharing an edge tie
// exactly where they are equally near.
double closestOnSegment(const double p[3], const double a[3], const double b[3], double out[3])
{
    if (b[0] < a[0] || (b[0] == a[0] && (b[1] < a[1] || (b[1] == a[1] && b[2] < a[2]))))
        std::swap(a, b);
    double ab[3], ap[3];
    sub(b, a, ab);
    sub(p, a, ap);
    const double len = dot(ab, ab);
    double s = len > 0.0 ? dot(ap, ab) / len : 0.0;
    s = s < 0.0 ? 0.0 : (s > 1.0 ? 1.0 : s);
    along(a, ab, s, out);
    return squaredDistance(p, out);
}

} // namespace

double ClosestPointOnTriangle(const double p[3], const double a[3], const double b[3], const double c[3],
                              double out[3])
{
    double ab[3], ac[3], ap[3];
    sub(b, a, ab);
    sub(c, a, ac);
    sub(p, a, ap);
    const double d1 = dot(ab, ap), d2 = dot(ac, ap);
    if (d1 <= 0.0 && d2 <= 0.0) {
        out[0] = a[0], out[1] = a[1], out[2] = a[2];
        return squaredDistance(p, out);
    }
    double bp[3];
    sub(p, b, bp);
    const double d3 = dot(ab, bp), d4 = dot(ac, bp);
    if (d3 >= 0.0 && d4 <= d3) {
        out[0] = b[0], out[1] = b[1], out[2] = b[2];
        return squaredDistance(p, out);
    }
    const double vc = d1 * d4 - d3 * d2;
    if (vc <= 0.0 && d1 >= 0.0 && d3 <= 0.0 && d1 - d3 > 0.0)
        return closestOnSegment(p, a, b, out);
    double cp[3];
    sub(p, c, cp);
    const double d5 = dot(ab, cp), d6 = dot(ac, cp);
    if (d6 >= 0.0 && d5 <= d6) {
        out[0] = c[0], out[1] = c[1], out[2] = c[2];
        return squaredDistance(p, out);
    }
    const double vb = d5 * d2 - d1 * d6;
    if (vb <= 0.0 && d2 >= 0.0 && d6 <= 0.0 && d2 - d6 > 0.0)
        return closestOnSegment(p, a, c, out);
    const double va = d3 * d6 - d5 * d4;
    if (va <= 0.0 && d4 - d3 >= 0.0 && d5 - d6 >= 0.0 && (d4 - d3) + (d5 - d6) > 0.0)
        return closestOnSegment(p, b, c, out);
    const double sum = va + vb + vc;
    if (!(sum > 0.0)) {
        // No area (or no finite area): the nearest point lies on an edge.
        double e[3];
        double best = closestOnSegment(p, a, b, out);
        for (const auto& [u, v] : {std::pair{b, c}, std::pair{c, a}}) {
            const double d = closestOnSegment(p, u, v, e);
            if (d < best) {
                best = d;
                out[0] = e[0], out[1] = e[1], out[2] = e[2];
            }
        }
        return best;
    }
    const double v = vb / sum, w = vc / sum;
    out[0] = a[0] + ab[0] * v + ac[0] * w;
    out[1] = a[1] + ab[1] * v + ac[1] * w;
    out[2] = a[2] + ab[2] * v + ac[2] * w;
    return squaredDistance(p, out);
}

double RayTriangleParameter(const double origin[3], const double direction[3], const double a[3],
                            const double b[3], const double c[3])
{
    double e1[3], e2[3], pv[3];
    sub(b, a, e1);
    sub(c, a, e2);
    cross(direction, e2, pv);
    const double det = dot(e1, pv);
    if (det == 0.0)
        return -1.0;
    const double inv = 1.0 / det;
    double s[3];
    sub(origin, a, s);
    const double u = dot(s, pv) * inv;
    if (u < 0.0 || u > 1.0)
        return -1.0;
    double q[3];
    cross(s, e1, q);
    const double v = dot(direction, q) * inv;
    if (v < 0.0 || u + v > 1.0)
        return -1.0;
    const double t = dot(e2, q) * inv;
    return t >= 0.0 ? t : -1.0;
}

} // namespace qzsse::detail
