#pragma once

namespace qzsse::detail {

// The library's one clamping rule: raise to the lower bound first, then lower to the upper
// one, so that for an empty range (an image narrower than a footprint) the upper bound
// wins. Wide integer inputs (coordinates from long arithmetic) clamp before narrowing.
template <class T>
constexpr int clampInto(T v, int lo, int hi)
{
    if (v < lo)
        v = lo;
    if (v > hi)
        v = hi;
    return static_cast<int>(v);
}

} // namespace qzsse::detail
