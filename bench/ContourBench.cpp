// Contour tracing of a noisy disc in a 2048 x 2048 height image (the argument is the
// disc's radius), in contour points per second. With OpenCV installed, findContours runs
// on the same region as a ready 8-bit mask and, as a caller with a float image would use
// it, including the thresholding that makes the mask. findContours scans the whole image
// and returns every outer contour; the chain walks only along the one it starts on.

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "qzsse/contour/CPixelChain.h"
#include "qzsse/matrix/CSSEMatrix.h"

#if defined(QZSSE_BENCH_WITH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kSize = 2048;
constexpr float kLevel = 5.0f;
constexpr float kInside = 0.0f;
constexpr float kOutside = 10.0f;

// A disc whose radius wobbles with the angle and is roughened by a random step of up to
// three pixels every two pixels of its edge, so the contour has the jagged steps of a
// real thresholded height image. Each ray from the centre is inside up to its edge, so the
// region has no holes and no loose specks: one outer contour for every method.
struct Disc {
    CSSEMatrix matrix;
    std::vector<unsigned char> mask; // row-major, 1 inside
    std::vector<float> plain;        // row-major copy of the matrix
    int startX = kSize / 2;
    int startY = -1;

    explicit Disc(int radius)
    {
        constexpr float kPi = 3.14159265f;
        const int bins = std::max(16, static_cast<int>(kPi * static_cast<float>(radius)));
        std::mt19937 rng(3);
        std::uniform_real_distribution<float> rough(-3.0f, 3.0f);
        std::vector<float> roughness(static_cast<size_t>(bins));
        for (float& r : roughness)
            r = rough(rng);
        matrix.Create(kSize, kSize);
        mask.assign(static_cast<size_t>(kSize) * kSize, 0);
        plain.assign(static_cast<size_t>(kSize) * kSize, kOutside);
        const float c = 0.5f * kSize;
        const float r = static_cast<float>(radius);
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x) {
                const float dx = static_cast<float>(x) - c, dy = static_cast<float>(y) - c;
                const float angle = std::atan2(dy, dx);
                const int bin = static_cast<int>((angle + kPi) / (2.0f * kPi) * static_cast<float>(bins)) % bins;
                const float edge = r * (1.0f + 0.03f * std::sin(7.0f * angle) + 0.015f * std::sin(23.0f * angle + 1.0f)) +
                                   roughness[static_cast<size_t>(bin)];
                const bool inside = std::sqrt(dx * dx + dy * dy) < edge;
                const size_t i = static_cast<size_t>(y) * kSize + x;
                mask[i] = inside ? 1 : 0;
                plain[i] = inside ? kInside : kOutside;
                matrix.SetPointUnsafe(x, y, plain[i]);
            }
        // The topmost pixel of the centre column lies on the outer contour.
        for (int y = 0; y < kSize && startY < 0; ++y)
            if (mask[static_cast<size_t>(y) * kSize + startX])
                startY = y;
    }
};

Disc& disc(int radius)
{
    static std::map<int, Disc> discs;
    auto it = discs.find(radius);
    if (it == discs.end())
        it = discs.try_emplace(radius, radius).first;
    return it->second;
}

void BM_CreatePixelChain(benchmark::State& state)
{
    Disc& d = disc(static_cast<int>(state.range(0)));
    CPixelChain chain;
    int64_t points = 0;
    for (auto _ : state) {
        chain.CreatePixelChain(&d.matrix, kLevel, d.startX, d.startY, 1000000, false, true, 0);
        benchmark::DoNotOptimize(chain.GetPixelData());
        points += chain.GetCount();
    }
    state.SetItemsProcessed(points);
    state.counters["points"] = chain.GetCount();
}
BENCHMARK(BM_CreatePixelChain)->Arg(200)->Arg(900)->Unit(benchmark::kMicrosecond);

#if defined(QZSSE_BENCH_WITH_OPENCV)

int64_t countPoints(const std::vector<std::vector<cv::Point>>& contours)
{
    int64_t n = 0;
    for (const auto& c : contours)
        n += static_cast<int64_t>(c.size());
    return n;
}

void BM_OpenCVFindContoursOnMask(benchmark::State& state)
{
    Disc& d = disc(static_cast<int>(state.range(0)));
    const cv::Mat mask(kSize, kSize, CV_8UC1, d.mask.data());
    std::vector<std::vector<cv::Point>> contours;
    int64_t points = 0;
    for (auto _ : state) {
        cv::findContours(mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
        points += countPoints(contours);
    }
    state.SetItemsProcessed(points);
    state.counters["points"] = static_cast<double>(countPoints(contours));
    state.counters["contours"] = static_cast<double>(contours.size());
}
BENCHMARK(BM_OpenCVFindContoursOnMask)->Arg(200)->Arg(900)->Unit(benchmark::kMicrosecond);

void BM_OpenCVThresholdAndFindContours(benchmark::State& state)
{
    Disc& d = disc(static_cast<int>(state.range(0)));
    const cv::Mat image(kSize, kSize, CV_32FC1, d.plain.data());
    cv::Mat mask;
    std::vector<std::vector<cv::Point>> contours;
    int64_t points = 0;
    for (auto _ : state) {
        cv::compare(image, kLevel, mask, cv::CMP_LT);
        cv::findContours(mask, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
        points += countPoints(contours);
    }
    state.SetItemsProcessed(points);
    state.counters["points"] = static_cast<double>(countPoints(contours));
}
BENCHMARK(BM_OpenCVThresholdAndFindContours)->Arg(200)->Arg(900)->Unit(benchmark::kMicrosecond);

#endif

} // namespace
