// Whole-matrix operations on a 4096 x 4096 height image, each beside two peers measured
// in the same run: memcpy of the same number of bytes (the memory-bandwidth bound) and
// the same operation as a plain row-major loop over a std::vector<float> (what a caller
// would otherwise write). With OpenCV installed its equivalents run too.

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "qzsse/matrix/CSSEMatrix.h"

#if defined(QZSSE_BENCH_WITH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kSize = 4096;
constexpr size_t kPixels = static_cast<size_t>(kSize) * kSize;
constexpr size_t kBytes = kPixels * sizeof(float);

// A smooth surface with some noise and empty (0) areas, like a real height image.
float heightAt(int x, int y, std::mt19937& rng)
{
    std::uniform_real_distribution<float> noise(-0.5f, 0.5f);
    const float fx = static_cast<float>(x) / kSize, fy = static_cast<float>(y) / kSize;
    const float h = 100.0f * fx * (1.0f - fx) * fy + 20.0f * fy + noise(rng);
    return (x % 512 < 32) ? 0.0f : h;
}

struct Images {
    CSSEMatrix matrix, other;
    std::vector<float> plain, plainOther;

    Images()
    {
        std::mt19937 rng(1);
        matrix.CreateNoClear(kSize, kSize);
        other.CreateNoClear(kSize, kSize);
        plain.resize(kPixels);
        plainOther.resize(kPixels);
        matrix.Clear();
        other.Clear();
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x) {
                const float h = heightAt(x, y, rng);
                matrix.SetPointUnsafe(x, y, h);
                other.SetPointUnsafe(x, y, 0.5f * h);
                plain[static_cast<size_t>(y) * kSize + x] = h;
                plainOther[static_cast<size_t>(y) * kSize + x] = 0.5f * h;
            }
    }
};

Images& images()
{
    static Images instance;
    return instance;
}

void setBytes(benchmark::State& state)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(kBytes));
}

// --- the bandwidth bound --------------------------------------------------------------------

void BM_Memcpy(benchmark::State& state)
{
    std::vector<float> src(kPixels, 1.0f), dst(kPixels, 0.0f);
    for (auto _ : state) {
        std::memcpy(dst.data(), src.data(), kBytes);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_Memcpy)->Name("Memcpy/4096x4096");

// --- CSSEMatrix ------------------------------------------------------------------------------

void BM_TresholdAbove(benchmark::State& state)
{
    CSSEMatrix m(images().matrix);
    for (auto _ : state) {
        m.TresholdAbove(50.0f, 1.0f);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_TresholdAbove)->Name("CSSEMatrix/TresholdAbove/4096x4096");

void BM_OffsetMatrix(benchmark::State& state)
{
    CSSEMatrix m(images().matrix);
    for (auto _ : state) {
        m.OffsetMatrix(0.25f);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_OffsetMatrix)->Name("CSSEMatrix/OffsetMatrix/4096x4096");

void BM_AddMatrix(benchmark::State& state)
{
    CSSEMatrix m(images().matrix);
    for (auto _ : state) {
        m.AddMatrix(images().other);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_AddMatrix)->Name("CSSEMatrix/AddMatrix/4096x4096");

void BM_CalcMinMaxValues(benchmark::State& state)
{
    const CSSEMatrix& m = images().matrix;
    for (auto _ : state) {
        float maxValue, minValue;
        m.CalcMinMaxValues(&maxValue, &minValue);
        benchmark::DoNotOptimize(maxValue);
        benchmark::DoNotOptimize(minValue);
    }
    setBytes(state);
}
BENCHMARK(BM_CalcMinMaxValues)->Name("CSSEMatrix/CalcMinMaxValues/4096x4096");

void BM_IntegrateMatrix(benchmark::State& state)
{
    CSSEMatrix& m = images().matrix;
    for (auto _ : state)
        benchmark::DoNotOptimize(m.IntegrateMatrix());
    setBytes(state);
}
BENCHMARK(BM_IntegrateMatrix)->Name("CSSEMatrix/IntegrateMatrix/4096x4096");

void BM_NumValuesAbove(benchmark::State& state)
{
    CSSEMatrix& m = images().matrix;
    for (auto _ : state)
        benchmark::DoNotOptimize(m.NumValuesAbove(50.0f));
    setBytes(state);
}
BENCHMARK(BM_NumValuesAbove)->Name("CSSEMatrix/NumValuesAbove/4096x4096");

void BM_Clear(benchmark::State& state)
{
    CSSEMatrix m(images().matrix);
    for (auto _ : state) {
        m.Clear();
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_Clear)->Name("CSSEMatrix/Clear/4096x4096");

void BM_CopyFromSSEMatrix(benchmark::State& state)
{
    CSSEMatrix m(images().matrix);
    for (auto _ : state) {
        m.CopyFromSSEMatrix(images().other);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_CopyFromSSEMatrix)->Name("CSSEMatrix/CopyFromSSEMatrix/4096x4096");

// --- plain scalar loops over a row-major std::vector<float> -------------------------------------

void BM_ScalarTresholdAbove(benchmark::State& state)
{
    std::vector<float> v = images().plain;
    for (auto _ : state) {
        for (float& p : v)
            p = (50.0f < p) ? 1.0f : 0.0f;
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_ScalarTresholdAbove)->Name("ScalarLoop/TresholdAbove/4096x4096");

void BM_ScalarOffset(benchmark::State& state)
{
    std::vector<float> v = images().plain;
    for (auto _ : state) {
        for (float& p : v)
            p += 0.25f;
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_ScalarOffset)->Name("ScalarLoop/OffsetMatrix/4096x4096");

void BM_ScalarAdd(benchmark::State& state)
{
    std::vector<float> v = images().plain;
    const std::vector<float>& o = images().plainOther;
    for (auto _ : state) {
        for (size_t i = 0; i < kPixels; ++i)
            v[i] += o[i];
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_ScalarAdd)->Name("ScalarLoop/AddMatrix/4096x4096");

void BM_ScalarMinMax(benchmark::State& state)
{
    const std::vector<float>& v = images().plain;
    for (auto _ : state) {
        float maxValue = -1e6f, minValue = 1e6f;
        for (float p : v) {
            maxValue = std::max(maxValue, p);
            minValue = std::min(minValue, p);
        }
        benchmark::DoNotOptimize(maxValue);
        benchmark::DoNotOptimize(minValue);
    }
    setBytes(state);
}
BENCHMARK(BM_ScalarMinMax)->Name("ScalarLoop/CalcMinMaxValues/4096x4096");

void BM_ScalarSum(benchmark::State& state)
{
    const std::vector<float>& v = images().plain;
    for (auto _ : state) {
        float sum = 0.0f;
        for (float p : v)
            sum += p;
        benchmark::DoNotOptimize(sum);
    }
    setBytes(state);
}
BENCHMARK(BM_ScalarSum)->Name("ScalarLoop/IntegrateMatrix/4096x4096");

void BM_ScalarCountAbove(benchmark::State& state)
{
    const std::vector<float>& v = images().plain;
    for (auto _ : state) {
        int count = 0;
        for (float p : v)
            count += (50.0f < p) ? 1 : 0;
        benchmark::DoNotOptimize(count);
    }
    setBytes(state);
}
BENCHMARK(BM_ScalarCountAbove)->Name("ScalarLoop/NumValuesAbove/4096x4096");

void BM_ScalarClear(benchmark::State& state)
{
    std::vector<float> v = images().plain;
    for (auto _ : state) {
        for (float& p : v)
            p = 0.0f;
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_ScalarClear)->Name("ScalarLoop/Clear/4096x4096");

void BM_ScalarCopy(benchmark::State& state)
{
    std::vector<float> v = images().plain;
    const std::vector<float>& o = images().plainOther;
    for (auto _ : state) {
        for (size_t i = 0; i < kPixels; ++i)
            v[i] = o[i];
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_ScalarCopy)->Name("ScalarLoop/CopyFromSSEMatrix/4096x4096");

#if defined(QZSSE_BENCH_WITH_OPENCV)
// --- OpenCV ------------------------------------------------------------------------------------

cv::Mat openCvImage(const std::vector<float>& v)
{
    return cv::Mat(kSize, kSize, CV_32F, const_cast<float*>(v.data())).clone();
}

void BM_OpenCvThreshold(benchmark::State& state)
{
    cv::Mat m = openCvImage(images().plain);
    for (auto _ : state) {
        cv::threshold(m, m, 50.0, 1.0, cv::THRESH_BINARY);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_OpenCvThreshold)->Name("OpenCV/threshold/4096x4096");

void BM_OpenCvAdd(benchmark::State& state)
{
    cv::Mat m = openCvImage(images().plain), o = openCvImage(images().plainOther);
    for (auto _ : state) {
        cv::add(m, o, m);
        benchmark::ClobberMemory();
    }
    setBytes(state);
}
BENCHMARK(BM_OpenCvAdd)->Name("OpenCV/add/4096x4096");

void BM_OpenCvMinMaxLoc(benchmark::State& state)
{
    cv::Mat m = openCvImage(images().plain);
    for (auto _ : state) {
        double minValue, maxValue;
        cv::minMaxLoc(m, &minValue, &maxValue);
        benchmark::DoNotOptimize(maxValue);
    }
    setBytes(state);
}
BENCHMARK(BM_OpenCvMinMaxLoc)->Name("OpenCV/minMaxLoc/4096x4096");

void BM_OpenCvSum(benchmark::State& state)
{
    cv::Mat m = openCvImage(images().plain);
    for (auto _ : state)
        benchmark::DoNotOptimize(cv::sum(m));
    setBytes(state);
}
BENCHMARK(BM_OpenCvSum)->Name("OpenCV/sum/4096x4096");

void BM_OpenCvCountAbove(benchmark::State& state)
{
    cv::Mat m = openCvImage(images().plain);
    for (auto _ : state)
        benchmark::DoNotOptimize(cv::countNonZero(m > 50.0f));
    setBytes(state);
}
BENCHMARK(BM_OpenCvCountAbove)->Name("OpenCV/countNonZero(m>t)/4096x4096");
#endif

} // namespace
