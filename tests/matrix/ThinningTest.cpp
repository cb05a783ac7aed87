#include <random>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>
#include <opencv2/ximgproc.hpp>

#include "matrix/OpenCvBridge.h"

using namespace qzsse::test;

namespace {

// Filled ellipses and thick lines, some cut by the image border, and a little noise.
cv::Mat randomShapes(std::mt19937& rng, const cv::Size& size)
{
    cv::Mat mask(size, CV_8U, cv::Scalar(0));
    std::uniform_int_distribution<int> px(-5, size.width + 5), py(-5, size.height + 5), r(1, 12);
    for (int i = 0; i < 4; ++i) {
        cv::ellipse(mask, {px(rng), py(rng)}, {r(rng), r(rng)}, static_cast<double>(rng() % 180), 0, 360, 255,
                    cv::FILLED);
        cv::line(mask, {px(rng), py(rng)}, {px(rng), py(rng)}, 255, r(rng) / 2 + 1);
    }
    for (int i = 0; i < size.area() / 50; ++i)
        mask.at<uchar>(static_cast<int>(rng() % size.height), static_cast<int>(rng() % size.width)) ^= 255;
    return mask;
}

// Oracle: cv::ximgproc::thinning (Zhang-Suen) of the mask framed by one background pixel,
// which our rule assumes beyond the border.
TEST(ZhangSuen, SameAsOpenCvThinningWithBackgroundFrame)
{
    std::mt19937 rng(11);
    for (int i = 0; i < 80; ++i) {
        const cv::Size size = i < 60 ? randomSize(rng) : randomSize(rng, 120);
        const cv::Mat mask = randomShapes(rng, size);
        cv::Mat framed, thin;
        cv::copyMakeBorder(mask, framed, 1, 1, 1, 1, cv::BORDER_CONSTANT, 0);
        cv::ximgproc::thinning(framed, thin, cv::ximgproc::THINNING_ZHANGSUEN);
        cv::Mat want;
        thin(cv::Rect(1, 1, size.width, size.height)).convertTo(want, CV_32F, 1.0 / 255);

        // Foreground pixels carry heights, one of them NaN, and the padding junk.
        CSSEMatrix m = randomImage(rng, size.width, size.height, 0.0);
        for (int y = 0; y < size.height; ++y)
            for (int x = 0; x < size.width; ++x)
                m.SetPointUnsafe(x, y, mask.at<uchar>(y, x) == 0 ? 0.0f : (x == y ? kNaN : 0.5f + x));
        m.ZhangSuen();
        ASSERT_TRUE(samePixels(want, m)) << size.width << " x " << size.height;
    }
}

} // namespace
