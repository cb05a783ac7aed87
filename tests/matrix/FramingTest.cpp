#include <algorithm>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "matrix/MatrixTestUtil.h"
#include "matrix/OpenCvBridge.h"

using namespace qzsse::test;

namespace {

// Random image sizes 1..21 (widths and heights not multiples of four most of the time).
CSSEMatrix randomImage(std::mt19937& rng, int minSize = 1)
{
    std::uniform_int_distribution<int> size(minSize, 21);
    const int w = size(rng), h = size(rng);
    CSSEMatrix m = randomMatrix(rng, w, h);
    for (int y = h; y < 4 * m.GetSSESizeY(); ++y) // padding rows as Create leaves them
        for (int x = 0; x < w; ++x)
            m.SetPointUnsafe(x, y, 0.0f);
    return m;
}

} // namespace

TEST(MatrixFraming, EmbedMatchesConstantBorder)
{
    std::mt19937 rng(11);
    std::uniform_int_distribution<int> margin(0, 6);
    for (int i = 0; i < 200; ++i) {
        const CSSEMatrix src = randomImage(rng);
        const int l = margin(rng), t = margin(rng), r = margin(rng), b = margin(rng);
        const float border = i % 3 == 0 ? 0.0f : randomValue(rng);
        cv::Mat expected;
        cv::copyMakeBorder(toMat(src), expected, t, b, l, r, cv::BORDER_CONSTANT, cv::Scalar(border));
        CSSEMatrix out;
        if (i % 2)
            out.Create(3, 3); // a previous size, replaced
        out.EmbedMatrix(src, l, t, r, b, border);
        ASSERT_TRUE(sameImage(expected, out)) << "margins " << l << t << r << b;
        ASSERT_TRUE(paddingRowsClear(out));
    }
}

// A frame partly or wholly outside reads 0 there: the oracle is a region of the source framed
// by zeros. Offsets that are and are not multiples of four take both copy paths.
TEST(MatrixFraming, ExtractFrameMatchesRegionOfZeroFramedSource)
{
    std::mt19937 rng(12);
    constexpr int pad = 24;
    for (int i = 0; i < 300; ++i) {
        const CSSEMatrix src = randomImage(rng);
        cv::Mat framed;
        cv::copyMakeBorder(toMat(src), framed, pad, pad, pad, pad, cv::BORDER_CONSTANT, cv::Scalar(0));
        const int x0 = std::uniform_int_distribution<int>(-pad, src.GetSizeX())(rng);
        const int y0 = i % 2 ? 4 * std::uniform_int_distribution<int>(-5, src.GetSizeY() / 4)(rng)
                             : std::uniform_int_distribution<int>(-pad, src.GetSizeY())(rng);
        const int w = std::uniform_int_distribution<int>(0, 23)(rng);
        const int h = std::uniform_int_distribution<int>(0, 23)(rng);
        const cv::Mat expected = framed(cv::Rect(x0 + pad, y0 + pad, w, h));
        CSSEMatrix out = randomImage(rng); // old contents must not survive
        out.ExtractFrame_nonSSE(src, x0, y0, w, h);
        ASSERT_EQ(out.GetSizeX(), w);
        ASSERT_EQ(out.GetSizeY(), h);
        if (w > 0 && h > 0) {
            ASSERT_TRUE(sameImage(expected, out)) << x0 << ", " << y0 << " size " << w << " x " << h;
        }
        ASSERT_TRUE(paddingRowsClear(out));
    }
}

// Bilinear and area against cv::resize. OpenCV rounds each bilinear position to float before
// taking its fraction (ours is an exact ratio): a weight error up to a float step of the
// position, about 5e-6 at 40 pixels, times neighbour steps up to 20 here; measured at most
// 5.1e-5 (3000 random cases up to 60 pixels). Area sums in another order: measured 1e-6.
TEST(MatrixScale, MatchesResize)
{
    struct Case { CSSEMatrix::ScaleMode mode; int interpolation; bool shrinkOnly; float tolerance; };
    const Case cases[] = {
        {CSSEMatrix::ScaleMode::Bilinear, cv::INTER_LINEAR, false, 1e-4f},
        {CSSEMatrix::ScaleMode::Area, cv::INTER_AREA, true, 1e-5f},
    };
    std::mt19937 rng(13);
    for (const Case& c : cases)
        for (int i = 0; i < 150; ++i) {
            const int w = std::uniform_int_distribution<int>(1, 40)(rng);
            const int h = std::uniform_int_distribution<int>(1, 40)(rng);
            const CSSEMatrix src = randomMatrix(rng, w, h, {}, false);
            std::uniform_int_distribution<int> size(1, 40);
            int dw = c.shrinkOnly ? std::uniform_int_distribution<int>(1, w)(rng) : size(rng);
            int dh = c.shrinkOnly ? std::uniform_int_distribution<int>(1, h)(rng) : size(rng);
            if (i % 5 == 0 && w > 1 && h > 1) { // exact halving, a path of its own
                dw = w / 2;
                dh = h / 2;
            }
            cv::Mat expected;
            cv::resize(toMat(src), expected, cv::Size(dw, dh), 0, 0, c.interpolation);
            CSSEMatrix out;
            out.ScaleMatrix(src, dw, dh, c.mode);
            ASSERT_TRUE(sameImage(expected, out, c.tolerance))
                << "mode " << static_cast<int>(c.mode) << ": " << w << " x " << h << " to " << dw << " x " << dh;
            ASSERT_TRUE(paddingRowsClear(out));
        }
    // Strong shrinking: more than 64 source rows or columns per target pixel.
    struct Strong { int w, h, dw, dh; };
    for (const Strong& c : {Strong{300, 5, 2, 1}, Strong{3, 290, 2, 3}, Strong{1, 200, 1, 1}}) {
        const CSSEMatrix src = randomMatrix(rng, c.w, c.h, {}, false);
        cv::Mat expected;
        cv::resize(toMat(src), expected, cv::Size(c.dw, c.dh), 0, 0, cv::INTER_AREA);
        CSSEMatrix out;
        out.ScaleMatrix(src, c.dw, c.dh, CSSEMatrix::ScaleMode::Area);
        ASSERT_TRUE(sameImage(expected, out, 1e-5f)) << c.w << " x " << c.h;
    }
}

// Nearest against OpenCV's centre-based nearest, through images of the column and row
// indices: which source pixel each side picks. OpenCV truncates 16-bit fixed-point positions,
// so where a target centre lands exactly on a border between two source pixels it takes
// the one before; ours takes the one the border begins. No other difference is allowed.
TEST(MatrixScale, NearestPicksOpenCvSourcePixel)
{
    std::mt19937 rng(17);
    for (int i = 0; i < 150; ++i) {
        const int w = std::uniform_int_distribution<int>(1, 40)(rng);
        const int h = std::uniform_int_distribution<int>(1, 40)(rng);
        const bool halving = i % 5 == 0 && w > 1 && h > 1;
        const int dw = halving ? w / 2 : std::uniform_int_distribution<int>(1, 40)(rng);
        const int dh = halving ? h / 2 : std::uniform_int_distribution<int>(1, 40)(rng);
        const CSSEMatrix src = randomMatrix(rng, w, h);
        cv::Mat columns(h, w, CV_32F), rows(h, w, CV_32F);
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                columns.at<float>(y, x) = static_cast<float>(x);
                rows.at<float>(y, x) = static_cast<float>(y);
            }
        cv::Mat cvColumns, cvRows;
        cv::resize(columns, cvColumns, cv::Size(dw, dh), 0, 0, cv::INTER_NEAREST_EXACT);
        cv::resize(rows, cvRows, cv::Size(dw, dh), 0, 0, cv::INTER_NEAREST_EXACT);
        CSSEMatrix out, ourColumns, ourRows;
        out.ScaleMatrix(src, dw, dh, CSSEMatrix::ScaleMode::Nearest);
        ourColumns.ScaleMatrix(fromMat(columns), dw, dh, CSSEMatrix::ScaleMode::Nearest);
        ourRows.ScaleMatrix(fromMat(rows), dw, dh, CSSEMatrix::ScaleMode::Nearest);
        for (int y = 0; y < dh; ++y)
            for (int x = 0; x < dw; ++x) {
                const int ox = static_cast<int>(ourColumns.GetPointUnsafe(x, y));
                const int oy = static_cast<int>(ourRows.GetPointUnsafe(x, y));
                const int dx = ox - static_cast<int>(cvColumns.at<float>(y, x));
                const int dy = oy - static_cast<int>(cvRows.at<float>(y, x));
                const auto tie = [](int d, int n, int size) { return (2 * d + 1) * n % (2 * size) == 0; };
                ASSERT_TRUE(dx == 0 || (dx == 1 && tie(x, w, dw))) << w << " to " << dw << ": column " << x;
                ASSERT_TRUE(dy == 0 || (dy == 1 && tie(y, h, dh))) << h << " to " << dh << ": row " << y;
                ASSERT_TRUE(sameFloat(out.GetPointUnsafe(x, y), src.GetPointUnsafe(ox, oy)));
            }
        ASSERT_TRUE(paddingRowsClear(out));
    }
}

// Regions of a few levels with NaN holes; seeds anywhere, the border included.
TEST(MatrixAreaFill, MatchesFixedRangeFloodFill)
{
    std::mt19937 rng(14);
    for (const bool eight : {false, true})
        for (int i = 0; i < 200; ++i) {
            const int w = std::uniform_int_distribution<int>(1, 30)(rng);
            const int h = std::uniform_int_distribution<int>(1, 30)(rng);
            CSSEMatrix m;
            m.Create(w, h);
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const int level = std::uniform_int_distribution<int>(0, 10)(rng);
                    // within 0.002 of 1 (and of each other), outside it (1.003 only from a seed
                    // of 1: the range is fixed at the seed), an empty pixel or NaN
                    const float values[] = {1.0f, 1.0f, 1.0f, 1.0f, 1.0005f, 0.9995f, 1.003f, 1.01f, 0.0f, 2.0f, kNaN};
                    m.SetPointUnsafe(x, y, values[level]);
                }
            const int sx = i % 4 == 0 ? 0 : std::uniform_int_distribution<int>(0, w - 1)(rng);
            const int sy = i % 4 == 1 ? h - 1 : std::uniform_int_distribution<int>(0, h - 1)(rng);
            const float value = i % 2 ? 7.0f : 1.0f; // a new value inside the band too
            cv::Mat expected = toMat(m);
            const int filled = cv::floodFill(expected, cv::Point(sx, sy), cv::Scalar(value), nullptr,
                                             cv::Scalar(0.002), cv::Scalar(0.002),
                                             (eight ? 8 : 4) | cv::FLOODFILL_FIXED_RANGE);
            ASSERT_EQ(m.FillArea(sx, sy, value, eight), filled) << "seed " << sx << ", " << sy;
            ASSERT_TRUE(sameImage(expected, m));
        }
}

TEST(MatrixPointSearch, FirstPointMatchesFirstNonZeroOfComparison)
{
    std::mt19937 rng(15);
    for (int i = 0; i < 300; ++i) {
        const CSSEMatrix m = randomImage(rng);
        const bool above = i % 2;
        const float t = above ? 8.0f + static_cast<float>(i % 3) : -8.0f - static_cast<float>(i % 3);
        cv::Mat hits;
        cv::compare(toMat(m), t, hits, above ? cv::CMP_GT : cv::CMP_LT);
        std::vector<cv::Point> points;
        cv::findNonZero(hits, points);
        int x = 0, y = 0;
        ASSERT_EQ(m.FindFirstPoint(x, y, t, above), !points.empty());
        ASSERT_EQ(x, points.empty() ? -1 : points.front().x);
        ASSERT_EQ(y, points.empty() ? -1 : points.front().y);
    }
}

// Spans from per-row extremes of OpenCV's comparison; drawn back, each span is one filled
// column range of the row.
TEST(MatrixFromToArray, SpansMatchRowExtremesAndDrawBack)
{
    std::mt19937 rng(16);
    for (int i = 0; i < 200; ++i) {
        const CSSEMatrix m = randomImage(rng);
        cv::Mat hits;
        cv::compare(toMat(m), 5.0f, hits, cv::CMP_GT);
        cv::Mat expected = cv::Mat::zeros(hits.size(), CV_32F);
        int rows = 0;
        CImgFromToArray spans;
        const int found = spans.ComputeFromMatrix(m, 5.0f, true);
        ASSERT_EQ(spans.GetRows(), m.GetSizeY());
        for (int y = 0; y < hits.rows; ++y) {
            std::vector<cv::Point> points;
            cv::findNonZero(hits.row(y), points);
            const int from = points.empty() ? 0 : points.front().x, to = points.empty() ? -1 : points.back().x;
            ASSERT_EQ(spans.GetFrom(y), from) << "row " << y;
            ASSERT_EQ(spans.GetTo(y), to) << "row " << y;
            if (!points.empty()) {
                ++rows;
                expected.row(y).colRange(from, to + 1).setTo(3.0f);
            }
        }
        ASSERT_EQ(found, rows);
        CSSEMatrix drawn;
        drawn.Create(m.GetSizeX(), m.GetSizeY());
        spans.DrawIntoMatrix(drawn, 3.0f);
        ASSERT_TRUE(sameImage(expected, drawn));
    }
}
