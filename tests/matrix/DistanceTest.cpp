#include <random>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "matrix/OpenCvBridge.h"

using namespace qzsse::test;

namespace {

// Sparse empty pixels (at least one) among heights and NaN; OpenCV's input is 0 where the
// pixel is empty and 255 elsewhere.
CSSEMatrix sparseSources(std::mt19937& rng, const cv::Size& size, double emptyShare)
{
    CSSEMatrix m = randomImage(rng, size.width, size.height, 0.05);
    std::bernoulli_distribution empty(emptyShare);
    for (int y = 0; y < size.height; ++y)
        for (int x = 0; x < size.width; ++x) {
            const float v = m.GetPointUnsafe(x, y);
            m.SetPointUnsafe(x, y, empty(rng) ? (rng() % 2 ? 0.0f : -0.0f) : (v == 0.0f ? 3.0f : v));
        }
    m.SetPoint(static_cast<int>(rng() % 64), static_cast<int>(rng() % 64), 0.0f); // clamped: on the border at times
    return m;
}

cv::Mat sourcesOf(const CSSEMatrix& m)
{
    cv::Mat binary(m.GetSizeY(), m.GetSizeX(), CV_8U);
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            binary.at<uchar>(y, x) = m.GetPointUnsafe(x, y) == 0.0f ? 0 : 255;
    return binary;
}

struct DistanceCase {
    const char* name;
    float axial, diagonal; // Chamfer weights; 0: DistanceTransform
    int cvType, cvMask;
    float tolerance;
};

class DistanceAgainstOpenCv : public ::testing::TestWithParam<DistanceCase> {};

TEST_P(DistanceAgainstOpenCv, SameAsDistanceTransform)
{
    const DistanceCase c = GetParam();
    std::mt19937 rng(static_cast<unsigned>(c.cvType * 10 + c.cvMask));
    for (int i = 0; i < 50; ++i) {
        const cv::Size size = i < 40 ? randomSize(rng) : randomSize(rng, 300);
        CSSEMatrix m = sparseSources(rng, size, i % 3 == 0 ? 0.002 : 0.05);
        cv::Mat want;
        cv::distanceTransform(sourcesOf(m), want, c.cvType, c.cvMask, CV_32F);
        if (c.axial > 0.0f)
            m.Chamfer(c.axial, c.diagonal);
        else
            m.DistanceTransform();
        ASSERT_TRUE(samePixels(want, m, c.tolerance)) << c.name;
    }
}

INSTANTIATE_TEST_SUITE_P(
    Metrics, DistanceAgainstOpenCv,
    ::testing::Values(DistanceCase{"chessboard", 1.0f, 1.0f, cv::DIST_C, 3, 0.0f},
                      DistanceCase{"cityBlock", 1.0f, 2.0f, cv::DIST_L1, 3, 0.0f},
                      // OpenCV keeps these weights in 16.16 fixed point.
                      DistanceCase{"euclideanMask3", 0.955f, 1.3693f, cv::DIST_L2, 3, 2e-3f},
                      DistanceCase{"exact", 0.0f, 0.0f, cv::DIST_L2, cv::DIST_MASK_PRECISE, 0.0f}),
    [](const auto& info) { return std::string(info.param.name); });

// With no empty pixel there is no distance: every pixel becomes +inf, under both rules.
TEST(Distance, NoEmptyPixelGivesInfinity)
{
    for (int rule = 0; rule < 2; ++rule) {
        CSSEMatrix m;
        m.Create(5, 3);
        m.Fill(2.0f);
        rule == 0 ? m.Chamfer() : m.DistanceTransform();
        EXPECT_TRUE(samePixels(cv::Mat(3, 5, CV_32F, cv::Scalar(kInf)), m));
    }
}

} // namespace
