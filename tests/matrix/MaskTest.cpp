#include <cmath>
#include <functional>
#include <limits>

#include <gtest/gtest.h>

#include "matrix/ReductionModel.h"
#include "qzsse/matrix/CSSEcharMatrix.h"

namespace {

using namespace qzsse::test;

const float nan = std::numeric_limits<float>::quiet_NaN();

std::vector<float> join(std::vector<float> a, const std::vector<float>& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

// trunc(i * scale + 0.5) limited to [0, size - 1].
int clampedIndex(int i, float scale, int size)
{
    const float t = std::trunc(static_cast<float>(i) * scale + 0.5f);
    return t < 0.0f ? 0 : t > static_cast<float>(size - 1) ? size - 1 : static_cast<int>(t);
}

// Runs `apply(m, partner)` on random pairs of any sizes and compares every stored float of m
// with `expected(m's old copy, partner's copy, x, y)`, which sees every row, padding included.
void checkAgainstModel(unsigned seed, const std::vector<float>& specials,
                       const std::function<void(CSSEMatrix&, CSSEMatrix&)>& apply,
                       const std::function<float(const CSSEMatrix&, const std::vector<float>&, const CSSEMatrix&,
                                                 const std::vector<float>&, int, int)>& expected)
{
    std::mt19937 rng(seed);
    for (int iteration = 0; iteration < 80; ++iteration) {
        int sx, sy, ox, oy;
        randomShape(rng, sx, sy);
        randomShape(rng, ox, oy, 1, 1);
        CSSEMatrix m = randomMatrix(rng, sx, sy, specials);
        CSSEMatrix partner = randomMatrix(rng, ox, oy, specials);
        const std::vector<float> s = storedFloats(m);
        const std::vector<float> o = storedFloats(partner);
        std::vector<float> want = s;
        for (int y = 0; y < 4 * m.GetSSESizeY(); ++y)
            for (int x = 0; x < sx; ++x)
                want[storedIndex(m, x, y)] = expected(m, s, partner, o, x, y);
        apply(m, partner);
        ASSERT_TRUE(sameFloats(want, storedFloats(m))) << sx << " x " << sy << " with " << ox << " x " << oy;
        ASSERT_TRUE(sameFloats(o, storedFloats(partner)));
    }
}

// A common-extent rule erase(p, o): the pixel becomes 0 where it holds, in every lane of the
// bands and columns both matrices have.
std::function<float(const CSSEMatrix&, const std::vector<float>&, const CSSEMatrix&, const std::vector<float>&,
                    int, int)>
commonExtentEraser(std::function<bool(float, float)> erase)
{
    return [erase](const CSSEMatrix& m, const std::vector<float>& s, const CSSEMatrix& other,
                   const std::vector<float>& o, int x, int y) {
        const float p = pixelOf(s, m, x, y);
        if (x >= other.GetSizeX() || (y >> 2) >= other.GetSSESizeY())
            return p;
        return erase(p, pixelOf(o, other, x, y)) ? 0.0f : p;
    };
}

TEST(MaskOut, ErasesWhereMaskIsLowOrPixelNegative)
{
    const std::vector<float> specials = join(around(0.1f), {0.0f, -0.0f});
    checkAgainstModel(1, specials, [](CSSEMatrix& m, CSSEMatrix& k) { m.MaskOut(k); },
                      commonExtentEraser([](float p, float k) { return k < 0.1f || p < 0.0f; }));
    checkAgainstModel(2, specials, [](CSSEMatrix& m, CSSEMatrix& k) { m.MaskOutAndValidate(k); },
                      commonExtentEraser([](float p, float k) { return k < 0.1f && p > 0.0f; }));
}

TEST(StencilThresh, BothNamesEraseWhereStencilIsBelow)
{
    auto below = commonExtentEraser([](float, float s) { return s < 2.0f; });
    checkAgainstModel(3, around(2.0f), [](CSSEMatrix& m, CSSEMatrix& s) { m.StencilThreshAbove(s, 2.0f); }, below);
    checkAgainstModel(3, around(2.0f), [](CSSEMatrix& m, CSSEMatrix& s) { m.StencilThreshBelow(s, 2.0f); }, below);

    CSSEMatrix m = column({1.0f, 2.0f, 3.0f, 4.0f});
    CSSEMatrix stencil = column({1.0f, 5.0f, 9.0f, nan});
    m.StencilThreshBelow(stencil, 5.0f);
    EXPECT_EQ(realColumn(m), (std::vector<float>{0.0f, 2.0f, 3.0f, 4.0f}));
}

TEST(Stencil, UnitScalePairsVectorsOverTheCommonExtent)
{
    checkAgainstModel(4, around(5.0f), [](CSSEMatrix& m, CSSEMatrix& s) { m.Stencil(s, 1.0f, 1.0f); },
                      commonExtentEraser([](float, float s) { return s < 5.0f; }));

    // A 2 x 2 zero stencil reaches band 0 of the first two columns only.
    CSSEMatrix m;
    m.Create(3, 4);
    m.Fill(1.0f);
    CSSEMatrix stencil;
    stencil.Create(2, 2);
    m.Stencil(stencil, 1.0f, 1.0f);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 3; ++x)
            EXPECT_EQ(storedFloats(m)[storedIndex(m, x, y)], (x < 2 && y < 4) ? 0.0f : 1.0f) << x << ", " << y;
}

TEST(Stencil, OtherScalesSampleTheStencilForRealPixels)
{
    CSSEMatrix m;
    m.Create(4, 2);
    m.Fill(1.0f);
    CSSEMatrix stencil;
    stencil.Create(5, 2);
    const float rows[2][5] = {{9, 0, 0, 9, 5.0f}, {0, 9, 9, 0, 4.99f}};
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 5; ++x)
            stencil.SetPointUnsafe(x, y, rows[y][x]);
    m.Stencil(stencil, 2.0f, 1.0f); // columns 0, 2, 4 and 6 clamped to 4
    const float expected[2][4] = {{1, 0, 1, 1}, {0, 1, 0, 0}};
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 4; ++x)
            EXPECT_EQ(m.GetPointUnsafe(x, y), expected[y][x]) << x << ", " << y;
    EXPECT_EQ(m.GetPointUnsafe(3, 3), 1.0f); // padding is not a real pixel

    for (float scale : {2.0f, 0.5f, 1.7f, 0.3f, -1.0f}) {
        const float sy = scale == 2.0f ? 1.0f : 3.1f;
        checkAgainstModel(5, around(5.0f), [&](CSSEMatrix& m, CSSEMatrix& s) { m.Stencil(s, scale, sy); },
                          [&](const CSSEMatrix& m, const std::vector<float>& s, const CSSEMatrix& st,
                              const std::vector<float>& o, int x, int y) {
                              const float p = pixelOf(s, m, x, y);
                              if (y >= m.GetSizeY())
                                  return p;
                              const int c = clampedIndex(x, scale, st.GetSizeX());
                              const int r = clampedIndex(y, sy, st.GetSizeY());
                              return pixelOf(o, st, c, r) < 5.0f ? 0.0f : p;
                          });
    }
}

TEST(Stencil, ByteStencilErasesWhereTheSampleIsZero)
{
    std::mt19937 rng(6);
    for (int iteration = 0; iteration < 60; ++iteration) {
        int sx, sy, cx, cy;
        randomShape(rng, sx, sy);
        randomShape(rng, cx, cy, 1, 1);
        const float scaleX = iteration % 3 == 0 ? 1.0f : 0.75f;
        const float scaleY = iteration % 3 == 0 ? 1.0f : 1.5f;
        CSSEMatrix m = randomMatrix(rng, sx, sy, {});
        CSSEcharMatrix stencil;
        stencil.Create(cx, cy);
        for (int y = 0; y < cy; ++y)
            for (int x = 0; x < cx; ++x)
                stencil.SetPoint(x, y, static_cast<signed char>(rng() % 2 ? 0 : static_cast<int>(rng() % 256) - 128));
        std::vector<float> want = storedFloats(m);
        for (int y = 0; y < sy; ++y)
            for (int x = 0; x < sx; ++x)
                if (stencil.GetPoint(clampedIndex(x, scaleX, cx), clampedIndex(y, scaleY, cy)) == 0)
                    want[storedIndex(m, x, y)] = 0.0f;
        m.Stencil(stencil, scaleX, scaleY);
        ASSERT_TRUE(sameFloats(want, storedFloats(m))) << sx << " x " << sy << " with " << cx << " x " << cy;
    }
}

TEST(MaskMatrix, ErasesWhereThePlacedMaskIsLowOrAbsent)
{
    struct Placement {
        int dx, dy;
        float scale;
    };
    for (const Placement& at : {Placement{-3, 2, 1.0f}, Placement{2, -5, 0.5f}, Placement{0, 0, 2.5f},
                                Placement{5, 7, 1.0f}}) {
        const int dx = at.dx, dy = at.dy;
        const float scale = at.scale;
        checkAgainstModel(7, around(0.5f), [&](CSSEMatrix& m, CSSEMatrix& k) { m.MaskMatrix(k, 0.5f, dx, dy, scale, 1.0f); },
                          [&](const CSSEMatrix& m, const std::vector<float>& s, const CSSEMatrix& k,
                              const std::vector<float>& o, int x, int y) {
                              const float p = pixelOf(s, m, x, y);
                              if (y >= m.GetSizeY())
                                  return p;
                              const float cx = std::trunc(static_cast<float>(x - dx) * scale + 0.5f);
                              const float cy = std::trunc(static_cast<float>(y - dy) + 0.5f);
                              const bool inside = static_cast<float>(x - dx) * scale + 0.5f >= 0.0f &&
                                                  static_cast<float>(y - dy) + 0.5f >= 0.0f &&
                                                  cx < static_cast<float>(k.GetSizeX()) &&
                                                  cy < static_cast<float>(k.GetSizeY());
                              if (!inside)
                                  return 0.0f;
                              return pixelOf(o, k, static_cast<int>(cx), static_cast<int>(cy)) < 0.5f ? 0.0f : p;
                          });
    }
}

TEST(MaskOutWithValue, ReplacesInsideOrOutsideTheIntervalWhereMaskIsLow)
{
    for (bool inside : {true, false}) {
        checkAgainstModel(9, join(around(-1.0f), around(3.0f)),
                          [&](CSSEMatrix& m, CSSEMatrix& k) { m.MaskOutWithValue(k, -1.0f, 3.0f, 3.0f, 42.0f, inside); },
                          [&](const CSSEMatrix& m, const std::vector<float>& s, const CSSEMatrix& k,
                              const std::vector<float>& o, int x, int y) {
                              const float p = pixelOf(s, m, x, y);
                              if (y >= m.GetSizeY() || y >= k.GetSizeY() || x >= k.GetSizeX())
                                  return p;
                              const bool between = -1.0f < p && p < 3.0f;
                              return pixelOf(o, k, x, y) < 3.0f && between == inside ? 42.0f : p;
                          });
    }
}

TEST(BinarizeBackground, FlattensEverythingNotAboveTheThreshold)
{
    checkPixelRule(PixelRule{"BinarizeBackground", [](CSSEMatrix& m) { m.BinarizeBackground(1.5f, -7.0f); },
                             [](float p, int) { return 1.5f < p ? p : -7.0f; }, around(1.5f)},
                   10);
}

} // namespace
