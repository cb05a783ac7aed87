#pragma once

#include "qzsse/core/SSEPoint.h"
#include "qzsse/polygon/CSSE2dPolygon.h"  // t_h2dpoint

// A plane direction or line vector; every helper that writes one sets z = 0.
struct t_vector {
    float x;
    float y;
    float z;
};

// One vertex of a circular doubly linked polygon, as the ear-clipping triangulator keeps it.
struct t_hvertex {
    t_h2dpoint position;
    bool ear;
    t_hvertex* next;
    t_hvertex* prev;
    int index;
};

// Plane-geometry primitives shared by the hull, Delaunay and triangulation code. Stateless:
// the class only groups the functions so that algorithm classes can derive from it.
//
// Orientation tests use the doubled signed area A(a, b, c) = (b - a) x (c - a), computed in
// float and compared against a fixed tolerance of 0.0005, so nearly collinear triples count
// as collinear on purpose (an area of 0.0004 is "collinear", not "left").
class CHSimpleBasisFcns {
public:
    float AreaSign(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const;
    bool Left(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const;
    bool LeftOn(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const;
    bool Collinear(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const;
    // c on the closed segment ab: collinear, then the x range, or the y range when ab is vertical.
    bool Between(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c) const;
    // Proper crossing only: any collinear triple answers false.
    bool IntersectProp(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c, const t_h2dpoint& d) const;
    // Proper crossing or an end point lying on the other segment.
    bool Intersect(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c, const t_h2dpoint& d) const;
    // For collinear ab and cd: the first end point found on the other segment (c, d, a, b).
    bool ParallelInt(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c, const t_h2dpoint& d,
                     t_h2dpoint& p) const;
    // Whether the diagonal a-b leaves vertex a into the polygon's interior cone (counter-clockwise
    // polygon).
    bool InCone(const t_hvertex* a, const t_hvertex* b) const;

    // Segment ab against segment cd, parameters in double. Returns whether they meet within a
    // parameter slack of 0.0001 at both ends; p receives the point on the line ab even when
    // they do not. Parallel segments (denominator exactly 0) return false with an end point in
    // p; one of the rules compares a.y and c.y with zero rather than with each other, a
    // behaviour existing callers depend on. The point on ab is computed in double and rounded
    // to float once.
    bool GetIntersection(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c, const t_h2dpoint& d,
                         t_h2dpoint& p) const;
    // The same on the x and y of SSE points; p gets x, y and z = 0 (w is left as it was).
    // Without a result p holds the largest float in x and y.
    static bool GetIntersection(const SSEPoint& a, const SSEPoint& b, const SSEPoint& c, const SSEPoint& d,
                                SSEPoint& p);

    // First i < n whose four lanes all differ from point's by strictly less than 0.0001;
    // -1 (0xFFFFFFFF) when there is none.
    static int VertexAlreadyThereInArray(const SSEPoint* array, const SSEPoint& point, int n);
    // A unit vector perpendicular to v in the plane; (0, 1, 0) when v.y is exactly 0.
    static void FindOrthogonal(const t_vector& v, t_vector& out);
    // Unit vector from b to a (a - b normalised); zero when a and b coincide.
    static void FindLine(const SSEPoint& a, const SSEPoint& b, t_vector& out);
    // Foot of the perpendicular from p onto the line base + t dir; all zero for a direction
    // whose squared length is at most the float epsilon.
    static void FindFoodPoint(const t_vector& dir, const SSEPoint& base, const SSEPoint& p, SSEPoint& out);
    static void FindPointOnLine(const t_vector& dir, const SSEPoint& base, float t, SSEPoint& out);
    // Parameter of p on the line, read from x unless p and base share x (within 0.0001), then
    // from y; 0 when both coincide.
    static void FindParameterOfPoint(const t_vector& dir, const SSEPoint& base, const SSEPoint& p, float& t);
    // Half plane a x + b y >= c (inclusive) or a x + b y < c.
    static bool IsPointInHalfeplain(float a, float b, float c, bool inclusive, const SSEPoint& p);
    // Plane distance; z is ignored.
    static float GetDistance(const SSEPoint& p, const SSEPoint& q);
    // Brings an angle into (-pi, pi] up to a 0.0001 slack; pi itself comes back as about -pi.
    // Infinities and angles too large for a 2 pi step to change come back unchanged.
    static float GetRealAngle(float angle);
};
