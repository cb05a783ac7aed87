#pragma once

namespace qzsse::detail {

// Point of the closed triangle abc nearest to p, in double (region tests on the Voronoi
// regions of corners and edges; a triangle without area falls back to its three edges).
// Returns the squared distance.
double ClosestPointOnTriangle(const double p[3], const double a[3], const double b[3], const double c[3],
                              double out[3]);

// Parameter t >= 0 where origin + t * direction meets the closed triangle abc, or -1 when it
// does not (parallel rays included), by the Moller-Trumbore test in double.
double RayTriangleParameter(const double origin[3], const double direction[3], const double a[3],
                            const double b[3], const double c[3]);

} // namespace qzsse::detail
