#include <algorithm>
#include <numeric>
#include <random>
#include <ranges>
#include <vector>

#include <gtest/gtest.h>

#include "matrix/MatrixTestUtil.h"
#include "matrix/OpenCvBridge.h"
#include "qzsse/matrix/QzCSSEMatrixIterator.h"

using namespace qzsse::test;

static_assert(std::random_access_iterator<QzCSSEMatrixIteratorBase<float>>);
static_assert(std::random_access_iterator<QzCSSEMatrixIteratorBase<const float>>);
static_assert(std::ranges::random_access_range<CSSEMatrix>);

// Row order as OpenCV's row-major image holds it; sorting through the mutable iterators
// leaves the pixels in the order std::sort gives the same values in a plain array.
TEST(MatrixIterator, WalksRealPixelsInRowOrder)
{
    std::mt19937 rng(31);
    for (int i = 0; i < 60; ++i) {
        int w, h;
        randomShape(rng, w, h);
        CSSEMatrix m = randomMatrix(rng, w, h, {}, false);
        const cv::Mat image = toMat(m);
        const std::vector<float> rowMajor = image.empty() ? std::vector<float>{}
                                                          : std::vector<float>(image.begin<float>(), image.end<float>());
        const CSSEMatrix& cm = m;
        ASSERT_TRUE(sameFloats(rowMajor, std::vector<float>(begin(cm), end(cm))));
        ASSERT_EQ(std::ranges::distance(m), static_cast<long>(rowMajor.size()));
        std::vector<float> reversed(rowMajor.rbegin(), rowMajor.rend());
        ASSERT_TRUE(sameFloats(reversed, std::vector<float>(std::make_reverse_iterator(end(m)),
                                                            std::make_reverse_iterator(begin(m)))));
        const std::vector<float> padding = [&] {
            std::vector<float> p;
            for (int y = h; y < 4 * m.GetSSESizeY(); ++y)
                for (int x = 0; x < w; ++x)
                    p.push_back(m.GetPointUnsafe(x, y));
            return p;
        }();
        std::sort(begin(m), end(m));
        std::vector<float> sorted = rowMajor;
        std::sort(sorted.begin(), sorted.end());
        ASSERT_TRUE(sameFloats(sorted, realPixels(m)));
        std::vector<float> paddingAfter;
        for (int y = h; y < 4 * m.GetSSESizeY(); ++y)
            for (int x = 0; x < w; ++x)
                paddingAfter.push_back(m.GetPointUnsafe(x, y));
        ASSERT_TRUE(sameFloats(padding, paddingAfter)) << "padding rows are not pixels";
    }
}

// The band walk visits every stored vector once, padding rows included, in storage order.
TEST(MatrixIterator, BandWalkVisitsEveryStoredVector)
{
    std::mt19937 rng(32);
    for (int i = 0; i < 30; ++i) {
        int w, h;
        randomShape(rng, w, h);
        CSSEMatrix m = randomMatrix(rng, w, h);
        std::vector<float> walked;
        for (const __m128& v : qzsse::BandVectors(std::as_const(m))) {
            alignas(16) float f[4];
            _mm_store_ps(f, v);
            walked.insert(walked.end(), f, f + 4);
        }
        ASSERT_TRUE(sameFloats(storedFloats(m), walked));
        for (__m128& v : qzsse::BandVectors(m))
            v = _mm_set1_ps(2.0f);
        ASSERT_EQ(std::ranges::count(storedFloats(m), 2.0f), static_cast<long>(walked.size()));
    }
}
