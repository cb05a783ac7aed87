#pragma once

namespace qzsse::detail {

// Smallest x in [lo, hi] at which the monotone predicate holds, given that it holds at hi
// and fails at lo - 1. Gallops out from the guess, then bisects, so a good guess costs two
// or three evaluations and a poor one a logarithmic number.
template <class Holds>
int firstHolding(int lo, int hi, double guess, Holds holds)
{
    int g = lo;
    if (guess >= static_cast<double>(lo))
        g = guess > static_cast<double>(hi) ? hi : static_cast<int>(guess);
    int l, h;
    if (holds(g)) {
        h = g;
        int d = 1;
        for (;;) {
            const int c = h - d;
            if (c < lo) {
                l = lo;
                break;
            }
            if (!holds(c)) {
                l = c + 1;
                break;
            }
            h = c;
            d *= 2;
        }
    } else {
        l = g + 1;
        int d = 1;
        for (;;) {
            const int c = g + d;
            if (c >= hi) {
                h = hi;
                break;
            }
            if (holds(c)) {
                h = c;
                break;
            }
            l = c + 1;
            d *= 2;
        }
    }
    while (l < h) {
        const int m = l + (h - l) / 2;
        if (holds(m))
            h = m;
        else
            l = m + 1;
    }
    return h;
}

} // namespace qzsse::detail
