#include <random>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "matrix/OpenCvBridge.h"
#include "qzsse/matrix/CFilters.h"

using namespace qzsse::test;

namespace {

// Oracle: cv::medianBlur on CV_32F (edge replication) of the image with NaN replaced by 0,
// then NaN wherever a box holds one.
cv::Mat medianOracle(const cv::Mat& image, int k)
{
    const cv::Mat nan = nanMask(image);
    cv::Mat clean = image.clone(), median, spread;
    clean.setTo(0.0f, nan);
    cv::medianBlur(clean, median, k);
    cv::dilate(nan, spread, cv::getStructuringElement(cv::MORPH_RECT, {k, k}), {-1, -1}, 1, cv::BORDER_REPLICATE);
    markNaN(median, spread);
    return median;
}

struct MedianCase {
    const char* name;
    int k;
    bool inPlace;
    double nanShare;
};

class MedianAgainstOpenCv : public ::testing::TestWithParam<MedianCase> {};

TEST_P(MedianAgainstOpenCv, SameAsMedianBlur)
{
    const MedianCase c = GetParam();
    std::mt19937 rng(static_cast<unsigned>(c.k * 7 + c.inPlace + 100 * c.nanShare));
    CSSEMatrix reused; // a destination of the wrong size is re-created
    reused.Create(3, 9);
    for (int i = 0; i < 60; ++i) {
        const cv::Size size = randomSize(rng);
        CSSEMatrix m = randomImage(rng, size.width, size.height, c.nanShare);
        const cv::Mat want = medianOracle(toMat(m), c.k);
        CSSEMatrix& dst = c.inPlace ? m : reused;
        (c.k == 3 ? CFilters::Median3x3 : CFilters::Median5x5)(m, dst);
        ASSERT_TRUE(samePixels(want, dst)) << c.name;
    }
}

INSTANTIATE_TEST_SUITE_P(Kernels, MedianAgainstOpenCv,
                         ::testing::Values(MedianCase{"m3", 3, false, 0.0}, MedianCase{"m3InPlaceNaN", 3, true, 0.03},
                                           MedianCase{"m5", 5, false, 0.0}, MedianCase{"m5InPlaceNaN", 5, true, 0.02},
                                           MedianCase{"m5NaN", 5, false, 0.01}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
