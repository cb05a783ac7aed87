#include <memory>
#include <random>

#include <gtest/gtest.h>
#include <opencv2/imgproc.hpp>

#include "matrix/OpenCvBridge.h"
#include "qzsse/base/RbThreadPool.h"

using namespace qzsse::test;

namespace {

// Oracle: cv::erode with a rectangle and replicated border on the image with NaN taken out
// (+inf), then NaN wherever the dilated NaN mask reaches.
cv::Mat erodeOracle(const cv::Mat& image, int rx, int ry)
{
    const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, {2 * rx + 1, 2 * ry + 1});
    const cv::Mat nan = nanMask(image);
    cv::Mat clean = image.clone(), eroded, spread;
    clean.setTo(kInf, nan);
    cv::erode(clean, eroded, kernel, {-1, -1}, 1, cv::BORDER_REPLICATE);
    cv::dilate(nan, spread, kernel, {-1, -1}, 1, cv::BORDER_REPLICATE);
    markNaN(eroded, spread);
    return eroded;
}

struct ErodeCase {
    const char* name;
    int rx, ry;
    int threads; // 0: SimpleMinimumFilter (rx == ry); -1: Erode on the shared pool
    double nanShare;
};

class ErodeAgainstOpenCv : public ::testing::TestWithParam<ErodeCase> {};

TEST_P(ErodeAgainstOpenCv, SameAsErodeWithRectangleAndReplicatedBorder)
{
    const ErodeCase c = GetParam();
    std::unique_ptr<RbThreadPool> pool(c.threads > 0 ? new RbThreadPool(c.threads) : nullptr);
    std::mt19937 rng(static_cast<unsigned>(c.rx * 131 + c.ry * 17 + c.threads + 5));
    for (int i = 0; i < 40; ++i) {
        const cv::Size size = randomSize(rng);
        CSSEMatrix m = randomImage(rng, size.width, size.height, c.nanShare);
        const cv::Mat want = erodeOracle(toMat(m), c.rx, c.ry);
        if (c.threads == 0)
            m.SimpleMinimumFilter(c.rx);
        else
            m.Erode(c.rx, c.ry, pool.get());
        ASSERT_TRUE(samePixels(want, m)) << c.name;
    }
}

INSTANTIATE_TEST_SUITE_P(Boxes, ErodeAgainstOpenCv,
                         ::testing::Values(ErodeCase{"simple0", 0, 0, 0, 0.0}, ErodeCase{"simple1", 1, 1, 0, 0.0},
                                           ErodeCase{"simple2", 2, 2, 0, 0.02},
                                           ErodeCase{"simple5Running", 5, 5, 0, 0.02},
                                           ErodeCase{"pool1", 1, 2, 1, 0.02}, ErodeCase{"pool3", 3, 1, 3, 0.02},
                                           ErodeCase{"pool7Wide", 9, 4, 7, 0.01},
                                           ErodeCase{"sharedPool", 4, 6, -1, 0.01},
                                           ErodeCase{"sharedPoolFlat", 7, 0, -1, 0.0}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
