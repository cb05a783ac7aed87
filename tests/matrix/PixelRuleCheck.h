#pragma once

// Checks a whole-matrix operation against a plain scalar model of its per-pixel rule on
// random shapes and random contents, padding rows included.

#include <cmath>
#include <functional>
#include <initializer_list>
#include <limits>
#include <ostream>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"

namespace qzsse::test {

// Widths 0..40 and heights 0..40 (a multiple of four every other time), at least min.
inline void randomShape(std::mt19937& rng, int& sizeX, int& sizeY, int minX = 0, int minY = 0)
{
    sizeX = std::uniform_int_distribution<int>(minX, 40)(rng);
    sizeY = std::uniform_int_distribution<int>(minY, 40)(rng);
    if (rng() % 2 == 0 && (sizeY & ~3) >= minY)
        sizeY &= ~3;
}

// A value and its two float neighbours, so that ties and near-ties with a bound happen.
inline std::vector<float> around(float v)
{
    const float inf = std::numeric_limits<float>::infinity();
    return {std::nextafter(v, -inf), v, std::nextafter(v, inf)};
}

// Every stored float: a third of them from `specials`, the rest from randomValue.
inline void fillWithSpecials(CSSEMatrix& m, std::mt19937& rng, const std::vector<float>& specials)
{
    std::vector<float> v(storedFloats(m).size());
    for (float& f : v) {
        if (!specials.empty() && rng() % 3 == 0)
            f = specials[rng() % specials.size()];
        else
            f = randomValue(rng);
    }
    setStoredFloats(m, v);
}

// Equal bits, or NaN on both sides: NaN payloads are not compared, because with two NaN
// operands the hardware keeps the first one's payload and the model's operand order is
// the compiler's choice.
inline ::testing::AssertionResult sameFloats(const std::vector<float>& expected,
                                             const std::vector<float>& actual)
{
    if (expected.size() != actual.size())
        return ::testing::AssertionFailure() << "sizes " << expected.size() << " and " << actual.size();
    for (size_t i = 0; i < expected.size(); ++i) {
        if (!sameBits(expected[i], actual[i]) && !(std::isnan(expected[i]) && std::isnan(actual[i])))
            return ::testing::AssertionFailure()
                   << "stored float " << i << ": expected " << expected[i] << ", got " << actual[i];
    }
    return ::testing::AssertionSuccess();
}

// An operation with its scalar rule; the rule sees the pixel value and its column.
struct PixelRule {
    std::string name;
    std::function<void(CSSEMatrix&)> apply;
    std::function<float(float p, int x)> model;
    std::vector<float> specials;
};

inline void PrintTo(const PixelRule& rule, std::ostream* os) { *os << rule.name; }

inline std::string ruleName(const ::testing::TestParamInfo<PixelRule>& info)
{
    return info.param.name;
}

// Applies the rule to matrices of many shapes and compares every stored float with the
// model applied to its old value.
inline void checkPixelRule(const PixelRule& rule, unsigned seed)
{
    std::mt19937 rng(seed);
    for (int iteration = 0; iteration < 40; ++iteration) {
        int sizeX, sizeY;
        randomShape(rng, sizeX, sizeY);
        CSSEMatrix m;
        m.Create(sizeX, sizeY);
        fillWithSpecials(m, rng, rule.specials);
        std::vector<float> expected = storedFloats(m);
        for (size_t i = 0; i < expected.size(); ++i)
            expected[i] = rule.model(expected[i], static_cast<int>(i / 4 % sizeX));
        rule.apply(m);
        ASSERT_TRUE(sameFloats(expected, storedFloats(m))) << sizeX << " x " << sizeY;
    }
}

// A 1 x 4 matrix whose only real column holds the four values (band 1 is padding).
inline CSSEMatrix column(std::initializer_list<float> values)
{
    CSSEMatrix m;
    m.Create(1, 4);
    int y = 0;
    for (float v : values)
        m.SetPointUnsafe(0, y++, v);
    return m;
}

inline std::vector<float> realColumn(const CSSEMatrix& m)
{
    std::vector<float> all = storedFloats(m);
    return std::vector<float>(all.begin(), all.begin() + 4);
}

} // namespace qzsse::test
