#include <random>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "matrix/MatrixTestUtil.h"
#include "matrix/OpenCvBridge.h"

using namespace qzsse::test;

namespace {

// Heights up to 50 cross several sixteen-row bands; one row or one column happens too.
// Set bytes take assorted non-zero values (negative ones included); the padding rows hold
// junk, which no result may depend on.
CSSEcharMatrix randomMask(std::mt19937& rng, int w, int h, int percentSet)
{
    CSSEcharMatrix m;
    m.Create(w, h);
    m.Fill(-3);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            m.SetPoint(x, y, static_cast<int>(rng() % 100) < percentSet ? static_cast<signed char>((rng() % 255 - 127) | 1) : 0);
    return m;
}

cv::Mat binary(const cv::Mat& bytes)
{
    cv::Mat out;
    cv::compare(bytes, 0, out, cv::CMP_NE);
    return out / 255;
}

} // namespace

TEST(CharMatrixOps, ThresholdToMaskAndBackMatchOpenCv)
{
    std::mt19937 rng(21);
    for (int i = 0; i < 100; ++i) {
        const int w = std::uniform_int_distribution<int>(1, 23)(rng), h = std::uniform_int_distribution<int>(1, 50)(rng);
        const CSSEMatrix src = randomMatrix(rng, w, h); // NaN and junk padding included
        const bool above = i % 2;
        cv::Mat hits;
        cv::compare(toMat(src), 2.0f, hits, above ? cv::CMP_GT : cv::CMP_LT);
        CSSEcharMatrix mask;
        mask.CreateFromMatrix(src, 2.0f, above);
        ASSERT_TRUE(sameBytes(hits / 255, mask));
        ASSERT_TRUE(paddingRowsClear(mask));

        const CSSEcharMatrix bytes = randomMask(rng, w, h, 50);
        cv::Mat expected = cv::Mat::zeros(h, w, CV_32F);
        expected.setTo(-4.5f, toMat(bytes));
        CSSEMatrix back = randomMatrix(rng, 3, 5);
        bytes.CopyToMatrix(back, -4.5f);
        ASSERT_TRUE(sameImage(expected, back));
        ASSERT_TRUE(paddingRowsClear(back));
    }
}

// Logic and counts against OpenCV's bitwise operations on the 0 / 1 masks; a partner of
// another size is empty beyond its image.
TEST(CharMatrixOps, LogicAndCountsMatchOpenCv)
{
    std::mt19937 rng(22);
    for (int i = 0; i < 150; ++i) {
        const int w = std::uniform_int_distribution<int>(1, 23)(rng), h = std::uniform_int_distribution<int>(1, 50)(rng);
        const int ow = i % 3 ? w : std::uniform_int_distribution<int>(1, 23)(rng);
        const int oh = i % 3 ? h : std::uniform_int_distribution<int>(1, 50)(rng);
        const CSSEcharMatrix a = randomMask(rng, w, h, 40), b = randomMask(rng, ow, oh, 60);
        cv::Mat bb = cv::Mat::zeros(h, w, CV_8U);
        const cv::Rect common(0, 0, std::min(w, ow), std::min(h, oh));
        binary(toMat(b))(common).copyTo(bb(common));
        const cv::Mat ab = binary(toMat(a));
        cv::Mat andE, orE, notE;
        cv::bitwise_and(ab, bb, andE);
        cv::bitwise_or(ab, bb, orE);
        cv::bitwise_xor(ab, 1, notE);
        CSSEcharMatrix andA(a), orA(a), notA(a);
        andA.LogicalAnd(b);
        orA.LogicalOr(b);
        notA.LogicalNot();
        ASSERT_TRUE(sameBytes(andE, andA));
        ASSERT_TRUE(sameBytes(orE, orA));
        ASSERT_TRUE(sameBytes(notE, notA));
        for (const CSSEcharMatrix* m : {&andA, &orA, &notA})
            ASSERT_TRUE(paddingRowsClear(*m));
        ASSERT_EQ(a.CountNonZero(), cv::countNonZero(toMat(a)));
        ASSERT_EQ(notA.CountNonZero(), cv::countNonZero(notE));
    }
}

// 3x3 square and cross against cv::erode / cv::dilate with their default border, which
// neither erodes nor dilates.
TEST(CharMatrixOps, ErodeDilateMatchOpenCv)
{
    std::mt19937 rng(23);
    for (const bool cross : {false, true})
        for (int i = 0; i < 150; ++i) {
            const int w = std::uniform_int_distribution<int>(1, 23)(rng), h = std::uniform_int_distribution<int>(1, 50)(rng);
            const CSSEcharMatrix m = randomMask(rng, w, h, i % 2 ? 85 : 20);
            const cv::Mat kernel = cv::getStructuringElement(cross ? cv::MORPH_CROSS : cv::MORPH_RECT, cv::Size(3, 3));
            cv::Mat eroded, dilated;
            cv::erode(binary(toMat(m)), eroded, kernel);
            cv::dilate(binary(toMat(m)), dilated, kernel);
            CSSEcharMatrix e(m), d(m);
            e.Erode(cross);
            d.Dilate(cross);
            ASSERT_TRUE(sameBytes(eroded, e)) << w << " x " << h << (cross ? " cross" : " square");
            ASSERT_TRUE(sameBytes(dilated, d)) << w << " x " << h << (cross ? " cross" : " square");
            ASSERT_TRUE(paddingRowsClear(e));
            ASSERT_TRUE(paddingRowsClear(d));
        }
}
