// Morphology, distances, thinning and medians on a 4096 x 4096 image, each beside OpenCV's
// equivalent in the same run: once on one thread (cv::setNumThreads(1)) and, for erosion, once
// on OpenCV's default threads against Erode on the shared pool. The in-place members get a
// fresh copy before every iteration, outside the timing.

#include <cmath>
#include <random>

#include <benchmark/benchmark.h>

#include "qzsse/base/RbThreadPool.h"
#include "qzsse/matrix/CFilters.h"
#include "qzsse/matrix/CSSEMatrix.h"

#if defined(QZSSE_BENCH_WITH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#if __has_include(<opencv2/ximgproc.hpp>)
#include <opencv2/ximgproc.hpp>
#define QZSSE_BENCH_WITH_THINNING 1
#endif
#endif

namespace {

constexpr int kSize = 4096;

// heights: a smooth surface with noise and empty (0) stripes; sources: the same stripes and
// scattered empty pixels, the rest 1; shapes: blobs and bars some 10 to 30 pixels wide.
struct Images {
    CSSEMatrix heights, sources, shapes;
#if defined(QZSSE_BENCH_WITH_OPENCV)
    cv::Mat cvHeights, cvSources, cvShapes;
    int defaultThreads = cv::getNumThreads();
#endif

    Images()
    {
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> noise(-0.5f, 0.5f);
        heights.Create(kSize, kSize);
        sources.Create(kSize, kSize);
        shapes.Create(kSize, kSize);
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x) {
                const float fx = static_cast<float>(x) / kSize, fy = static_cast<float>(y) / kSize;
                const bool stripe = x % 512 < 32;
                heights.SetPointUnsafe(x, y, stripe ? 0.0f : 100.0f * fx * (1.0f - fx) * fy + 20.0f * fy + noise(rng));
                sources.SetPointUnsafe(x, y, stripe || rng() % 4096 == 0 ? 0.0f : 1.0f);
                const float wave = std::sin(static_cast<float>(x) / 9.0f) * std::sin(static_cast<float>(y) / 11.0f) +
                                   0.3f * std::sin(static_cast<float>(x + y) / 23.0f);
                shapes.SetPointUnsafe(x, y, wave > 0.2f ? 1.0f : 0.0f);
            }
#if defined(QZSSE_BENCH_WITH_OPENCV)
        cvHeights = toMat(heights);
        cvSources = toMat(sources) != 0.0f;
        cvShapes = toMat(shapes) != 0.0f;
#endif
    }

#if defined(QZSSE_BENCH_WITH_OPENCV)
    static cv::Mat toMat(const CSSEMatrix& m)
    {
        cv::Mat out(m.GetSizeY(), m.GetSizeX(), CV_32F);
        for (int y = 0; y < m.GetSizeY(); ++y)
            for (int x = 0; x < m.GetSizeX(); ++x)
                out.at<float>(y, x) = m.GetPointUnsafe(x, y);
        return out;
    }
#endif
};

Images& images()
{
    static Images instance;
    return instance;
}

// Runs op on a fresh copy of `image` every iteration; only op is timed.
template <class Op>
void inPlace(benchmark::State& state, const CSSEMatrix& image, Op op)
{
    CSSEMatrix m;
    for (auto _ : state) {
        state.PauseTiming();
        m.CopyFromSSEMatrix(image);
        state.ResumeTiming();
        op(m);
        benchmark::ClobberMemory();
    }
}

void BM_SimpleMinimumFilter(benchmark::State& state)
{
    const int r = static_cast<int>(state.range(0));
    inPlace(state, images().heights, [r](CSSEMatrix& m) { m.SimpleMinimumFilter(r); });
}
BENCHMARK(BM_SimpleMinimumFilter)->Name("CSSEMatrix/SimpleMinimumFilter")->Arg(1)->Arg(2)->Arg(7)->Unit(benchmark::kMillisecond);

void BM_Erode(benchmark::State& state)
{
    const int r = static_cast<int>(state.range(0));
    RbThreadPool::GetGlobal();
    inPlace(state, images().heights, [r](CSSEMatrix& m) { m.Erode(r, r); });
}
BENCHMARK(BM_Erode)->Name("CSSEMatrix/Erode/pool")->Arg(1)->Arg(2)->Arg(7)->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_Median3x3(benchmark::State& state)
{
    images();
    CSSEMatrix dst;
    for (auto _ : state) {
        CFilters::Median3x3(images().heights, dst);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Median3x3)->Name("CFilters/Median3x3")->Unit(benchmark::kMillisecond);

void BM_Median5x5(benchmark::State& state)
{
    images();
    CSSEMatrix dst;
    for (auto _ : state) {
        CFilters::Median5x5(images().heights, dst);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Median5x5)->Name("CFilters/Median5x5")->Unit(benchmark::kMillisecond);

void BM_Chamfer(benchmark::State& state)
{
    inPlace(state, images().sources, [](CSSEMatrix& m) { m.Chamfer(0.955f, 1.3693f); });
}
BENCHMARK(BM_Chamfer)->Name("CSSEMatrix/Chamfer")->Unit(benchmark::kMillisecond);

void BM_DistanceTransform(benchmark::State& state)
{
    inPlace(state, images().sources, [](CSSEMatrix& m) { m.DistanceTransform(); });
}
BENCHMARK(BM_DistanceTransform)->Name("CSSEMatrix/DistanceTransform")->Unit(benchmark::kMillisecond);

void BM_ZhangSuen(benchmark::State& state)
{
    inPlace(state, images().shapes, [](CSSEMatrix& m) { m.ZhangSuen(); });
}
BENCHMARK(BM_ZhangSuen)->Name("CSSEMatrix/ZhangSuen")->Unit(benchmark::kMillisecond)->Iterations(3);

#if defined(QZSSE_BENCH_WITH_OPENCV)

// threads 1: cv::setNumThreads(1); 0: OpenCV's default.
void useThreads(int threads)
{
    cv::setNumThreads(threads == 1 ? 1 : images().defaultThreads);
}

void BM_CvErode(benchmark::State& state)
{
    const int r = static_cast<int>(state.range(0));
    useThreads(static_cast<int>(state.range(1)));
    const cv::Mat kernel = cv::getStructuringElement(cv::MORPH_RECT, {2 * r + 1, 2 * r + 1});
    cv::Mat dst;
    for (auto _ : state) {
        cv::erode(images().cvHeights, dst, kernel, {-1, -1}, 1, cv::BORDER_REPLICATE);
        benchmark::ClobberMemory();
    }
    useThreads(0);
}
BENCHMARK(BM_CvErode)->Name("OpenCV/erode/1thread")->Args({1, 1})->Args({2, 1})->Args({7, 1})->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CvErode)->Name("OpenCV/erode/default")->Args({1, 0})->Args({2, 0})->Args({7, 0})->UseRealTime()->Unit(benchmark::kMillisecond);

void BM_CvMedian(benchmark::State& state)
{
    useThreads(1);
    cv::Mat dst;
    for (auto _ : state) {
        cv::medianBlur(images().cvHeights, dst, static_cast<int>(state.range(0)));
        benchmark::ClobberMemory();
    }
    useThreads(0);
}
BENCHMARK(BM_CvMedian)->Name("OpenCV/medianBlur/1thread")->Arg(3)->Arg(5)->Unit(benchmark::kMillisecond);

void BM_CvDistance(benchmark::State& state)
{
    useThreads(1);
    cv::Mat dst;
    for (auto _ : state) {
        cv::distanceTransform(images().cvSources, dst, cv::DIST_L2, static_cast<int>(state.range(0)), CV_32F);
        benchmark::ClobberMemory();
    }
    useThreads(0);
}
BENCHMARK(BM_CvDistance)->Name("OpenCV/distanceTransform/1thread/mask")->Arg(3)->Arg(cv::DIST_MASK_PRECISE)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_THINNING)
void BM_CvThinning(benchmark::State& state)
{
    useThreads(1);
    cv::Mat dst;
    for (auto _ : state) {
        cv::ximgproc::thinning(images().cvShapes, dst, cv::ximgproc::THINNING_ZHANGSUEN);
        benchmark::ClobberMemory();
    }
    useThreads(0);
}
BENCHMARK(BM_CvThinning)->Name("OpenCV/thinning/1thread")->Unit(benchmark::kMillisecond)->Iterations(3);
#endif

#endif

} // namespace
