#include "qzsse/geometry/detail/PolygonTriangulationRefinementPredicates.h"

#include <algorithm>
#include <cmath>
#include <cstdint>

#include "qzsse/geometry/detail/ExactIntegerSign.h"

namespace qzsse::detail {
namespace {

__extension__ typedef unsigned __int128 UInt128;

constexpr double c_dEps = 0x1p-53;
// Error bounds of the double evaluations below; see DESIGN.md for the argument.
constexpr double c_dOrientationBound = (4.0 + 256.0 * c_dEps) * c_dEps;
constexpr double c_dInCircleBound = (11.0 + 256.0 * c_dEps) * c_dEps;

// Two's complement integer of N 64-bit limbs; ring arithmetic modulo 2^(64N), exact as long as
// the true values fit, which the callers size N for.
template <int N>
struct FixedInt {
    std::uint64_t limb[N] = {};

    // m * 2^shift, |m| < 2^25.
    static FixedInt FromScaled(int m, int shift)
    {
        FixedInt r;
        const std::uint64_t magnitude = static_cast<std::uint64_t>(m < 0 ? -static_cast<long long>(m) : m);
        const int word = shift / 64, bit = shift % 64;
        r.limb[word] = magnitude << bit;
        if (bit != 0 && word + 1 < N)
            r.limb[word + 1] = magnitude >> (64 - bit);
        return m < 0 ? -r : r;
    }
    FixedInt operator-() const
    {
        FixedInt r;
        std::uint64_t carry = 1;
        for (int i = 0; i < N; ++i) {
            const std::uint64_t v = ~limb[i] + carry;
            carry = (carry != 0 && v == 0) ? 1 : 0;
            r.limb[i] = v;
        }
        return r;
    }
    friend FixedInt operator+(const FixedInt& x, const FixedInt& y)
    {
        FixedInt r;
        std::uint64_t carry = 0;
        for (int i = 0; i < N; ++i) {
            const UInt128 s = static_cast<UInt128>(x.limb[i]) + y.limb[i] + carry;
            r.limb[i] = static_cast<std::uint64_t>(s);
            carry = static_cast<std::uint64_t>(s >> 64);
        }
        return r;
    }
    friend FixedInt operator-(const FixedInt& x, const FixedInt& y) { return x + (-y); }
    friend FixedInt operator*(const FixedInt& x, const FixedInt& y)
    {
        FixedInt r;
        for (int i = 0; i < N; ++i) {
            if (x.limb[i] == 0)
                continue;
            std::uint64_t carry = 0;
            for (int j = 0; i + j < N; ++j) {
                const UInt128 p = static_cast<UInt128>(x.limb[i]) * y.limb[j] + r.limb[i + j] + carry;
                r.limb[i + j] = static_cast<std::uint64_t>(p);
                carry = static_cast<std::uint64_t>(p >> 64);
            }
        }
        return r;
    }
    int Sign() const
    {
        if (limb[N - 1] >> 63)
            return -1;
        for (int i = 0; i < N; ++i)
            if (limb[i] != 0)
                return 1;
        return 0;
    }
};

// The coordinates as integers m_i * 2^(e_i - e0) on the finest grid 2^e0 they share.
template <int Count>
struct SharedGrid {
    int mantissa[Count];
    int shift[Count];
    int maxBits = 0;  // bit length bound of the largest scaled magnitude

    explicit SharedGrid(const float (&v)[Count])
    {
        int exponent[Count];
        int e0 = 1 << 20;
        for (int i = 0; i < Count; ++i) {
            int e = 0;
            const float fraction = std::frexp(v[i], &e);
            mantissa[i] = static_cast<int>(std::ldexp(fraction, 24));  // exact: 24 bits
            exponent[i] = e - 24;
            if (mantissa[i] != 0)
                e0 = std::min(e0, exponent[i]);
        }
        for (int i = 0; i < Count; ++i) {
            shift[i] = mantissa[i] != 0 ? exponent[i] - e0 : 0;
            maxBits = std::max(maxBits, 25 + shift[i]);
        }
    }
    template <int N>
    FixedInt<N> Get(int i) const { return FixedInt<N>::FromScaled(mantissa[i], shift[i]); }
};

// Float exponents span at most 2^-149 .. 2^127: the scaled magnitudes stay below 2^301, the
// in-circle value below 2^1208.
constexpr int c_iWideLimbs = 20;

template <int N>
int exactOrientation(const SharedGrid<6>& g)
{
    using I = FixedInt<N>;
    const I ax = g.template Get<N>(0), ay = g.template Get<N>(1);
    const I det = (g.template Get<N>(2) - ax) * (g.template Get<N>(5) - ay)
                - (g.template Get<N>(3) - ay) * (g.template Get<N>(4) - ax);
    return det.Sign();
}

template <int N>
int exactInCircle(const SharedGrid<8>& g)
{
    using I = FixedInt<N>;
    const I dx = g.template Get<N>(6), dy = g.template Get<N>(7);
    const I adx = g.template Get<N>(0) - dx, ady = g.template Get<N>(1) - dy;
    const I bdx = g.template Get<N>(2) - dx, bdy = g.template Get<N>(3) - dy;
    const I cdx = g.template Get<N>(4) - dx, cdy = g.template Get<N>(5) - dy;
    const I det = (adx * adx + ady * ady) * (bdx * cdy - cdx * bdy)
                + (bdx * bdx + bdy * bdy) * (cdx * ady - adx * cdy)
                + (cdx * cdx + cdy * cdy) * (adx * bdy - bdx * ady);
    return det.Sign();
}

}  // namespace

int RefinementOrientation(float ax, float ay, float bx, float by, float cx, float cy)
{
    const double left = (static_cast<double>(bx) - ax) * (static_cast<double>(cy) - ay);
    const double right = (static_cast<double>(by) - ay) * (static_cast<double>(cx) - ax);
    const double det = left - right;
    const double bound = c_dOrientationBound * (std::fabs(left) + std::fabs(right));
    if (det > bound)
        return 1;
    if (-det > bound)
        return -1;
    const float v[6] = {ax, ay, bx, by, cx, cy};
    const SharedGrid<6> g(v);
    if (g.maxBits <= 62) {
        long long s[6];
        for (int i = 0; i < 6; ++i)
            s[i] = static_cast<long long>(g.mantissa[i]) * (1LL << g.shift[i]);
        return OrientationSign2(s[0], s[1], s[2], s[3], s[4], s[5]);
    }
    return exactOrientation<c_iWideLimbs>(g);
}

int RefinementInCircle(float ax, float ay, float bx, float by, float cx, float cy, float dx, float dy)
{
    const double adx = static_cast<double>(ax) - dx, ady = static_cast<double>(ay) - dy;
    const double bdx = static_cast<double>(bx) - dx, bdy = static_cast<double>(by) - dy;
    const double cdx = static_cast<double>(cx) - dx, cdy = static_cast<double>(cy) - dy;
    const double bdxcdy = bdx * cdy, cdxbdy = cdx * bdy;
    const double cdxady = cdx * ady, adxcdy = adx * cdy;
    const double adxbdy = adx * bdy, bdxady = bdx * ady;
    const double alift = adx * adx + ady * ady;
    const double blift = bdx * bdx + bdy * bdy;
    const double clift = cdx * cdx + cdy * cdy;
    const double det = alift * (bdxcdy - cdxbdy) + blift * (cdxady - adxcdy) + clift * (adxbdy - bdxady);
    const double permanent = alift * (std::fabs(bdxcdy) + std::fabs(cdxbdy))
                           + blift * (std::fabs(cdxady) + std::fabs(adxcdy))
                           + clift * (std::fabs(adxbdy) + std::fabs(bdxady));
    const double bound = c_dInCircleBound * permanent;
    if (det > bound)
        return 1;
    if (-det > bound)
        return -1;
    const float v[8] = {ax, ay, bx, by, cx, cy, dx, dy};
    const SharedGrid<8> g(v);
    // Below 2^60 the differences stay under 2^61 and the value under 2^248.
    if (g.maxBits <= 60)
        return exactInCircle<4>(g);
    return exactInCircle<c_iWideLimbs>(g);
}

}  // namespace qzsse::detail
