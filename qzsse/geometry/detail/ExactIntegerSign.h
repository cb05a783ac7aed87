#pragma once

namespace qzsse::detail {

// Sign (-1, 0, +1) of det[a - p; b - p; c - p] on 64-bit integer points, exact for every
// input: a double evaluation decides when its error bound proves the sign, else the plain
// 64-bit evaluation is used while none of its steps overflows, 128-bit arithmetic next, and
// a 256-bit evaluation for the rest.
int OrientationSign3(const long long a[3], const long long b[3], const long long c[3], const long long p[3]);

// Whether (b - a) x (c - a) is exactly the zero vector, for every 64-bit input.
bool CrossProductIsZero(const long long a[3], const long long b[3], const long long c[3]);

// Sign of (b.x - a.x)(c.y - a.y) - (b.y - a.y)(c.x - a.x), exact for every 64-bit input.
int OrientationSign2(long long ax, long long ay, long long bx, long long by, long long cx, long long cy);

} // namespace qzsse::detail
