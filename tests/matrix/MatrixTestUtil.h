#pragma once

// Helpers shared by the matrix tests: a plain copy of every stored float (padding rows
// included) in storage order, and random fills that mix ordinary values with the
// special ones the operations must get right.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"

namespace qzsse::test {

// Every float of every band in storage order: band, then column, then lane.
inline std::vector<float> storedFloats(const CSSEMatrix& m)
{
    std::vector<float> out;
    __m128** data = m.GetMatrixDataDirectly();
    for (int j = 0; j < m.GetSSESizeY(); ++j) {
        const float* band = reinterpret_cast<const float*>(data[j]);
        out.insert(out.end(), band, band + 4 * m.GetSSESizeX());
    }
    return out;
}

inline void setStoredFloats(CSSEMatrix& m, const std::vector<float>& values)
{
    __m128** data = m.GetMatrixDataDirectly();
    size_t i = 0;
    for (int j = 0; j < m.GetSSESizeY(); ++j) {
        float* band = reinterpret_cast<float*>(data[j]);
        for (int k = 0; k < 4 * m.GetSSESizeX(); ++k)
            band[k] = values[i++];
    }
}

// Index of pixel (x, y) in storedFloats(): also valid for padding rows.
inline size_t storedIndex(const CSSEMatrix& m, int x, int y)
{
    return (static_cast<size_t>(y >> 2) * m.GetSSESizeX() + x) * 4 + (y & 3);
}

// A value drawn from a mix of ordinary numbers, exact small integers (so that ties with
// thresholds happen), signed zeros and NaN.
inline float randomValue(std::mt19937& rng)
{
    std::uniform_int_distribution<int> kind(0, 9);
    switch (kind(rng)) {
    case 0: return std::numeric_limits<float>::quiet_NaN();
    case 1: return 0.0f;
    case 2: return -0.0f;
    case 3: return static_cast<float>(std::uniform_int_distribution<int>(-5, 5)(rng));
    default: return std::uniform_real_distribution<float>(-10.0f, 10.0f)(rng);
    }
}

// Fills every stored float, padding rows included.
inline void fillRandom(CSSEMatrix& m, std::mt19937& rng)
{
    std::vector<float> v(storedFloats(m).size());
    for (float& f : v)
        f = randomValue(rng);
    setStoredFloats(m, v);
}

// Bit-for-bit equality that also matches NaN with NaN of the same payload.
inline bool sameBits(float a, float b)
{
    uint32_t ua, ub;
    std::memcpy(&ua, &a, 4);
    std::memcpy(&ub, &b, 4);
    return ua == ub;
}

// Bit pattern of a float, for checks that must tell -0.0 from 0.0 or compare NaN payloads.
inline uint32_t floatBits(float f)
{
    uint32_t u;
    std::memcpy(&u, &f, 4);
    return u;
}

} // namespace qzsse::test
