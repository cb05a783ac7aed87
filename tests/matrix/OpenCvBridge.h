#pragma once

// Conversions between the library's banded matrices and OpenCV images, random test images
// and pixel-by-pixel comparisons, for the tests that use OpenCV as their oracle.

#include <algorithm>
#include <cmath>
#include <random>

#include <gtest/gtest.h>
#include <opencv2/core.hpp>

#include "matrix/MatrixTestUtil.h"

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"

namespace qzsse::test {

inline cv::Mat toMat(const CSSEMatrix& m)
{
    cv::Mat out(m.GetSizeY(), m.GetSizeX(), CV_32F);
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            out.at<float>(y, x) = m.GetPointUnsafe(x, y);
    return out;
}

inline CSSEMatrix fromMat(const cv::Mat& mat)
{
    CSSEMatrix m;
    m.Create(mat.cols, mat.rows);
    for (int y = 0; y < mat.rows; ++y)
        for (int x = 0; x < mat.cols; ++x)
            m.SetPointUnsafe(x, y, mat.at<float>(y, x));
    return m;
}

// Bytes as they are (CV_8U holds the same bits as the signed bytes).
inline cv::Mat toMat(const CSSEcharMatrix& m)
{
    cv::Mat out(m.GetSizeY(), m.GetSizeX(), CV_8U);
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            out.at<unsigned char>(y, x) = static_cast<unsigned char>(m.GetPoint(x, y));
    return out;
}

inline CSSEcharMatrix charFromMat(const cv::Mat& mat)
{
    CSSEcharMatrix m;
    m.Create(mat.cols, mat.rows);
    for (int y = 0; y < mat.rows; ++y)
        for (int x = 0; x < mat.cols; ++x)
            m.SetPoint(x, y, static_cast<signed char>(mat.at<unsigned char>(y, x)));
    return m;
}

// Every stored float below the image is 0.
inline bool paddingRowsClear(const CSSEMatrix& m)
{
    for (int y = m.GetSizeY(); y < 4 * m.GetSSESizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            if (m.GetPointUnsafe(x, y) != 0.0f || std::signbit(m.GetPointUnsafe(x, y)))
                return false;
    return true;
}

inline bool paddingRowsClear(const CSSEcharMatrix& m)
{
    for (int y = m.GetSizeY(); y < 16 * m.GetSSESizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            if (reinterpret_cast<const signed char*>(m.GetMatrixDataDirectly()[y >> 4])[16 * x + (y & 15)] != 0)
                return false;
    return true;
}

// Bit-equal floats (NaN matching NaN), or the first difference.
inline ::testing::AssertionResult sameImage(const cv::Mat& expected, const CSSEMatrix& actual, float tolerance = 0.0f)
{
    if (expected.cols != actual.GetSizeX() || expected.rows != actual.GetSizeY())
        return ::testing::AssertionFailure() << "size " << actual.GetSizeX() << " x " << actual.GetSizeY()
                                             << ", expected " << expected.cols << " x " << expected.rows;
    for (int y = 0; y < expected.rows; ++y)
        for (int x = 0; x < expected.cols; ++x) {
            const float e = expected.at<float>(y, x), a = actual.GetPointUnsafe(x, y);
            const bool ok = tolerance == 0.0f ? sameFloat(e, a)
                                              : (std::isnan(e) && std::isnan(a)) || std::fabs(e - a) <= tolerance;
            if (!ok)
                return ::testing::AssertionFailure() << "(" << x << ", " << y << "): expected " << e << ", got " << a;
        }
    return ::testing::AssertionSuccess();
}

inline ::testing::AssertionResult sameBytes(const cv::Mat& expected, const CSSEcharMatrix& actual)
{
    if (expected.cols != actual.GetSizeX() || expected.rows != actual.GetSizeY())
        return ::testing::AssertionFailure() << "size differs";
    for (int y = 0; y < expected.rows; ++y)
        for (int x = 0; x < expected.cols; ++x)
            if (expected.at<unsigned char>(y, x) != static_cast<unsigned char>(actual.GetPoint(x, y)))
                return ::testing::AssertionFailure() << "(" << x << ", " << y << "): expected "
                                                     << int(expected.at<unsigned char>(y, x)) << ", got "
                                                     << int(actual.GetPoint(x, y));
    return ::testing::AssertionSuccess();
}

// Heights in [-10, 10] with empty pixels and exact repeats (ties), a fraction of them NaN;
// the padding rows hold junk so that a filter reading them would show.
inline CSSEMatrix randomImage(std::mt19937& rng, int w, int h, double nanShare)
{
    CSSEMatrix m = randomMatrix(rng, w, h, {0.0f, 1.0f, 2.0f}, false);
    std::bernoulli_distribution nan(nanShare);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (nan(rng))
                m.SetPointUnsafe(x, y, kNaN);
    for (int y = h; y < 4 * m.GetSSESizeY(); ++y)
        for (int x = 0; x < w; ++x)
            m.SetPointUnsafe(x, y, 99.0f);
    return m;
}

// Widths and heights 1..maxSize, a third of them 1 or a multiple of four.
inline cv::Size randomSize(std::mt19937& rng, int maxSize = 40)
{
    std::uniform_int_distribution<int> size(1, maxSize);
    auto pick = [&]() {
        switch (rng() % 6) {
        case 0: return 1;
        case 1: return std::max(4, size(rng) & ~3);
        default: return size(rng);
        }
    };
    const int w = pick();
    return {w, pick()};
}

// Every real pixel equal to the expected one (NaN where NaN is expected; a zero of either
// sign for a zero) and every padding row 0.
inline ::testing::AssertionResult samePixels(const cv::Mat& expected, const CSSEMatrix& actual, float tolerance = 0.0f)
{
    for (int y = 0; y < expected.rows; ++y)
        for (int x = 0; x < expected.cols; ++x) {
            const float e = expected.at<float>(y, x), a = actual.GetPointUnsafe(x, y);
            const bool same = std::isnan(e) ? std::isnan(a) : (e == a || std::fabs(e - a) <= tolerance);
            if (!same)
                return ::testing::AssertionFailure() << "pixel (" << x << ", " << y << ") of " << expected.cols
                                                     << " x " << expected.rows << ": expected " << e << ", got " << a;
        }
    for (int y = expected.rows; y < 4 * actual.GetSSESizeY(); ++y)
        for (int x = 0; x < expected.cols; ++x)
            if (actual.GetPointUnsafe(x, y) != 0.0f)
                return ::testing::AssertionFailure() << "padding row " << y << " not 0";
    return ::testing::AssertionSuccess();
}

// 255 where the pixel is NaN.
inline cv::Mat nanMask(const cv::Mat& image)
{
    cv::Mat mask(image.size(), CV_8U);
    for (int y = 0; y < image.rows; ++y)
        for (int x = 0; x < image.cols; ++x)
            mask.at<uchar>(y, x) = std::isnan(image.at<float>(y, x)) ? 255 : 0;
    return mask;
}

// NaN wherever spread (non-zero) is set.
inline void markNaN(cv::Mat& image, const cv::Mat& spread)
{
    image.setTo(kNaN, spread);
}

} // namespace qzsse::test
