#include <cmath>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"
#include "qzsse/matrix/CSSEcharMatrix.h"

using namespace qzsse::test;

namespace {

// trunc(i * scale + 0.5) limited to [0, size - 1].
int clampedIndex(int i, float scale, int size)
{
    const float t = std::trunc(static_cast<float>(i) * scale + 0.5f);
    return t < 0.0f ? 0 : t > static_cast<float>(size - 1) ? size - 1 : static_cast<int>(t);
}

// Over the common extent (all lanes) the pixel becomes 0 where erase(p, partner) holds.
Rule eraser(const char* name, void (*op)(CSSEMatrix&, CSSEMatrix&), bool (*erase)(float, float),
            std::vector<float> specials)
{
    return inPlace(name, false, op, lanewise([erase](float p, float o) { return erase(p, o) ? 0.0f : p; }),
                   std::move(specials));
}

// Each real pixel samples the stencil at the clamped, rounded scaled position; below 5 erases.
Rule scaledStencil(const char* name, float sx, float sy)
{
    return inPlace(
        name, false, [sx, sy](CSSEMatrix& m, CSSEMatrix& s) { m.Stencil(s, sx, sy); },
        [sx, sy](const Pixels& p, const Pixels& s, int x, int y) {
            const float sample = s(clampedIndex(x, sx, s.width()), clampedIndex(y, sy, s.height()));
            return y < p.height() && sample < 5.0f ? 0.0f : p(x, y);
        },
        around(5.0f));
}

// The byte stencil is sampled the same way, even for a scale of 1; a zero byte erases. Its
// bytes come from the partner: 0 where that is not above 0, else -128 or 127.
Rule byteStencil(const char* name, float sx, float sy)
{
    return inPlace(
        name, false,
        [sx, sy](CSSEMatrix& m, CSSEMatrix& o) {
            CSSEcharMatrix stencil;
            stencil.Create(o.GetSizeX(), o.GetSizeY());
            for (int y = 0; y < o.GetSizeY(); ++y)
                for (int x = 0; x < o.GetSizeX(); ++x) {
                    const int byte = o.GetPoint(x, y) > 0.0f ? (x + y) % 2 * 255 - 128 : 0;
                    stencil.SetPoint(x, y, static_cast<signed char>(byte));
                }
            m.Stencil(stencil, sx, sy);
        },
        [sx, sy](const Pixels& p, const Pixels& s, int x, int y) {
            const float sample = s(clampedIndex(x, sx, s.width()), clampedIndex(y, sy, s.height()));
            return y < p.height() && !(sample > 0.0f) ? 0.0f : p(x, y);
        },
        {});
}

// Real pixel (x, y) samples the mask at trunc((x - dx) * scale + 0.5), trunc(y - dy + 0.5) and
// becomes 0 where that lies outside the mask or the mask is below 0.5.
Rule placedMask(const char* name, int dx, int dy, float scale)
{
    return inPlace(
        name, false, [=](CSSEMatrix& m, CSSEMatrix& k) { m.MaskMatrix(k, 0.5f, dx, dy, scale, 1.0f); },
        [=](const Pixels& p, const Pixels& k, int x, int y) {
            const float fx = static_cast<float>(x - dx) * scale + 0.5f, fy = static_cast<float>(y - dy) + 0.5f;
            if (y >= p.height())
                return p(x, y);
            if (fx < 0.0f || fy < 0.0f || std::trunc(fx) >= k.width() || std::trunc(fy) >= k.height())
                return 0.0f;
            return k(static_cast<int>(fx), static_cast<int>(fy)) < 0.5f ? 0.0f : p(x, y);
        },
        around(0.5f));
}

// Real pixels of the common extent where the mask is below 3: 42 where -1 < p < 3 holds
// (inside) or fails (!inside).
Rule maskOutWithValue(const char* name, bool inside)
{
    return inPlace(
        name, false,
        [inside](CSSEMatrix& m, CSSEMatrix& k) { m.MaskOutWithValue(k, -1.0f, 3.0f, 3.0f, 42.0f, inside); },
        [inside](const Pixels& p, const Pixels& k, int x, int y) {
            const bool real = y < p.height() && y < k.height() && x < k.width();
            return real && k(x, y) < 3.0f && (-1.0f < p(x, y) && p(x, y) < 3.0f) == inside ? 42.0f : p(x, y);
        },
        around(-1.0f, 3.0f));
}

} // namespace

class Mask : public ::testing::TestWithParam<Rule> {};

TEST_P(Mask, MatchesPerPixelRule) { checkRule(GetParam(), 3, 80); }

INSTANTIATE_TEST_SUITE_P(Operations, Mask, ::testing::Values(
    eraser("MaskOut", [](CSSEMatrix& m, CSSEMatrix& k) { m.MaskOut(k); },
           [](float p, float k) { return k < 0.1f || p < 0.0f; }, around(0.1f)),
    eraser("MaskOutAndValidate", [](CSSEMatrix& m, CSSEMatrix& k) { m.MaskOutAndValidate(k); },
           [](float p, float k) { return k < 0.1f && p > 0.0f; }, around(0.1f)),
    eraser("StencilThreshAbove", [](CSSEMatrix& m, CSSEMatrix& s) { m.StencilThreshAbove(s, 2.0f); },
           [](float, float s) { return s < 2.0f; }, around(2.0f)),
    eraser("StencilThreshBelow", [](CSSEMatrix& m, CSSEMatrix& s) { m.StencilThreshBelow(s, 2.0f); },
           [](float, float s) { return s < 2.0f; }, around(2.0f)),
    eraser("StencilUnitScale", [](CSSEMatrix& m, CSSEMatrix& s) { m.Stencil(s, 1.0f, 1.0f); },
           [](float, float s) { return s < 5.0f; }, around(5.0f)),
    scaledStencil("StencilDoubleWidth", 2.0f, 1.0f), scaledStencil("StencilUnitWidthTallerRows", 1.0f, 3.1f),
    scaledStencil("StencilHalf", 0.5f, 3.1f), scaledStencil("StencilFractional", 1.7f, 0.3f),
    scaledStencil("StencilNegative", -1.0f, 3.1f),
    placedMask("MaskMatrixLeftDown", -3, 2, 1.0f), placedMask("MaskMatrixRightUpHalf", 2, -5, 0.5f),
    placedMask("MaskMatrixScaled", 0, 0, 2.5f), placedMask("MaskMatrixFarOff", 5, 7, 1.0f),
    maskOutWithValue("MaskOutWithValueInside", true), maskOutWithValue("MaskOutWithValueOutside", false),
    byteStencil("ByteStencilUnitScale", 1.0f, 1.0f), byteStencil("ByteStencilScaled", 0.75f, 1.5f)),
    ruleName);

// One function under two names: Below does not reverse the test, and a NaN stencil erases nothing.
TEST(StencilThresh, BelowIsTheSameTestAsAbove)
{
    CSSEMatrix m = matrixOf(1, 4, {1.0f, 2.0f, 3.0f, 4.0f});
    CSSEMatrix stencil = matrixOf(1, 4, {1.0f, 5.0f, 9.0f, kNaN});
    m.StencilThreshBelow(stencil, 5.0f);
    EXPECT_EQ(realPixels(m), (std::vector<float>{0.0f, 2.0f, 3.0f, 4.0f}));
}

// Column trunc(x * 2 + 0.5) of the stencil, clamped: 0, 2, 4 and 6 -> 4; below 5.0 erases.
TEST(Stencil, OtherScalesSampleTheStencilForRealPixels)
{
    CSSEMatrix m = matrixOf(4, 1, {}), stencil = matrixOf(5, 1, {9, 0, 5, 9, 4.99f});
    m.Fill(1.0f);
    m.Stencil(stencil, 2.0f, 1.0f);
    EXPECT_EQ(storedFloats(m), (std::vector<float>{1, 1, 1, 1, 1, 1, 1, 1, 0, 1, 1, 1, 0, 1, 1, 1})); // padding kept
}
