#include <algorithm>
#include <cmath>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"

using qzsse::test::floatBits;
using qzsse::test::sameBits;
using qzsse::test::storedFloats;
using qzsse::test::storedIndex;

namespace {

const float kNaN = std::numeric_limits<float>::quiet_NaN();

// Where a footprint of `span` pixels starts when the caller asks for it to start at
// `start`: as close as possible while lying wholly inside [0, size).
int placeFootprint(int start, int span, int size)
{
    return std::min(std::max(start, 0), size - span);
}

enum class Combine { Store, Min, Max };

float combine(Combine c, float old, float v)
{
    switch (c) {
    case Combine::Min: return (v > old) ? old : v;
    case Combine::Max: return (old > v) ? old : v;
    default: return v;
    }
}

// A writer is described by its footprint: spanX x spanY pixels, with the requested
// point offX/offY pixels from the footprint's top-left corner. A cross leaves out the
// corners of its 3 x 3 footprint.
struct Writer {
    std::string name;
    void (CSSEMatrix::*fn)(int, int, float);
    int spanX, offX, spanY, offY;
    bool cross;
    Combine op;
};

const Writer kWriters[] = {
    {"SetPoint", &CSSEMatrix::SetPoint, 1, 0, 1, 0, false, Combine::Store},
    {"SetPointMin", &CSSEMatrix::SetPointMin, 1, 0, 1, 0, false, Combine::Min},
    {"SetPointMax", &CSSEMatrix::SetPointMax, 1, 0, 1, 0, false, Combine::Max},
    {"SetPointAndRightOfPoint", &CSSEMatrix::SetPointAndRightOfPoint, 2, 0, 1, 0, false, Combine::Store},
    {"SetPointAndLeftOfPoint", &CSSEMatrix::SetPointAndLeftOfPoint, 2, 1, 1, 0, false, Combine::Store},
    {"SetTriplePointMin", &CSSEMatrix::SetTriplePointMin, 3, 1, 1, 0, false, Combine::Min},
    {"SetTriplePointMax", &CSSEMatrix::SetTriplePointMax, 3, 1, 1, 0, false, Combine::Max},
    {"SetCross", &CSSEMatrix::SetCross, 3, 1, 3, 1, true, Combine::Store},
    {"SetCrossMin", &CSSEMatrix::SetCrossMin, 3, 1, 3, 1, true, Combine::Min},
    {"SetCrossMax", &CSSEMatrix::SetCrossMax, 3, 1, 3, 1, true, Combine::Max},
    {"Set3x3BoxPoint", &CSSEMatrix::Set3x3BoxPoint, 3, 1, 3, 1, false, Combine::Store},
    {"Set3x3BoxPointMin", &CSSEMatrix::Set3x3BoxPointMin, 3, 1, 3, 1, false, Combine::Min},
    {"Set3x3BoxPointMax", &CSSEMatrix::Set3x3BoxPointMax, 3, 1, 3, 1, false, Combine::Max},
    {"Set5x5BoxPointMin", &CSSEMatrix::Set5x5BoxPointMin, 5, 2, 5, 2, false, Combine::Min},
    {"Set5x5BoxPointMax", &CSSEMatrix::Set5x5BoxPointMax, 5, 2, 5, 2, false, Combine::Max},
    {"Set11x11BoxPointMax", &CSSEMatrix::Set11x11BoxPointMax, 11, 5, 11, 5, false, Combine::Max},
};

void expectSameStorage(const std::vector<float>& got, const std::vector<float>& want, const std::string& what)
{
    ASSERT_EQ(got.size(), want.size());
    for (size_t i = 0; i < got.size(); ++i)
        ASSERT_TRUE(sameBits(got[i], want[i])) << what << ": float " << i << " is " << got[i]
                                               << ", expected " << want[i];
}

} // namespace

TEST(PointAccess, WritersMoveTheirFootprintInsideTheImage)
{
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> sizeDist(11, 17);
    for (const Writer& w : kWriters) {
        for (int round = 0; round < 150; ++round) {
            CSSEMatrix m;
            const int sx = sizeDist(rng), sy = sizeDist(rng);
            m.Create(sx, sy);
            qzsse::test::fillRandom(m, rng);
            const int x = std::uniform_int_distribution<int>(-4, sx + 3)(rng);
            const int y = std::uniform_int_distribution<int>(-4, sy + 3)(rng);
            const float v = qzsse::test::randomValue(rng);

            std::vector<float> want = storedFloats(m);
            const int left = placeFootprint(x - w.offX, w.spanX, sx);
            const int top = placeFootprint(y - w.offY, w.spanY, sy);
            for (int py = top; py < top + w.spanY; ++py)
                for (int px = left; px < left + w.spanX; ++px) {
                    if (w.cross && px != left + 1 && py != top + 1)
                        continue;
                    float& cell = want[storedIndex(m, px, py)];
                    cell = combine(w.op, cell, v);
                }
            (m.*w.fn)(x, y, v);
            expectSameStorage(storedFloats(m), want,
                              w.name + " at " + std::to_string(x) + "," + std::to_string(y));
        }
    }
}

TEST(PointAccess, ReadersClampIntoTheImage)
{
    std::mt19937 rng(6);
    CSSEMatrix m;
    m.Create(7, 10);
    qzsse::test::fillRandom(m, rng);
    const std::vector<float> stored = storedFloats(m);
    float* base = reinterpret_cast<float*>(m.GetMatrixDataDirectly()[0]);
    for (int y = -3; y < 14; ++y)
        for (int x = -3; x < 11; ++x) {
            const int px = std::clamp(x, 0, 6), py = std::clamp(y, 0, 9);
            EXPECT_TRUE(sameBits(m.GetPoint(x, y), stored[storedIndex(m, px, py)]));
            EXPECT_TRUE(sameBits(m.GetPointValue(x, y), stored[storedIndex(m, px, py)]));
            // One field: the address is an offset into the single block.
            EXPECT_EQ(m.GetPointAddress(x, y), base + storedIndex(m, px, py));
        }
    EXPECT_EQ(m.GetPointAddress(3, 5) - m.GetPointAddress(2, 5), 4);
    EXPECT_EQ(m.GetPointAddress(3, 5) - m.GetPointAddress(3, 4), 1);
}

TEST(PointAccess, MinMaxFormsAlwaysStoreNaNAndReplaceNaN)
{
    CSSEMatrix m;
    m.Create(12, 12);
    m.Fill(2.0f);
    m.SetPointMin(0, 0, kNaN);
    m.SetPointMax(1, 0, kNaN);
    m.Set5x5BoxPointMin(6, 6, kNaN);
    EXPECT_TRUE(std::isnan(m.GetPoint(0, 0)));
    EXPECT_TRUE(std::isnan(m.GetPoint(1, 0)));
    for (int y = 4; y <= 8; ++y)
        for (int x = 4; x <= 8; ++x)
            EXPECT_TRUE(std::isnan(m.GetPoint(x, y)));
    // A NaN pixel gives way to any value, in both directions.
    m.SetPointMin(0, 0, 5.0f);
    m.SetPointMax(1, 0, -5.0f);
    m.Set11x11BoxPointMax(6, 6, -1.0f);
    EXPECT_EQ(m.GetPoint(0, 0), 5.0f);
    EXPECT_EQ(m.GetPoint(1, 0), -5.0f);
    EXPECT_EQ(m.GetPoint(6, 6), -1.0f);
    EXPECT_EQ(m.GetPoint(1, 1), 2.0f); // inside the 11x11 box but not NaN: the larger stays
    // Equal values: the new one is stored, which shows on signed zeros.
    m.SetPoint(2, 2, 0.0f);
    m.SetPointMin(2, 2, -0.0f);
    EXPECT_EQ(floatBits(m.GetPoint(2, 2)), 0x80000000u);
    m.SetPointMax(2, 2, 0.0f);
    EXPECT_EQ(floatBits(m.GetPoint(2, 2)), 0u);
}

TEST(PointAccess, Max3x3LooksAtTheCrossOnly)
{
    CSSEMatrix m;
    m.Create(5, 5);
    m.SetPoint(1, 1, 100.0f);
    m.SetPoint(3, 3, 100.0f);
    m.SetPoint(1, 3, 100.0f);
    m.SetPoint(3, 1, 100.0f);
    m.SetPoint(2, 1, 3.0f);
    EXPECT_EQ(m.GetPointMax3x3(2, 2), 3.0f);

    std::mt19937 rng(7);
    std::uniform_real_distribution<float> value(-10.0f, 10.0f);
    for (int round = 0; round < 300; ++round) {
        const int sx = 3 + round % 6, sy = 3 + round % 5;
        m.Create(sx, sy);
        for (int y = 0; y < sy; ++y)
            for (int x = 0; x < sx; ++x)
                m.SetPoint(x, y, value(rng));
        const int x = std::uniform_int_distribution<int>(-3, sx + 2)(rng);
        const int y = std::uniform_int_distribution<int>(-3, sy + 2)(rng);
        const int cx = placeFootprint(x - 1, 3, sx) + 1, cy = placeFootprint(y - 1, 3, sy) + 1;
        const float want = std::max({m.GetPoint(cx, cy), m.GetPoint(cx - 1, cy), m.GetPoint(cx + 1, cy),
                                     m.GetPoint(cx, cy - 1), m.GetPoint(cx, cy + 1)});
        ASSERT_EQ(m.GetPointMax3x3(x, y), want) << sx << "x" << sy << " at " << x << "," << y;
    }
}

TEST(PixelPreciseFloat, InterpolatesBilinearly)
{
    CSSEMatrix m;
    m.Create(5, 6);
    m.SetPoint(3, 3, 2.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(2.5f, 3.0f, false), 1.0f);

    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 5; ++x)
            m.SetPoint(x, y, static_cast<float>(10 * x + y));
    // 0.375 * 12 + 0.125 * 22 + 0.375 * 13 + 0.125 * 23
    EXPECT_EQ(m.GetPixelPreciseFloat(1.25f, 2.5f, false), 15.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(1.25f, 2.5f, true), 15.0f);

    std::mt19937 rng(8);
    std::uniform_real_distribution<float> value(-10.0f, 10.0f);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 5; ++x)
            m.SetPoint(x, y, value(rng));
    std::uniform_real_distribution<float> cx(1.0f, 3.0f), cy(1.0f, 4.0f);
    for (int i = 0; i < 500; ++i) {
        const float x = cx(rng), y = cy(rng);
        const int ix = static_cast<int>(x), iy = static_cast<int>(y);
        const double fx = x - ix, fy = y - iy;
        const double want = (1 - fy) * ((1 - fx) * m.GetPoint(ix, iy) + fx * m.GetPoint(ix + 1, iy))
                          + fy * ((1 - fx) * m.GetPoint(ix, iy + 1) + fx * m.GetPoint(ix + 1, iy + 1));
        ASSERT_NEAR(m.GetPixelPreciseFloat(x, y, false), want, 1e-4) << x << "," << y;
    }
}

TEST(PixelPreciseFloat, OuterRingIsReachedOnlyFromInside)
{
    CSSEMatrix m;
    m.Create(5, 6);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 5; ++x)
            m.SetPoint(x, y, static_cast<float>(10 * x + y));
    EXPECT_EQ(m.GetPixelPreciseFloat(0.3f, 2.0f, false), 12.0f);  // column 1, not 0.3 of the way
    EXPECT_EQ(m.GetPixelPreciseFloat(0.0f, 2.0f, false), 12.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(-2.5f, 2.0f, false), 12.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(4.0f, 2.0f, false), 42.0f);  // last column as right neighbour
    EXPECT_EQ(m.GetPixelPreciseFloat(4.75f, 2.0f, false), 42.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(40.0f, 2.0f, false), 42.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(2.0f, 0.5f, false), 21.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(2.0f, 5.5f, false), 25.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(-1.0f, -1.0f, false), 11.0f);

    // Two pixels wide: the corner is pulled up to 1, then back down to 0.
    CSSEMatrix tiny;
    tiny.Create(2, 2);
    tiny.SetPoint(0, 0, 1.0f);
    tiny.SetPoint(1, 0, 2.0f);
    tiny.SetPoint(0, 1, 3.0f);
    tiny.SetPoint(1, 1, 4.0f);
    EXPECT_EQ(tiny.GetPixelPreciseFloat(0.5f, 0.5f, false), 2.5f);
    EXPECT_EQ(tiny.GetPixelPreciseFloat(0.0f, 0.0f, false), 1.0f);
    EXPECT_EQ(tiny.GetPixelPreciseFloat(1.0f, 1.0f, false), 4.0f);
}

TEST(ProcessedRow, FillReplicatesTheLastFinishedRowDownwards)
{
    struct Case { int sx, sy, rowProcessed; };
    const Case cases[] = {{3, 10, 5}, {3, 10, 4}, {3, 10, 0}, {3, 10, -3}, {3, 10, 7}, {3, 10, 9},
                          {3, 10, 20}, {3, 8, 7}, {3, 8, 5}, {2, 1, 0}, {2, 300, 150}, {3, 0, 0}};
    std::mt19937 rng(9);
    for (const Case& c : cases) {
        CSSEMatrix m;
        m.Create(c.sx, c.sy);
        qzsse::test::fillRandom(m, rng);
        m.SetRowProcessed(c.rowProcessed);
        std::vector<float> want = storedFloats(m);
        if (c.sy > 0) {
            const int r = std::clamp(c.rowProcessed, 0, c.sy - 1);
            const int paddedRows = 4 * m.GetSSESizeY();
            for (int y = r + 1; y < paddedRows; ++y) {
                // Padding rows in r's own band keep their values; later bands take row r.
                if (y >= c.sy && y / 4 == r / 4)
                    continue;
                for (int x = 0; x < c.sx; ++x)
                    want[storedIndex(m, x, y)] = want[storedIndex(m, x, r)];
            }
        }
        m.FillMatrixWithProcessedRow();
        expectSameStorage(storedFloats(m), want,
                          std::to_string(c.sx) + "x" + std::to_string(c.sy) + " row " +
                              std::to_string(c.rowProcessed));
    }
}
