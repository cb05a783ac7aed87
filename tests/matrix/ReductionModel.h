#pragma once

// Plain scalar references for the masking, counting, summing and region tests: random
// contents and partners, and the lane-wise sum order of the library written out.

#include <cmath>
#include <random>
#include <vector>

#include "matrix/MatrixTestUtil.h"
#include "matrix/PixelRuleCheck.h"

namespace qzsse::test {

// A matrix of the given shape whose every stored float comes from fillWithSpecials; NaN is
// replaced unless asked for, so that sums and extremes are not swamped by it.
inline CSSEMatrix randomMatrix(std::mt19937& rng, int sizeX, int sizeY, const std::vector<float>& specials,
                               bool withNaN = true)
{
    CSSEMatrix m;
    m.Create(sizeX, sizeY);
    fillWithSpecials(m, rng, specials);
    if (!withNaN) {
        std::vector<float> v = storedFloats(m);
        for (float& f : v)
            if (std::isnan(f))
                f = 0.25f;
        setStoredFloats(m, v);
    }
    return m;
}

// Stored float of pixel (x, y), padding rows included, from a storedFloats() copy.
inline float pixelOf(const std::vector<float>& stored, const CSSEMatrix& m, int x, int y)
{
    return stored[storedIndex(m, x, y)];
}

// Four running lane sums from +0, each fed in band then column order, added at the end as
// (l0 + l3) + (l1 + l2). Feeding rows top to bottom and each row left to right gives every
// lane that same order.
struct LaneSums {
    float lane[4] = {0.0f, 0.0f, 0.0f, 0.0f};
    void add(int y, float v) { lane[y & 3] = lane[y & 3] + v; }
    float total() const { return (lane[0] + lane[3]) + (lane[1] + lane[2]); }
};

} // namespace qzsse::test
