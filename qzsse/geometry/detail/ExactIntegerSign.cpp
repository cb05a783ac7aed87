#include "qzsse/geometry/detail/ExactIntegerSign.h"

#include <cmath>
#include <cstdint>

namespace qzsse::detail {
namespace {

#if defined(__SIZEOF_INT128__)
__extension__ typedef __int128 Int128;
#endif

// Sign-magnitude integer of 256 bits: enough for a 3x3 determinant of 65-bit differences
// (at most 199 bits). Only what the predicates need is here.
struct Wide {
    bool negative = false;
    std::uint32_t limb[8] = {};
};

Wide difference(long long a, long long b)
{
    Wide w;
    unsigned long long magnitude;
    if (a >= b) {
        magnitude = static_cast<unsigned long long>(a) - static_cast<unsigned long long>(b);
    } else {
        magnitude = static_cast<unsigned long long>(b) - static_cast<unsigned long long>(a);
        w.negative = true;
    }
    w.limb[0] = static_cast<std::uint32_t>(magnitude);
    w.limb[1] = static_cast<std::uint32_t>(magnitude >> 32);
    return w;
}

Wide multiply(const Wide& x, const Wide& y)
{
    Wide r;
    for (int i = 0; i < 8; ++i) {
        std::uint64_t carry = 0;
        for (int j = 0; i + j < 8; ++j) {
            const std::uint64_t cur = static_cast<std::uint64_t>(r.limb[i + j]) +
                                      static_cast<std::uint64_t>(x.limb[i]) * y.limb[j] + carry;
            r.limb[i + j] = static_cast<std::uint32_t>(cur);
            carry = cur >> 32;
        }
    }
    r.negative = x.negative != y.negative;
    return r;
}

int compareMagnitude(const Wide& x, const Wide& y)
{
    for (int i = 7; i >= 0; --i) {
        if (x.limb[i] != y.limb[i])
            return x.limb[i] < y.limb[i] ? -1 : 1;
    }
    return 0;
}

// |big| - |small|, with |big| >= |small|.
Wide subtractMagnitude(const Wide& big, const Wide& small)
{
    Wide r;
    std::int64_t borrow = 0;
    for (int i = 0; i < 8; ++i) {
        std::int64_t cur = static_cast<std::int64_t>(big.limb[i]) - small.limb[i] - borrow;
        borrow = cur < 0 ? 1 : 0;
        if (cur < 0)
            cur += std::int64_t{1} << 32;
        r.limb[i] = static_cast<std::uint32_t>(cur);
    }
    return r;
}

Wide add(const Wide& x, const Wide& y)
{
    if (x.negative == y.negative) {
        Wide r;
        std::uint64_t carry = 0;
        for (int i = 0; i < 8; ++i) {
            const std::uint64_t cur = static_cast<std::uint64_t>(x.limb[i]) + y.limb[i] + carry;
            r.limb[i] = static_cast<std::uint32_t>(cur);
            carry = cur >> 32;
        }
        r.negative = x.negative;
        return r;
    }
    if (compareMagnitude(x, y) >= 0) {
        Wide r = subtractMagnitude(x, y);
        r.negative = x.negative;
        return r;
    }
    Wide r = subtractMagnitude(y, x);
    r.negative = y.negative;
    return r;
}

Wide subtract(const Wide& x, Wide y)
{
    y.negative = !y.negative;
    return add(x, y);
}

int sign(const Wide& w)
{
    for (std::uint32_t limb : w.limb) {
        if (limb != 0)
            return w.negative ? -1 : 1;
    }
    return 0;
}

template <class T>
int signOf(T v)
{
    return v > 0 ? 1 : (v < 0 ? -1 : 0);
}

#if defined(__GNUC__) || defined(__clang__)
#define QZSSE_HAVE_CHECKED_ARITHMETIC 1

// x*y - z*w in T, false when any step overflows.
template <class T>
bool mulSub(T x, T y, T z, T w, T& result)
{
    T p, q;
    return !__builtin_mul_overflow(x, y, &p) && !__builtin_mul_overflow(z, w, &q) &&
           !__builtin_sub_overflow(p, q, &result);
}

template <class T>
bool determinantIn(const long long a[3], const long long b[3], const long long c[3], const long long p[3], T& det)
{
    const long long* rows[3] = {a, b, c};
    T d[3][3];
    for (int r = 0; r < 3; ++r) {
        for (int k = 0; k < 3; ++k) {
            if (__builtin_sub_overflow(static_cast<T>(rows[r][k]), static_cast<T>(p[k]), &d[r][k]))
                return false;
        }
    }
    T m0, m1, m2, t0, t1, t2, s;
    return mulSub(d[1][1], d[2][2], d[1][2], d[2][1], m0) && mulSub(d[1][2], d[2][0], d[1][0], d[2][2], m1) &&
           mulSub(d[1][0], d[2][1], d[1][1], d[2][0], m2) && !__builtin_mul_overflow(d[0][0], m0, &t0) &&
           !__builtin_mul_overflow(d[0][1], m1, &t1) && !__builtin_mul_overflow(d[0][2], m2, &t2) &&
           !__builtin_add_overflow(t0, t1, &s) && !__builtin_add_overflow(s, t2, &det);
}
#endif

int wideDeterminantSign(const long long a[3], const long long b[3], const long long c[3], const long long p[3])
{
    const long long* rows[3] = {a, b, c};
    Wide d[3][3];
    for (int r = 0; r < 3; ++r)
        for (int k = 0; k < 3; ++k)
            d[r][k] = difference(rows[r][k], p[k]);
    const Wide m0 = subtract(multiply(d[1][1], d[2][2]), multiply(d[1][2], d[2][1]));
    const Wide m1 = subtract(multiply(d[1][2], d[2][0]), multiply(d[1][0], d[2][2]));
    const Wide m2 = subtract(multiply(d[1][0], d[2][1]), multiply(d[1][1], d[2][0]));
    return sign(add(add(multiply(d[0][0], m0), multiply(d[0][1], m1)), multiply(d[0][2], m2)));
}

} // namespace

int ExactOrientationSign3(const long long a[3], const long long b[3], const long long c[3], const long long p[3])
{
#if defined(QZSSE_HAVE_CHECKED_ARITHMETIC)
    long long det64;
    if (determinantIn(a, b, c, p, det64))
        return signOf(det64);
#if defined(__SIZEOF_INT128__)
    Int128 det128;
    if (determinantIn(a, b, c, p, det128))
        return signOf(det128);
#endif
#endif
    return wideDeterminantSign(a, b, c, p);
}

bool CrossProductIsZero(const long long a[3], const long long b[3], const long long c[3])
{
#if defined(QZSSE_HAVE_CHECKED_ARITHMETIC)
    long long u[3], v[3];
    bool fits = true;
    for (int k = 0; k < 3; ++k)
        fits = fits && !__builtin_sub_overflow(b[k], a[k], &u[k]) && !__builtin_sub_overflow(c[k], a[k], &v[k]);
    if (fits) {
        long long l[3], r[3];
        for (int k = 0; k < 3; ++k) {
            const int k1 = (k + 1) % 3, k2 = (k + 2) % 3;
            fits = fits && !__builtin_mul_overflow(u[k1], v[k2], &l[k]) &&
                   !__builtin_mul_overflow(u[k2], v[k1], &r[k]);
        }
        if (fits)
            return l[0] == r[0] && l[1] == r[1] && l[2] == r[2];
    }
#endif
    for (int k = 0; k < 3; ++k) {
        const int k1 = (k + 1) % 3, k2 = (k + 2) % 3;
        const Wide l = multiply(difference(b[k1], a[k1]), difference(c[k2], a[k2]));
        const Wide r = multiply(difference(b[k2], a[k2]), difference(c[k1], a[k1]));
        if (sign(subtract(l, r)) != 0)
            return false;
    }
    return true;
}

int OrientationSign2(long long ax, long long ay, long long bx, long long by, long long cx, long long cy)
{
#if defined(QZSSE_HAVE_CHECKED_ARITHMETIC)
    long long ux, uy, vx, vy, n;
    if (!__builtin_sub_overflow(bx, ax, &ux) && !__builtin_sub_overflow(by, ay, &uy) &&
        !__builtin_sub_overflow(cx, ax, &vx) && !__builtin_sub_overflow(cy, ay, &vy) && mulSub(ux, vy, uy, vx, n))
        return signOf(n);
#endif
    return sign(subtract(multiply(difference(bx, ax), difference(cy, ay)),
                         multiply(difference(by, ay), difference(cx, ax))));
}

} // namespace qzsse::detail
