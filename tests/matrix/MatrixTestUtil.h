#pragma once

// Helpers shared by the matrix tests: plain access to every stored float (padding rows
// included), random shapes and contents mixing ordinary values with the special ones the
// operations must get right, and a checker that compares an operation with a scalar model of
// its rule written plainly in the test.

#include <cmath>
#include <cstring>
#include <functional>
#include <initializer_list>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "qzsse/matrix/CSSEMatrix.h"

namespace qzsse::test {

inline const float kInf = std::numeric_limits<float>::infinity();
inline const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Every float of every band in storage order: band, then column, then lane.
inline std::vector<float> storedFloats(const CSSEMatrix& m)
{
    std::vector<float> out;
    for (int j = 0; j < m.GetSSESizeY(); ++j) {
        const float* band = reinterpret_cast<const float*>(m.GetMatrixDataDirectly()[j]);
        out.insert(out.end(), band, band + 4 * m.GetSSESizeX());
    }
    return out;
}

// The inverse of storedFloats(): writes every stored float, padding rows included.
inline void setStoredFloats(CSSEMatrix& m, const std::vector<float>& values)
{
    size_t i = 0;
    for (int j = 0; j < m.GetSSESizeY(); ++j) {
        float* band = reinterpret_cast<float*>(m.GetMatrixDataDirectly()[j]);
        for (int k = 0; k < 4 * m.GetSSESizeX(); ++k)
            band[k] = values[i++];
    }
}

// Index of pixel (x, y) in storedFloats(), padding rows included.
inline size_t storedIndex(const CSSEMatrix& m, int x, int y)
{
    return (static_cast<size_t>(y >> 2) * m.GetSSESizeX() + x) * 4 + (y & 3);
}

// Equal bits, or NaN on both sides: with two NaN operands the hardware keeps the first
// one's payload, and the model's operand order is the compiler's choice.
inline bool sameFloat(float a, float b)
{
    return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b));
}

inline ::testing::AssertionResult sameFloats(const std::vector<float>& expected, const std::vector<float>& actual)
{
    if (expected.size() != actual.size())
        return ::testing::AssertionFailure() << "sizes " << expected.size() << " and " << actual.size();
    for (size_t i = 0; i < expected.size(); ++i)
        if (!sameFloat(expected[i], actual[i]))
            return ::testing::AssertionFailure() << "float " << i << ": expected " << expected[i] << ", got "
                                                 << actual[i];
    return ::testing::AssertionSuccess();
}

// Widths and heights 0..40 (a multiple of four every other time), at least min.
inline void randomShape(std::mt19937& rng, int& sizeX, int& sizeY, int minX = 0, int minY = 0)
{
    sizeX = std::uniform_int_distribution<int>(minX, 40)(rng);
    sizeY = std::uniform_int_distribution<int>(minY, 40)(rng);
    if (rng() % 2 == 0 && (sizeY & ~3) >= minY)
        sizeY &= ~3;
}

// Bounds and their float neighbours, so that ties and near-ties happen.
inline std::vector<float> around(float a, float b)
{
    return {std::nextafter(a, -kInf), a, std::nextafter(a, kInf), std::nextafter(b, -kInf), b, std::nextafter(b, kInf)};
}

inline std::vector<float> around(float a) { return around(a, a); }

// Ordinary numbers, exact small integers (ties with thresholds), signed zeros and NaN.
inline float randomValue(std::mt19937& rng)
{
    switch (std::uniform_int_distribution<int>(0, 9)(rng)) {
    case 0: return kNaN;
    case 1: return 0.0f;
    case 2: return -0.0f;
    case 3: return static_cast<float>(std::uniform_int_distribution<int>(-5, 5)(rng));
    default: return std::uniform_real_distribution<float>(-10.0f, 10.0f)(rng);
    }
}

// Every stored float, padding included: a third from `specials`, the rest from randomValue;
// without NaN on request, so that sums and extremes are not swamped by it.
inline CSSEMatrix randomMatrix(std::mt19937& rng, int sizeX, int sizeY, const std::vector<float>& specials = {},
                               bool withNaN = true)
{
    CSSEMatrix m;
    m.Create(sizeX, sizeY);
    for (int j = 0; j < m.GetSSESizeY(); ++j)
        for (int k = 0; k < 4 * sizeX; ++k) {
            const float f = !specials.empty() && rng() % 3 == 0 ? specials[rng() % specials.size()] : randomValue(rng);
            reinterpret_cast<float*>(m.GetMatrixDataDirectly()[j])[k] = withNaN || !std::isnan(f) ? f : 0.25f;
        }
    return m;
}

// A width x height matrix holding the values row by row; padding rows stay 0.
inline CSSEMatrix matrixOf(int width, int height, std::initializer_list<float> rowByRow)
{
    CSSEMatrix m;
    m.Create(width, height);
    int i = 0;
    for (float v : rowByRow) {
        m.SetPointUnsafe(i % width, i / width, v);
        ++i;
    }
    return m;
}

inline std::vector<float> realPixels(const CSSEMatrix& m)
{
    std::vector<float> out;
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            out.push_back(m.GetPointUnsafe(x, y));
    return out;
}

// The old stored floats of a matrix, read by pixel (padding rows included).
struct Pixels {
    const CSSEMatrix& m;
    std::vector<float> v;
    explicit Pixels(const CSSEMatrix& matrix) : m(matrix), v(storedFloats(matrix)) {}
    float operator()(int x, int y) const { return v[storedIndex(m, x, y)]; }
    int width() const { return m.GetSizeX(); }
    int height() const { return m.GetSizeY(); }
    bool stores(int x, int y) const { return x < m.GetSSESizeX() && (y >> 2) < m.GetSSESizeY(); }
};

// An operation on a matrix and a partner, the numbers it yields, and a scalar model that
// gives the same numbers from the old contents of both. A "this"-extent operation gets a
// partner at least as large, any other one a partner of any size from 1 x 1.
struct Rule {
    std::string name;
    bool partnerAtLeastAsLarge;
    std::function<std::vector<float>(CSSEMatrix& m, CSSEMatrix& other)> apply;
    std::function<std::vector<float>(const Pixels& p, const Pixels& o)> model;
    std::vector<float> specials;
};

inline void PrintTo(const Rule& rule, std::ostream* os) { *os << rule.name; }
inline std::string ruleName(const ::testing::TestParamInfo<Rule>& info) { return info.param.name; }

using PixelModel = std::function<float(const Pixels& p, const Pixels& o, int x, int y)>;

// An in-place operation yields every stored float of this matrix; the model gives each
// stored pixel, padding rows included.
inline Rule inPlace(std::string name, bool partnerAtLeastAsLarge, std::function<void(CSSEMatrix&, CSSEMatrix&)> op,
                    PixelModel f, std::vector<float> specials)
{
    return {std::move(name), partnerAtLeastAsLarge,
            [op](CSSEMatrix& m, CSSEMatrix& o) {
                op(m, o);
                return storedFloats(m);
            },
            [f](const Pixels& p, const Pixels& o) {
                std::vector<float> want = p.v;
                for (int y = 0; y < 4 * p.m.GetSSESizeY(); ++y)
                    for (int x = 0; x < p.width(); ++x)
                        want[storedIndex(p.m, x, y)] = f(p, o, x, y);
                return want;
            },
            std::move(specials)};
}

// Lane by lane over the columns and bands both matrices store; elsewhere pixels are kept.
inline PixelModel lanewise(std::function<float(float, float)> f)
{
    return [f](const Pixels& p, const Pixels& o, int x, int y) {
        return o.stores(x, y) ? f(p(x, y), o(x, y)) : p(x, y);
    };
}

// An in-place operation whose rule sees only the pixel.
inline Rule pixelRule(std::string name, std::function<void(CSSEMatrix&)> op, std::function<float(float)> f,
                      std::vector<float> specials)
{
    return inPlace(std::move(name), false, [op](CSSEMatrix& m, CSSEMatrix&) { op(m); },
                   [f](const Pixels& p, const Pixels&, int x, int y) { return f(p(x, y)); }, std::move(specials));
}

// Applies the rule to random pairs of many shapes, compares what it yields with the model,
// and checks that the partner is left as it was.
inline void checkRule(const Rule& rule, unsigned seed, int iterations = 60)
{
    std::mt19937 rng(seed);
    for (int iteration = 0; iteration < iterations; ++iteration) {
        int sx, sy, ox, oy;
        randomShape(rng, sx, sy);
        randomShape(rng, ox, oy, rule.partnerAtLeastAsLarge ? sx : 1, rule.partnerAtLeastAsLarge ? sy : 1);
        CSSEMatrix m = randomMatrix(rng, sx, sy, rule.specials);
        CSSEMatrix other = randomMatrix(rng, ox, oy, rule.specials);
        const Pixels partner(other);
        const std::vector<float> want = rule.model(Pixels(m), partner);
        ASSERT_TRUE(sameFloats(want, rule.apply(m, other))) << sx << " x " << sy << " with " << ox << " x " << oy;
        ASSERT_TRUE(sameFloats(partner.v, storedFloats(other))) << "partner changed";
    }
}

} // namespace qzsse::test
