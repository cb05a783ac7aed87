// Polygon rasterisation and point-in-polygon on a star-shaped polygon of N vertices (the
// benchmark argument) centred in a 2048 x 2048 matrix, beside the peers on the same input
// when they are installed: Boost.Geometry `within` for the point queries and OpenCV
// `cv::fillPoly` for the fills (float image for the float fills, 8-bit for the char fill).
// The coarse, hole and front-side fills have no direct peer and are timed on their own.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

#if defined(QZSSE_BENCH_WITH_BOOST)
#include <boost/geometry.hpp>
#endif
#if defined(QZSSE_BENCH_WITH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

constexpr int kSize = 2048;
constexpr int kQueries = 4096;

struct Scene {
    std::vector<float> x, y;          // the outline, counter-clockwise
    std::vector<float> qx, qy;        // query points spread over the polygon's box
    CSSE3dPolygon polygon;

    explicit Scene(int vertices)
    {
        std::mt19937 rng(42);
        std::uniform_real_distribution<float> angle(0.0f, 2.0f * std::numbers::pi_v<float>);
        std::uniform_real_distribution<float> radius(600.0f, 1000.0f);
        std::vector<float> angles(static_cast<size_t>(vertices));
        for (float& a : angles)
            a = angle(rng);
        std::sort(angles.begin(), angles.end());
        polygon.Create(vertices);
        for (int i = 0; i < vertices; ++i) {
            const float r = radius(rng);
            x.push_back(1024.0f + r * std::cos(angles[static_cast<size_t>(i)]));
            y.push_back(1024.0f + r * std::sin(angles[static_cast<size_t>(i)]));
            polygon.SetPoint(i, x.back(), y.back(), 0.0f);
        }
        std::uniform_real_distribution<float> spread(24.0f, 2024.0f);
        for (int k = 0; k < kQueries; ++k) {
            qx.push_back(spread(rng));
            qy.push_back(spread(rng));
        }
    }
};

Scene& scene(int vertices)
{
    static Scene s2000(2000);
    if (vertices == 2000)
        return s2000;
    static Scene s200(200);
    return s200;
}

// The fine fills into a float matrix; every pass changes the cells it reaches.
template <class Fill>
void fineFill(benchmark::State& state, Fill fill)
{
    Scene& s = scene(static_cast<int>(state.range(0)));
    CSSEMatrix m;
    m.Create(kSize, kSize);
    float value = 1.0f;
    for (auto _ : state) {
        fill(s.polygon, value, m);
        value += 1.0f;
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kSize * kSize);
}

void BM_DrawInMatrixAndFillFine(benchmark::State& state)
{
    fineFill(state, [](CSSE3dPolygon& p, float v, CSSEMatrix& m) { p.DrawInMatrixAndFillFine(v, &m, false, -1e6f, 1e6f); });
}
BENCHMARK(BM_DrawInMatrixAndFillFine)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);

void BM_DrawInMatrixAndFillFineMax(benchmark::State& state)
{
    fineFill(state,
             [](CSSE3dPolygon& p, float v, CSSEMatrix& m) { p.DrawInMatrixAndFillFineMax(v, &m, false, -1e6f, 1e6f); });
}
BENCHMARK(BM_DrawInMatrixAndFillFineMax)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);

void BM_DrawInMatrixAndFillFineMin(benchmark::State& state)
{
    fineFill(state, [](CSSE3dPolygon& p, float v, CSSEMatrix& m) {
        p.DrawInMatrixAndFillFineMin(-v, &m, false, -1e6f, 1e6f);
    });
}
BENCHMARK(BM_DrawInMatrixAndFillFineMin)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);

void BM_DrawInCharMatrixAndFillFine(benchmark::State& state)
{
    Scene& s = scene(static_cast<int>(state.range(0)));
    CSSEcharMatrix m;
    m.Create(kSize, kSize);
    char value = 1;
    for (auto _ : state) {
        s.polygon.DrawInCharMatrixAndFillFine(value, &m, false, -1e6f, 1e6f);
        value = static_cast<char>(value + 1);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kSize * kSize);
}
BENCHMARK(BM_DrawInCharMatrixAndFillFine)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);

void BM_DrawInMatrixAndFillCoarse(benchmark::State& state)
{
    fineFill(state,
             [](CSSE3dPolygon& p, float v, CSSEMatrix& m) { p.DrawInMatrixAndFillCoarse(v, &m, false, -1e6f, 1e6f); });
}
BENCHMARK(BM_DrawInMatrixAndFillCoarse)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);

// The hole is the outline scaled by a half about the centre.
struct HoleFill : CSSE3dPolygon {
    using CSSE3dPolygon::drawInMatrixWithInsertPolygonAndFillFine;
};

void BM_FillWithInsertedHole(benchmark::State& state)
{
    Scene& s = scene(static_cast<int>(state.range(0)));
    CSSE3dPolygon hole;
    hole.Create(static_cast<int>(s.x.size()));
    for (size_t i = 0; i < s.x.size(); ++i)
        hole.SetPoint(static_cast<int>(i), 1024.0f + 0.5f * (s.x[i] - 1024.0f), 1024.0f + 0.5f * (s.y[i] - 1024.0f), 0.0f);
    fineFill(state, [&hole](CSSE3dPolygon& p, float v, CSSEMatrix& m) {
        static_cast<HoleFill&>(p).drawInMatrixWithInsertPolygonAndFillFine(v, &m, &hole, false, -1e6f, 1e6f);
    });
}
BENCHMARK(BM_FillWithInsertedHole)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);

void BM_DrawInMatrixAndFillToOneSideFront(benchmark::State& state)
{
    fineFill(state, [](CSSE3dPolygon& p, float v, CSSEMatrix& m) {
        p.DrawInMatrixAndFillToOneSideFront(v, &m, false, -1e6f, 1e6f);
    });
}
BENCHMARK(BM_DrawInMatrixAndFillToOneSideFront)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);

void BM_PointInLineInnerArea(benchmark::State& state)
{
    Scene& s = scene(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        int inside = 0;
        for (int k = 0; k < kQueries; ++k)
            inside += s.polygon.PointInLineInnerArea(s.qx[static_cast<size_t>(k)], s.qy[static_cast<size_t>(k)], 1);
        benchmark::DoNotOptimize(inside);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kQueries);
}
BENCHMARK(BM_PointInLineInnerArea)->Arg(200)->Arg(2000);

#if defined(QZSSE_BENCH_WITH_BOOST)
void BM_BoostWithin(benchmark::State& state)
{
    namespace bg = boost::geometry;
    using Point = bg::model::d2::point_xy<double>;
    using Polygon = bg::model::polygon<Point, false, false>; // counter-clockwise, open
    Scene& s = scene(static_cast<int>(state.range(0)));
    Polygon polygon;
    for (size_t i = 0; i < s.x.size(); ++i)
        bg::append(polygon.outer(), Point(s.x[i], s.y[i]));
    std::vector<Point> points;
    for (int k = 0; k < kQueries; ++k)
        points.emplace_back(s.qx[static_cast<size_t>(k)], s.qy[static_cast<size_t>(k)]);
    for (auto _ : state) {
        int inside = 0;
        for (const Point& p : points)
            inside += bg::within(p, polygon);
        benchmark::DoNotOptimize(inside);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kQueries);
}
BENCHMARK(BM_BoostWithin)->Arg(200)->Arg(2000);
#endif

#if defined(QZSSE_BENCH_WITH_OPENCV)
// Sub-pixel vertices (4 fraction bits) into an image of the same size; single-threaded, as
// the fills are.
void openCVFillPoly(benchmark::State& state, int type)
{
    cv::setNumThreads(1);
    Scene& s = scene(static_cast<int>(state.range(0)));
    constexpr int kShift = 4;
    std::vector<cv::Point> points;
    for (size_t i = 0; i < s.x.size(); ++i)
        points.emplace_back(static_cast<int>(std::lround(s.x[i] * (1 << kShift))),
                            static_cast<int>(std::lround(s.y[i] * (1 << kShift))));
    const std::vector<std::vector<cv::Point>> contours{points};
    cv::Mat image(kSize, kSize, type, cv::Scalar(0.0));
    int value = 1;
    for (auto _ : state) {
        cv::fillPoly(image, contours, cv::Scalar(value % 128), cv::LINE_8, kShift);
        ++value;
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kSize * kSize);
}

void BM_OpenCVFillPoly(benchmark::State& state)
{
    openCVFillPoly(state, CV_32F);
}
BENCHMARK(BM_OpenCVFillPoly)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);

void BM_OpenCVFillPoly8U(benchmark::State& state)
{
    openCVFillPoly(state, CV_8U);
}
BENCHMARK(BM_OpenCVFillPoly8U)->Arg(200)->Arg(2000)->Unit(benchmark::kMillisecond);
#endif

} // namespace
