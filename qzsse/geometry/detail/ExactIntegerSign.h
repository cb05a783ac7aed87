#pragma once

#include <cmath>

namespace qzsse::detail {

// The sign of det[a - p; b - p; c - p] evaluated in double precision when its error bound
// proves it, else 2. The bound (8 + 256 eps) eps times the permanent, eps = 2^-53, covers
// the at most eight roundings on each monomial (see DESIGN.md); it was derived for this
// evaluation order. Inline because the hull construction spends most of its tests here.
inline int FilteredOrientationSign3(const long long a[3], const long long b[3], const long long c[3],
                                    const long long p[3])
{
    // Inputs up to 2^53 in magnitude convert to double exactly.
    constexpr long long kExact = 1LL << 53;
    const auto exact = [](const long long v[3]) {
        return (v[0] >= -kExact) & (v[0] <= kExact) & (v[1] >= -kExact) & (v[1] <= kExact) & (v[2] >= -kExact) &
               (v[2] <= kExact);
    };
    if (!(exact(a) & exact(b) & exact(c) & exact(p)))
        return 2;
    const double px = double(p[0]), py = double(p[1]), pz = double(p[2]);
    const double adx = double(a[0]) - px, ady = double(a[1]) - py, adz = double(a[2]) - pz;
    const double bdx = double(b[0]) - px, bdy = double(b[1]) - py, bdz = double(b[2]) - pz;
    const double cdx = double(c[0]) - px, cdy = double(c[1]) - py, cdz = double(c[2]) - pz;
    const double bdxcdy = bdx * cdy, cdxbdy = cdx * bdy;
    const double cdxady = cdx * ady, adxcdy = adx * cdy;
    const double adxbdy = adx * bdy, bdxady = bdx * ady;
    const double det = adz * (bdxcdy - cdxbdy) + bdz * (cdxady - adxcdy) + cdz * (adxbdy - bdxady);
    const double permanent = (std::fabs(bdxcdy) + std::fabs(cdxbdy)) * std::fabs(adz) +
                             (std::fabs(cdxady) + std::fabs(adxcdy)) * std::fabs(bdz) +
                             (std::fabs(adxbdy) + std::fabs(bdxady)) * std::fabs(cdz);
    constexpr double eps = 1.0 / 9007199254740992.0; // 2^-53
    constexpr double bound = (8.0 + 256.0 * eps) * eps;
    const double err = bound * permanent;
    if (det > err)
        return 1;
    if (-det > err)
        return -1;
    return 2;
}

// The exact sign in integers: the plain 64-bit evaluation while none of its steps
// overflows, 128-bit arithmetic next, and a 256-bit evaluation for the rest.
int ExactOrientationSign3(const long long a[3], const long long b[3], const long long c[3], const long long p[3]);

// Sign (-1, 0, +1) of det[a - p; b - p; c - p] on 64-bit integer points, exact for every
// input: the double filter decides when it can, the integers otherwise.
inline int OrientationSign3(const long long a[3], const long long b[3], const long long c[3], const long long p[3])
{
    const int filtered = FilteredOrientationSign3(a, b, c, p);
    return filtered != 2 ? filtered : ExactOrientationSign3(a, b, c, p);
}

// Whether (b - a) x (c - a) is exactly the zero vector, for every 64-bit input.
bool CrossProductIsZero(const long long a[3], const long long b[3], const long long c[3]);

// Sign of (b.x - a.x)(c.y - a.y) - (b.y - a.y)(c.x - a.x), exact for every 64-bit input.
int OrientationSign2(long long ax, long long ay, long long bx, long long by, long long cx, long long cy);

} // namespace qzsse::detail
