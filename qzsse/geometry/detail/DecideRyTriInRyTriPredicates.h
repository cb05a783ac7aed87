#pragma once

namespace qzsse::detail {

// Exact tests on 64-bit grid points (closed sets: boundaries count as meeting).

// Whether p lies in the closed triangle abc (any shape, collinear or coincident corners too).
bool PointInTriangle3(const long long p[3], const long long a[3], const long long b[3], const long long c[3]);

// Whether the closed segments pq and ab meet.
bool SegmentsMeet3(const long long p[3], const long long q[3], const long long a[3], const long long b[3]);

// Whether the closed segment pq meets the closed triangle abc, which must have area.
bool SegmentMeetsTriangle(const long long p[3], const long long q[3], const long long a[3], const long long b[3],
                          const long long c[3]);

// Whether the closed triangles meet; abc must have area, pqr may have none.
bool TrianglesMeet(const long long p[3], const long long q[3], const long long r[3], const long long a[3],
                   const long long b[3], const long long c[3]);

// Whether the corners have no area together.
bool Collinear3(const long long a[3], const long long b[3], const long long c[3]);

} // namespace qzsse::detail
