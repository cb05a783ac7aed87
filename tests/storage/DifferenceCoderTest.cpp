#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <tuple>
#include <vector>

#include <gtest/gtest.h>

#include "storage/StorageTestUtil.h"

using namespace qzsse::storagetest;

namespace {

constexpr float kSpecial = QzCSSEMatrixLibrary::c_fDifferenceCodingPNGSpecialValue;
constexpr int kIterations = QzCSSEMatrixLibrary::c_iNumberOfSmoothingIterations;

struct Coded {
    Bytes bytes;
    float error = 0.0f;
    CSSEMatrix decoded;
};

// Writes matrix against reference and reads it back with a fresh library, as the store does.
Coded Code(const CSSEMatrix& matrix, const CSSEMatrix& reference, const LibraryParameters& params)
{
    Coded c;
    RbStreamWriteBinaryBuffer out;
    EXPECT_TRUE(TestLibrary().serializeMatrix(out, matrix, reference, params, c.error));
    c.bytes = out.GetBytes();
    RbStreamReadBinaryBuffer in(c.bytes.data(), c.bytes.size());
    EXPECT_TRUE(TestLibrary().serializeMatrix(in, c.decoded, reference));
    EXPECT_EQ(in.GetRemaining(), 0u);
    return c;
}

// One smoothing pass written plainly: each pixel becomes (p + mean of its four neighbours)
// / 2, a neighbour outside the image being the pixel at the edge.
CSSEMatrix SmoothedOnce(const CSSEMatrix& m)
{
    const int w = m.GetSizeX(), h = m.GetSizeY();
    return MatrixOf(w, h, [&](int x, int y) {
        const float up = m.GetPointUnsafe(x, std::max(y - 1, 0)), down = m.GetPointUnsafe(x, std::min(y + 1, h - 1));
        const float left = m.GetPointUnsafe(std::max(x - 1, 0), y), right = m.GetPointUnsafe(std::min(x + 1, w - 1), y);
        return (m.GetPointUnsafe(x, y) + ((up + down) + (left + right)) * 0.25f) * 0.5f;
    });
}

const CSSEMatrix& Heights()
{
    static const CSSEMatrix grid = JacksboroHeights();
    return grid;
}

CSSEMatrix AsStored(const CSSEMatrix& m, float maxAbsError)
{
    CSSEMatrix coded(m), decoded;
    coded.SetCompressionParameters(PngEntry(maxAbsError, 2));
    ReadStream(decoded, StreamBytes(coded));
    return decoded;
}

float Bump(float distance, float radius)   // 1 at the centre, 0 from radius on, smooth between
{
    return distance >= radius ? 0.0f : 0.5f * (1.0f + std::cos(std::numbers::pi_v<float> * distance / radius));
}

// The changes of the real heights that modes 1, 2 and 3 are meant for: a mound raised on a
// slope and a steep-walled pit; a landslide, a wide, smooth but rough drop inside a sharp
// outline over a third of the area; a re-survey, the whole surface warped and tilted a
// little, with noise below the bound.
CSSEMatrix Changed(const CSSEMatrix& base, int mode)
{
    std::mt19937 rng(mode);
    std::uniform_real_distribution<float> noise(-0.3f, 0.3f);
    const float w = static_cast<float>(base.GetSizeX()), h = static_cast<float>(base.GetSizeY()), pi = std::numbers::pi_v<float>;
    return MatrixOf(base.GetSizeX(), base.GetSizeY(), [&](int xi, int yi) {
        const float x = static_cast<float>(xi), y = static_cast<float>(yi), u = (x - 200.0f) / 150.0f, v = (y - 170.0f) / 110.0f;
        const float rough = noise(rng);
        const float change =
            mode == 1   ? 12.0f * Bump(std::hypot(x - 120.0f, y - 200.0f), 30.0f) - (std::hypot(x - 300.0f, y - 80.0f) < 15.0f ? 6.0f : 0.0f)
            : mode == 2 ? (u * u + v * v > 1.0f ? 0.0f : rough - (8.0f + 4.0f * std::sin(x / 40.0f) * std::cos(y / 50.0f)))
                        : 3.0f * std::sin(2.0f * pi * x / w) * std::cos(2.0f * pi * y / h) + 0.002f * x + rough;
        return base.GetPointUnsafe(xi, yi) + change;
    });
}

void ReadAgainst(const CSSEMatrix& reference, const Bytes& bytes)
{
    RbStreamReadBinaryBuffer in(bytes.data(), bytes.size());
    CSSEMatrix decoded = Rows(1, {9});
    TestLibrary().serializeMatrix(in, decoded, reference);
}

} // namespace

// createMask: 1 where src holds the value; applyMask: the value where the mask is not 0
// (NaN is not 0, -0 is); assembleMatrix: a where b holds the value, else b (the output may
// be an input). NaN matches NaN; sizes must agree.
TEST(DifferenceMasks, MaskOperationsFollowTheMaskAndMatchNaNWithNaN)
{
    const CSSEMatrix src = Rows(3, {2, 1, 2, kNaN, 2, 0});
    CSSEMatrix mask = Rows(1, {5}), m = Rows(3, {1, 2, 3, 4, 5, 6}), b = Rows(2, {kSpecial, 20, kSpecial, kNaN}), out;
    ASSERT_TRUE(TestLibrary::createMask(src, mask, 2.0f));
    EXPECT_EQ(Pixels(mask), (std::vector<float>{1, 0, 1, 0, 1, 0}));
    ASSERT_TRUE(TestLibrary::createMask(src, mask, kNaN));
    EXPECT_EQ(Pixels(mask), (std::vector<float>{0, 0, 0, 1, 0, 0}));
    ASSERT_TRUE(TestLibrary::applyMask(m, Rows(3, {0, 1, kNaN, -0.0f, 0.5f, 0}), -7.0f));
    EXPECT_FALSE(TestLibrary::applyMask(m, Rows(2, {1, 1, 1, 1, 1, 1}), 9.0f));
    EXPECT_EQ(Pixels(m), (std::vector<float>{1, -7, -7, 4, -7, 6}));
    const CSSEMatrix a = Rows(2, {1, 2, 3, 4});
    ASSERT_TRUE(TestLibrary::assembleMatrix(a, b, out, kSpecial));
    EXPECT_EQ(Bits(out), Bits(Rows(2, {1, 20, 3, kNaN})));
    ASSERT_TRUE(TestLibrary::assembleMatrix(a, b, b, kNaN));
    EXPECT_EQ(Bits(b), Bits(Rows(2, {kSpecial, 20, kSpecial, 4})));
    EXPECT_FALSE(TestLibrary::assembleMatrix(a, Rows(4, {1, 2, 3, 4}), out, 0.0f));
}

TEST(DifferenceMasks, SmoothingAveragesWithTheNeighboursAndResetsKnownPixelsAfterEveryPass)
{
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> value(-50.0f, 50.0f);
    for (const auto& [w, h] : {std::pair{7, 9}, std::pair{1, 5}, std::pair{6, 1}, std::pair{5, 8}}) {
        CSSEMatrix m = MatrixOf(w, h, [&](int, int) { return value(rng); });
        const CSSEMatrix expected = SmoothedOnce(SmoothedOnce(SmoothedOnce(m)));
        TestLibrary::smooth(m, nullptr, 3);
        EXPECT_EQ(Bits(m), Bits(expected)) << w << " x " << h;
    }
    // Known: the left column at 0, the right at 10 and one pixel at 4; the others fill in.
    const CSSEMatrix known = MatrixOf(12, 7, [](int x, int y) {
        return x == 0 ? 0.0f : x == 11 ? 10.0f : (x == 5 && y == 3) ? 4.0f : kSpecial;
    });
    CSSEMatrix m = MatrixOf(12, 7, [](int x, int y) { return static_cast<float>((x * 7 + y * 3) % 11); });
    CSSEMatrix expected(m);
    for (int pass = 0; pass < kIterations; ++pass) {
        const CSSEMatrix smoothed = SmoothedOnce(expected);
        expected = MatrixOf(12, 7, [&](int x, int y) {
            return known.GetPointUnsafe(x, y) == kSpecial ? smoothed.GetPointUnsafe(x, y) : known.GetPointUnsafe(x, y);
        });
    }
    TestLibrary::smooth(m, &known, kIterations);
    EXPECT_EQ(Bits(m), Bits(expected));
}

TEST(DifferenceModes, ModeZeroIsTheDifferenceAsOnePlainMatrixStream)
{
    const CSSEMatrix reference = MatrixOf(6, 5, [](int x, int y) { return 100.0f + 3.0f * x - 2.0f * y; });
    CSSEMatrix difference = MatrixOf(6, 5, [](int x, int y) { return (x == 2 ? 8.0f : 0.0f) + 0.125f * y; });
    CSSEMatrix matrix(reference);
    matrix.AddMatrix(difference);
    // Raw: every difference is exact, so the matrix comes back exactly.
    Coded c = Code(matrix, reference, LibraryParameters());
    EXPECT_EQ(c.bytes, Concat(Bytes{0}, StreamBytes(difference)));
    EXPECT_EQ(Pixels(c.decoded), Pixels(matrix));
    EXPECT_EQ(c.error, 0.0f);
    // Lossy: the entry's nine parameters go to the difference stream unchanged.
    difference.SetCompressionParameters(PngEntry(0.2f));
    c = Code(matrix, reference, PngEntry(0.2f));
    EXPECT_EQ(c.bytes, Concat(Bytes{0}, StreamBytes(difference)));
    EXPECT_GT(c.error, 0.0f);
    EXPECT_EQ(c.error, MaxAbsError(c.decoded, matrix));
}

// The matrix is cropped or padded with 0 to the reference's size; its own padding rows
// (here not zero) are no part of it.
TEST(DifferenceModes, EveryModeCodesTheMatrixAtTheReferenceSize)
{
    CSSEMatrix matrix = MatrixOf(7, 5, [](int x, int y) { return 50.0f + x * 1.5f + y; });
    for (int x = 0; x < 7; ++x)
        matrix.SetPointUnsafe(x, 5, 99.0f);
    const CSSEMatrix reference = MatrixOf(5, 8, [](int x, int y) { return 49.0f + x * 1.5f + y; });
    const CSSEMatrix expected = MatrixOf(5, 8, [&](int x, int y) { return y < 5 ? matrix.GetPoint(x, y) : 0.0f; });
    CSSEMatrix empty;
    empty.Create(0, 0);
    for (int mode = 0; mode <= 3; ++mode) {
        const Coded c = Code(matrix, reference, PngEntry(0.01f, 2, mode));
        ASSERT_EQ(std::pair(c.decoded.GetSizeX(), c.decoded.GetSizeY()), std::pair(5, 8)) << mode;
        EXPECT_LE(MaxAbsError(c.decoded, expected), 0.0101f) << mode;
        const Coded none = Code(matrix, empty, PngEntry(0.1f, 1, mode));
        EXPECT_EQ(std::tuple(none.decoded.GetSizeX(), none.decoded.GetSizeY(), none.error), std::tuple(0, 0, 0.0f)) << mode;
    }
}

// Each mode meets the bound on the change it is meant for and costs fewer bytes there than
// mode 0, which gets the smallest pass count that meets the bound, as the others find for
// themselves. A tight bound is met as well; without one, the error is only reported and the
// masked modes give exactly the reference where nothing changed.
TEST(DifferenceModes, EachModeMeetsTheBoundAndSavesBytesOnTheChangeItIsMeantFor)
{
    const CSSEMatrix storedAtHalf = AsStored(Heights(), 0.5f), storedFinely = AsStored(Heights(), 0.1f);
    const struct {
        CSSEMatrix matrix;
        const CSSEMatrix& reference;
        int meantFor;
    } cases[] = {{Changed(Heights(), 1), storedAtHalf, 1}, {Changed(Heights(), 2), storedFinely, 2}, {Changed(Heights(), 3), storedFinely, 3}};
    for (const auto& c : cases) {
        size_t bytes[4] = {};
        for (int mode = 0; mode <= 3; ++mode) {
            Coded coded;
            for (unsigned passes = 1; passes <= 3; ++passes) {
                coded = Code(c.matrix, c.reference, PngEntry(0.5f, passes, mode));
                if (mode != 0 || coded.error <= 0.5f)
                    break;
            }
            bytes[mode] = coded.bytes.size();
            EXPECT_EQ(coded.error, MaxAbsError(coded.decoded, c.matrix)) << c.meantFor << " mode " << mode;
            EXPECT_LE(coded.error, 0.5f) << c.meantFor << " mode " << mode;
            if (mode > 0) {
                EXPECT_LE(Code(c.matrix, c.reference, PngEntry(0.02f, 1, mode)).error, 0.02f) << c.meantFor << " mode " << mode;
            }
        }
        EXPECT_LT(bytes[c.meantFor], bytes[0]) << "mode " << c.meantFor;
    }

    const CSSEMatrix mound = Changed(storedFinely, 1);
    for (int mode = 1; mode <= 3; ++mode) {
        const Coded c = Code(mound, storedFinely, PngEntry(0.0f, 1, mode));
        EXPECT_GT(c.error, 0.0f) << mode;
        EXPECT_EQ(c.error, MaxAbsError(c.decoded, mound)) << mode;
        int unchanged = 0, kept = 0;
        for (int y = 0; y < mound.GetSizeY(); ++y)
            for (int x = 0; x < mound.GetSizeX(); ++x)
                if (mound.GetPointUnsafe(x, y) == storedFinely.GetPointUnsafe(x, y)) {
                    ++unchanged;
                    kept += c.decoded.GetPointUnsafe(x, y) == storedFinely.GetPointUnsafe(x, y);
                }
        EXPECT_GT(unchanged, mound.GetSizeX() * mound.GetSizeY() / 2);
        if (mode < 3) {
            EXPECT_EQ(kept, unchanged) << mode;
        }
    }
}

TEST(DifferenceModes, UnknownModesAndDamagedStreamsAreRejected)
{
    const CSSEMatrix reference = MatrixOf(9, 6, [](int x, int y) { return 10.0f + x - y * 0.5f; });
    const CSSEMatrix matrix = MatrixOf(9, 6, [](int x, int y) { return 10.0f + x - y * 0.5f + (x > 4 ? 2.5f : 0.0f); });
    TestLibrary library;
    for (int mode : {-1, 4, 256}) {
        RbStreamWriteBinaryBuffer out;
        float error = -1.0f;
        EXPECT_FALSE(library.serializeMatrix(out, matrix, reference, PngEntry(0.1f, 1, mode), error)) << mode;
        EXPECT_EQ(out.GetSize(), 0u) << mode;
    }
    CSSEMatrix smaller;
    smaller.Create(9, 5);
    EXPECT_THROW(ReadAgainst(reference, Concat(Bytes{4}, StreamBytes(matrix))), RbStreamException);
    // A part claiming an enormous all-zero matrix (no passes) is refused before it is allocated.
    EXPECT_THROW(ReadAgainst(reference, ByteWriter().u8(1).u32(4).i32(1 << 30).i32(31999).u8(2).u32(0).get()),
                 RbStreamException);
    for (int mode = 0; mode <= 3; ++mode) {
        const Bytes bytes = Code(matrix, reference, PngEntry(0.05f, 1, mode)).bytes;
        EXPECT_THROW(ReadAgainst(smaller, bytes), RbStreamException) << mode;   // the parts do not fit
        FeedDamaged(bytes, [&](const Bytes& damaged) { ReadAgainst(reference, damaged); });
    }
}
