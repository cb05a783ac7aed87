// Framing, resampling, area fill, point search and char-matrix operations on a 4096 x 4096
// height image, each beside OpenCV's equivalent in the same run: once on one thread
// (argument 1) and once with OpenCV's default thread count (argument 0). Ours always runs on
// the caller's thread; its argument is only there to pair the rows.

#include <random>

#include <benchmark/benchmark.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"

#if defined(QZSSE_BENCH_WITH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kSize = 4096;

// A smooth surface with noise and empty (0) stripes; `plateau` pixels (1.0) form one large
// connected area broken by small holes, the flood fill's region.
float heightAt(int x, int y, std::mt19937& rng)
{
    std::uniform_real_distribution<float> noise(-0.5f, 0.5f);
    const float fx = static_cast<float>(x) / kSize, fy = static_cast<float>(y) / kSize;
    const float h = 100.0f * fx * (1.0f - fx) * fy + 20.0f * fy + noise(rng);
    return (x % 512 < 32) ? 0.0f : h;
}

struct Images {
    CSSEMatrix matrix, plateau;
    CSSEcharMatrix mask, mask2;
#if defined(QZSSE_BENCH_WITH_OPENCV)
    cv::Mat image, plateauImage, maskImage, mask2Image;
#endif

    Images()
    {
        std::mt19937 rng(1);
        matrix.Create(kSize, kSize);
        plateau.Create(kSize, kSize);
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x) {
                matrix.SetPointUnsafe(x, y, heightAt(x, y, rng));
                plateau.SetPointUnsafe(x, y, (x % 97 == 5 && y % 89 < 40) || (x * 7 + y * 3) % 1013 == 0 ? 5.0f : 1.0f);
            }
        mask.CreateFromMatrix(matrix, 30.0f, true);
        mask2.CreateFromMatrix(matrix, 50.0f, false);
#if defined(QZSSE_BENCH_WITH_OPENCV)
        image.create(kSize, kSize, CV_32F);
        plateauImage.create(kSize, kSize, CV_32F);
        maskImage.create(kSize, kSize, CV_8U);
        mask2Image.create(kSize, kSize, CV_8U);
        for (int y = 0; y < kSize; ++y)
            for (int x = 0; x < kSize; ++x) {
                image.at<float>(y, x) = matrix.GetPointUnsafe(x, y);
                plateauImage.at<float>(y, x) = plateau.GetPointUnsafe(x, y);
                maskImage.at<unsigned char>(y, x) = mask.GetPoint(x, y) ? 255 : 0;
                mask2Image.at<unsigned char>(y, x) = mask2.GetPoint(x, y) ? 255 : 0;
            }
#endif
    }
};

Images& images()
{
    static Images instance;
    return instance;
}

void pixels(benchmark::State& state, int64_t perIteration)
{
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * perIteration);
}

constexpr int64_t kPixels = static_cast<int64_t>(kSize) * kSize;

// --- ours ----------------------------------------------------------------------------------

void BM_EmbedMatrix(benchmark::State& state)
{
    images(); // built before the timed loop
    CSSEMatrix out;
    for (auto _ : state) {
        out.EmbedMatrix(images().matrix, 16, 16, 16, 16, 0.0f);
        benchmark::DoNotOptimize(out.GetMatrixDataDirectly());
    }
    pixels(state, kPixels);
}

void BM_ExtractFrame(benchmark::State& state)
{
    images(); // built before the timed loop
    const int y0 = static_cast<int>(state.range(1));
    CSSEMatrix out;
    for (auto _ : state) {
        out.ExtractFrame_nonSSE(images().matrix, 61, y0, 4000, 4000);
        benchmark::DoNotOptimize(out.GetMatrixDataDirectly());
    }
    pixels(state, 4000LL * 4000);
}

void BM_ScaleMatrix(benchmark::State& state)
{
    images(); // built before the timed loop
    const auto mode = static_cast<CSSEMatrix::ScaleMode>(state.range(1));
    const int size = static_cast<int>(state.range(2));
    CSSEMatrix out;
    for (auto _ : state) {
        out.ScaleMatrix(images().matrix, size, size, mode);
        benchmark::DoNotOptimize(out.GetMatrixDataDirectly());
    }
    pixels(state, static_cast<int64_t>(size) * size);
}

// Alternates between two values, so every iteration fills the same region.
void BM_FillArea(benchmark::State& state)
{
    images(); // built before the timed loop
    CSSEMatrix& m = images().plateau;
    float value = 2.0f;
    for (auto _ : state) {
        benchmark::DoNotOptimize(m.FillArea(0, 0, value, state.range(1) != 0));
        value = value == 2.0f ? 1.0f : 2.0f;
    }
    if (value == 1.0f)
        m.FillArea(0, 0, 1.0f, state.range(1) != 0);
    pixels(state, kPixels);
}

// The one hit is the last pixel: the whole image is searched.
void BM_FindFirstPoint(benchmark::State& state)
{
    images(); // built before the timed loop
    CSSEMatrix& m = images().matrix;
    m.SetPointUnsafe(kSize - 1, kSize - 1, 1000.0f);
    int x = 0, y = 0;
    for (auto _ : state)
        benchmark::DoNotOptimize(m.FindFirstPoint(x, y, 500.0f, true));
    pixels(state, kPixels);
}

void BM_FromToArray(benchmark::State& state)
{
    images(); // built before the timed loop
    for (auto _ : state)
        benchmark::DoNotOptimize(images().matrix.GetFromToArray().ComputeFromMatrix(images().matrix, 30.0f, true));
    pixels(state, kPixels);
}

void BM_CharFromMatrix(benchmark::State& state)
{
    images(); // built before the timed loop
    CSSEcharMatrix out;
    for (auto _ : state) {
        out.CreateFromMatrix(images().matrix, 30.0f, true);
        benchmark::DoNotOptimize(out.GetMatrixDataDirectly());
    }
    pixels(state, kPixels);
}

void BM_CharToMatrix(benchmark::State& state)
{
    images(); // built before the timed loop
    CSSEMatrix out;
    for (auto _ : state) {
        images().mask.CopyToMatrix(out, 1.0f);
        benchmark::DoNotOptimize(out.GetMatrixDataDirectly());
    }
    pixels(state, kPixels);
}

void BM_CharLogic(benchmark::State& state)
{
    images(); // built before the timed loop
    CSSEcharMatrix m(images().mask);
    for (auto _ : state) {
        switch (state.range(1)) {
        case 0: m.LogicalAnd(images().mask2); break;
        case 1: m.LogicalOr(images().mask2); break;
        default: m.LogicalNot(); break;
        }
        benchmark::DoNotOptimize(m.GetMatrixDataDirectly());
    }
    pixels(state, kPixels);
}

void BM_CharCountNonZero(benchmark::State& state)
{
    images(); // built before the timed loop
    for (auto _ : state)
        benchmark::DoNotOptimize(images().mask.CountNonZero());
    pixels(state, kPixels);
}

// Erosion and dilation alternate on one mask (in place, like OpenCV's with src == dst).
void BM_CharErodeDilate(benchmark::State& state)
{
    images(); // built before the timed loop
    CSSEcharMatrix m(images().mask);
    const bool cross = state.range(1) != 0;
    bool erode = true;
    for (auto _ : state) {
        erode ? m.Erode(cross) : m.Dilate(cross);
        erode = !erode;
        benchmark::DoNotOptimize(m.GetMatrixDataDirectly());
    }
    pixels(state, kPixels);
}

#if defined(QZSSE_BENCH_WITH_OPENCV)
// --- OpenCV ----------------------------------------------------------------------------------

void threads(benchmark::State& state)
{
    cv::setNumThreads(state.range(0) == 1 ? 1 : -1);
    state.counters["threads"] = cv::getNumThreads();
}

void BM_OpenCV_CopyMakeBorder(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    cv::Mat out;
    for (auto _ : state) {
        cv::copyMakeBorder(images().image, out, 16, 16, 16, 16, cv::BORDER_CONSTANT, cv::Scalar(0));
        benchmark::DoNotOptimize(out.data);
    }
    pixels(state, kPixels);
}

void BM_OpenCV_RoiCopy(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    cv::Mat out;
    const int y0 = static_cast<int>(state.range(1));
    for (auto _ : state) {
        images().image(cv::Rect(61, y0, 4000, 4000)).copyTo(out);
        benchmark::DoNotOptimize(out.data);
    }
    pixels(state, 4000LL * 4000);
}

void BM_OpenCV_Resize(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    const int interpolation[] = {cv::INTER_NEAREST_EXACT, cv::INTER_LINEAR, cv::INTER_AREA};
    const int size = static_cast<int>(state.range(2));
    cv::Mat out;
    for (auto _ : state) {
        cv::resize(images().image, out, cv::Size(size, size), 0, 0, interpolation[state.range(1)]);
        benchmark::DoNotOptimize(out.data);
    }
    pixels(state, static_cast<int64_t>(size) * size);
}

void BM_OpenCV_FloodFill(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    cv::Mat& m = images().plateauImage;
    float value = 2.0f;
    const int flags = (state.range(1) != 0 ? 8 : 4) | cv::FLOODFILL_FIXED_RANGE;
    for (auto _ : state) {
        benchmark::DoNotOptimize(cv::floodFill(m, cv::Point(0, 0), cv::Scalar(value), nullptr, cv::Scalar(0.002),
                                               cv::Scalar(0.002), flags));
        value = value == 2.0f ? 1.0f : 2.0f;
    }
    if (value == 1.0f)
        cv::floodFill(m, cv::Point(0, 0), cv::Scalar(1.0f), nullptr, cv::Scalar(0.002), cv::Scalar(0.002), flags);
    pixels(state, kPixels);
}

// Threshold comparison, then the first set pixel in row order.
void BM_OpenCV_CompareFindNonZero(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    cv::Mat& m = images().image;
    m.at<float>(kSize - 1, kSize - 1) = 1000.0f;
    cv::Mat hits;
    std::vector<cv::Point> points;
    for (auto _ : state) {
        cv::compare(m, 500.0f, hits, cv::CMP_GT);
        cv::findNonZero(hits, points);
        benchmark::DoNotOptimize(points.data());
    }
    pixels(state, kPixels);
}

void BM_OpenCV_Compare(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    cv::Mat hits;
    for (auto _ : state) {
        cv::compare(images().image, 30.0f, hits, cv::CMP_GT);
        benchmark::DoNotOptimize(hits.data);
    }
    pixels(state, kPixels);
}

// A 0 / 255 mask to 0 / 1 floats: one conversion pass.
void BM_OpenCV_MaskToFloat(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    cv::Mat out;
    for (auto _ : state) {
        images().maskImage.convertTo(out, CV_32F, 1.0 / 255.0);
        benchmark::DoNotOptimize(out.data);
    }
    pixels(state, kPixels);
}

void BM_OpenCV_Bitwise(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    cv::Mat m = images().maskImage.clone();
    for (auto _ : state) {
        switch (state.range(1)) {
        case 0: cv::bitwise_and(m, images().mask2Image, m); break;
        case 1: cv::bitwise_or(m, images().mask2Image, m); break;
        default: cv::bitwise_not(m, m); break;
        }
        benchmark::DoNotOptimize(m.data);
    }
    pixels(state, kPixels);
}

void BM_OpenCV_CountNonZero(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(cv::countNonZero(images().maskImage));
    pixels(state, kPixels);
}

void BM_OpenCV_ErodeDilate(benchmark::State& state)
{
    images(); // built before the timed loop
    threads(state);
    cv::Mat m = images().maskImage.clone();
    const cv::Mat kernel =
        cv::getStructuringElement(state.range(1) != 0 ? cv::MORPH_CROSS : cv::MORPH_RECT, cv::Size(3, 3));
    bool erode = true;
    for (auto _ : state) {
        erode ? cv::erode(m, m, kernel) : cv::dilate(m, m, kernel);
        erode = !erode;
        benchmark::DoNotOptimize(m.data);
    }
    pixels(state, kPixels);
}
#endif

// Argument 0: OpenCV's threads (1, or 0 for its default; ours runs only as 1); the others
// select the variant.
template <bool Peer>
void framing(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"threads"})->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const int t : {1, 0})
        if (Peer || t == 1)
            b->Arg(t);
}
template <bool Peer>
void frames(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"threads", "y0"})->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const int t : {1, 0})
        if (Peer || t == 1)
            b->Args({t, 64})->Args({t, 63});
}
template <bool Peer>
void scales(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"threads", "mode", "size"})->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const int t : {1, 0})
        if (Peer || t == 1) {
            b->Args({t, 0, 2048})->Args({t, 1, 2048})->Args({t, 1, 3000})->Args({t, 1, 6000});
            b->Args({t, 2, 2048})->Args({t, 2, 1500});
        }
}
template <bool Peer, int Count>
void variants(benchmark::internal::Benchmark* b)
{
    b->ArgNames({"threads", "variant"})->Unit(benchmark::kMillisecond)->UseRealTime();
    for (const int t : {1, 0})
        for (int v = 0; v < Count; ++v)
            if (Peer || t == 1)
                b->Args({t, v});
}

} // namespace

BENCHMARK(BM_EmbedMatrix)->Apply(framing<false>);
BENCHMARK(BM_ExtractFrame)->Apply(frames<false>);
BENCHMARK(BM_ScaleMatrix)->Apply(scales<false>);
BENCHMARK(BM_FillArea)->Apply((variants<false, 2>));
BENCHMARK(BM_FindFirstPoint)->Apply(framing<false>);
BENCHMARK(BM_FromToArray)->Apply(framing<false>);
BENCHMARK(BM_CharFromMatrix)->Apply(framing<false>);
BENCHMARK(BM_CharToMatrix)->Apply(framing<false>);
BENCHMARK(BM_CharLogic)->Apply((variants<false, 3>));
BENCHMARK(BM_CharCountNonZero)->Apply(framing<false>);
BENCHMARK(BM_CharErodeDilate)->Apply((variants<false, 2>));
#if defined(QZSSE_BENCH_WITH_OPENCV)
BENCHMARK(BM_OpenCV_CopyMakeBorder)->Apply(framing<true>);
BENCHMARK(BM_OpenCV_RoiCopy)->Apply(frames<true>);
BENCHMARK(BM_OpenCV_Resize)->Apply(scales<true>);
BENCHMARK(BM_OpenCV_FloodFill)->Apply((variants<true, 2>));
BENCHMARK(BM_OpenCV_CompareFindNonZero)->Apply(framing<true>);
BENCHMARK(BM_OpenCV_Compare)->Apply(framing<true>);
BENCHMARK(BM_OpenCV_MaskToFloat)->Apply(framing<true>);
BENCHMARK(BM_OpenCV_Bitwise)->Apply((variants<true, 3>));
BENCHMARK(BM_OpenCV_CountNonZero)->Apply(framing<true>);
BENCHMARK(BM_OpenCV_ErodeDilate)->Apply((variants<true, 2>));
#endif
