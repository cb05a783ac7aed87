#pragma once

#include <cmath>

#include <xmmintrin.h>

namespace qzsse::detail {

// The XY outline of a polygon together with the box its crossing test rejects against.
struct OutlineXY {
    const float* x = nullptr;
    const float* y = nullptr;
    int n = 0;
    float minX = 0.0f;
    float minY = 0.0f;
    float maxX = 0.0f;
    float maxY = 0.0f;
};

// The row scanners work on outlines whose coordinates and box are finite and within 1e18,
// where their double arithmetic on the float coordinates is exact enough; others are tested
// pixel by pixel.
inline bool scannableOutline(const OutlineXY& o)
{
    const auto safe = [](float v) { return std::isfinite(v) && std::fabs(v) <= 1e18; };
    if (!(safe(o.minX) && safe(o.minY) && safe(o.maxX) && safe(o.maxY)))
        return false;
    for (int i = 0; i < o.n; ++i)
        if (!(safe(o.x[i]) && safe(o.y[i])))
            return false;
    return true;
}

// Edge i (from point i - 1, cyclically, to point i) with a as its end of smaller x; false for
// a vertical edge, whose half-open x-range is empty so that it never toggles.
inline bool edgeLeftToRight(const OutlineXY& o, int i, float& ax, float& ay, float& bx, float& by)
{
    const int prev = (i == 0) ? o.n - 1 : i - 1;
    const float px = o.x[prev], py = o.y[prev];
    const float cx = o.x[i], cy = o.y[i];
    if (px == cx)
        return false;
    const bool prevSmaller = px < cx;
    ax = prevSmaller ? px : cx, ay = prevSmaller ? py : cy;
    bx = prevSmaller ? cx : px, by = prevSmaller ? cy : py;
    return true;
}

// Whether (x, y) lies outside the box, written as the four rejecting comparisons so that a
// NaN coordinate is never rejected here (it then fails every edge instead).
inline bool outsideBox(const OutlineXY& o, float x, float y)
{
    return x < o.minX || y < o.minY || x > o.maxX || y > o.maxY;
}

// The edge between a (the end with the smaller x) and b passes above (x, y), at larger y.
inline bool edgePassesAbove(float ax, float ay, float bx, float by, float x, float y)
{
    return (by - ay) * (x - ax) > (bx - ax) * (y - ay);
}

// One edge of the crossing rule: x must lie in the half-open x-range the edge spans (the
// equality of the two comparisons), and the edge must pass above the point.
inline bool edgeToggles(float px, float py, float cx, float cy, float x, float y)
{
    if ((x > cx) != (px >= x))
        return false;
    const bool prevSmaller = px < cx;
    return prevSmaller ? edgePassesAbove(px, py, cx, cy, x, y) : edgePassesAbove(cx, cy, px, py, x, y);
}

// Crossing parity of (x, y) against every step-th vertex (the box test is the caller's).
// With step >= 2 the edge from the last visited vertex to vertex n - 1 closes the sampled
// polygon. A step below 1 is read as 1 (a step of 0 would never advance). Needs n >= 3 and
// arrays padded to a multiple of four, as the polygon keeps them.
bool crossingParity(const float* px, const float* py, int n, int step, float x, float y);

inline bool insideOutline(const OutlineXY& o, float x, float y)
{
    if (o.n < 3 || outsideBox(o, x, y))
        return false;
    return crossingParity(o.x, o.y, o.n, 1, x, y);
}

} // namespace qzsse::detail
