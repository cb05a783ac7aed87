#include <algorithm>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"

using namespace qzsse::test;

namespace {

// Where a footprint of `span` pixels starts when the caller asks for it to start at `start`:
// raised into the image, then lowered so that it ends inside it.
int placeFootprint(int start, int span, int size)
{
    return std::min(std::max(start, 0), size - span);
}

enum class Combine { Store, Min, Max };

// A writer's footprint: spanX x spanY pixels with the requested point offX/offY from its
// top-left corner; a cross leaves out the corners of its 3 x 3 footprint.
struct Writer {
    const char* name;
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

} // namespace

// Near an edge the centre moves inwards and the whole footprint is written. The minimum is
// (v > old) ? old : v and the maximum (old > v) ? old : v, so a NaN v is always stored.
TEST(PointAccess, WritersMoveTheirFootprintInsideTheImage)
{
    std::mt19937 rng(5);
    for (const Writer& w : kWriters) {
        for (int round = 0; round < 150; ++round) {
            const int sx = std::uniform_int_distribution<int>(11, 17)(rng);
            const int sy = std::uniform_int_distribution<int>(11, 17)(rng);
            CSSEMatrix m = randomMatrix(rng, sx, sy);
            const int x = std::uniform_int_distribution<int>(-4, sx + 3)(rng);
            const int y = std::uniform_int_distribution<int>(-4, sy + 3)(rng);
            const float v = randomValue(rng);
            std::vector<float> want = storedFloats(m);
            const int left = placeFootprint(x - w.offX, w.spanX, sx);
            const int top = placeFootprint(y - w.offY, w.spanY, sy);
            for (int py = top; py < top + w.spanY; ++py)
                for (int px = left; px < left + w.spanX; ++px) {
                    float& p = want[storedIndex(m, px, py)];
                    if (!w.cross || px == left + 1 || py == top + 1)
                        p = w.op == Combine::Store ? v : w.op == Combine::Min ? ((v > p) ? p : v) : ((p > v) ? p : v);
                }
            (m.*w.fn)(x, y, v);
            ASSERT_TRUE(sameFloats(want, storedFloats(m))) << w.name << " at " << x << "," << y;
        }
    }
}

TEST(PointAccess, ReadersClampIntoTheImage)
{
    std::mt19937 rng(6);
    CSSEMatrix m = randomMatrix(rng, 7, 10);
    const std::vector<float> stored = storedFloats(m);
    for (int y = -3; y < 14; ++y)
        for (int x = -3; x < 11; ++x) {
            const size_t i = storedIndex(m, std::clamp(x, 0, 6), std::clamp(y, 0, 9));
            EXPECT_PRED2(sameFloat, m.GetPoint(x, y), stored[i]);
            EXPECT_EQ(m.GetPointAddress(x, y), reinterpret_cast<float*>(m.GetMatrixDataDirectly()[0]) + i);
        }
}

// The largest of the five-point cross; the diagonals are not looked at.
TEST(PointAccess, Max3x3LooksAtTheCrossOnly)
{
    CSSEMatrix m = matrixOf(3, 3, {100, 3, 100, 0, 0, 0, 100, 0, 100});
    EXPECT_EQ(m.GetPointMax3x3(1, 1), 3.0f);

    std::mt19937 rng(7);
    for (int round = 0; round < 300; ++round) {
        const int sx = 3 + round % 6, sy = 3 + round % 5;
        m = randomMatrix(rng, sx, sy, {}, false);
        const int x = std::uniform_int_distribution<int>(-3, sx + 2)(rng);
        const int y = std::uniform_int_distribution<int>(-3, sy + 2)(rng);
        const int cx = placeFootprint(x - 1, 3, sx) + 1, cy = placeFootprint(y - 1, 3, sy) + 1;
        const float want = std::max({m.GetPoint(cx, cy), m.GetPoint(cx - 1, cy), m.GetPoint(cx + 1, cy),
                                     m.GetPoint(cx, cy - 1), m.GetPoint(cx, cy + 1)});
        ASSERT_EQ(m.GetPointMax3x3(x, y), want) << sx << "x" << sy << " at " << x << "," << y;
    }
}

// Bilinear in single precision, so f = 10x + y + xy is reproduced exactly inside. The corner
// is kept one pixel inside the image and the fractions clamped to [0, 1], so the outer ring
// is reached only as the neighbour of the ring inside it.
TEST(PixelPreciseFloat, InterpolatesAndReachesTheOuterRingOnlyFromInside)
{
    CSSEMatrix m;
    m.Create(5, 6);
    m.SetPoint(3, 3, 2.0f);
    EXPECT_EQ(m.GetPixelPreciseFloat(2.5f, 3.0f, false), 1.0f);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 5; ++x)
            m.SetPoint(x, y, static_cast<float>(10 * x + y + x * y));
    struct Case { float x, y, want; };
    for (const Case& c : {Case{1.25f, 2.5f, 18.125f}, Case{2.75f, 3.5f, 40.625f}, Case{0.3f, 2.0f, 14.0f},
                          Case{-2.5f, 2.0f, 14.0f}, Case{4.75f, 2.0f, 50.0f}, Case{2.0f, 0.5f, 23.0f},
                          Case{2.0f, 5.5f, 35.0f}})
        EXPECT_EQ(m.GetPixelPreciseFloat(c.x, c.y, true), c.want) << c.x << ", " << c.y;
    // Two pixels wide: the corner is raised to 1, then lowered to 0.
    m = matrixOf(2, 2, {1, 2, 3, 4});
    EXPECT_EQ(m.GetPixelPreciseFloat(0.5f, 0.5f, false), 2.5f);
    EXPECT_EQ(m.GetPixelPreciseFloat(1.0f, 1.0f, false), 4.0f);
}

// Every later row, and the padding rows of later bands, become row r (clamped); padding rows
// in r's own band keep their values.
TEST(ProcessedRow, FillReplicatesTheLastFinishedRowDownwards)
{
    struct Case { int sx, sy, rowProcessed; };
    std::mt19937 rng(9);
    for (const Case& c : {Case{3, 10, 5}, Case{3, 10, 4}, Case{3, 10, -3}, Case{3, 10, 7}, Case{3, 10, 20},
                          Case{3, 8, 7}, Case{3, 8, 5}, Case{2, 1, 0}, Case{2, 300, 150}, Case{3, 0, 0}}) {
        CSSEMatrix m = randomMatrix(rng, c.sx, c.sy);
        m.SetRowProcessed(c.rowProcessed);
        std::vector<float> want = storedFloats(m);
        const int r = std::clamp(c.rowProcessed, 0, std::max(c.sy - 1, 0));
        for (int y = r + 1; c.sy > 0 && y < 4 * m.GetSSESizeY(); ++y)
            for (int x = 0; x < c.sx && (y < c.sy || y / 4 != r / 4); ++x)
                want[storedIndex(m, x, y)] = want[storedIndex(m, x, r)];
        m.FillMatrixWithProcessedRow();
        ASSERT_TRUE(sameFloats(want, storedFloats(m))) << c.sx << "x" << c.sy << " row " << c.rowProcessed;
    }
}
