// Scan conversion of the mesh of an N x N smooth surface (first argument) with cells of
// `step` samples (second argument; two triangles per cell, about 2 million at N = 1000 and
// step 1) into an N x N height image, sampled and rasterised, beside a memset of the same
// target (the bandwidth bound) and, when installed, OpenCV's cv::fillConvexPoly of every
// triangle's projection into a CV_32F image.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"

#if defined(QZSSE_BENCH_WITH_OPENCV)
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#endif

namespace {

float surface(int x, int y)
{
    return 50.0f + 20.0f * std::sin(0.01f * static_cast<float>(x)) * std::cos(0.013f * static_cast<float>(y));
}

// Grid triangles are written directly, with the cell split along (x, y)-(x+1, y+1).
std::unique_ptr<CHTriangulation> buildMesh(int n, int step)
{
    const int cells = (n - 1) / step;
    auto mesh = std::make_unique<CHTriangulation>(2 * cells * cells, 1.0f, 1.0f, 1.0f);
    auto set = [](SSEPoint* p, int x, int y) {
        p->x = static_cast<float>(x);
        p->y = static_cast<float>(y);
        p->z = surface(x, y);
        p->w = 0.0f;
    };
    int index = 0;
    for (int y = 0; y < cells * step; y += step)
        for (int x = 0; x < cells * step; x += step) {
            t_htriangle* a = mesh->GetTriangle(index++);
            set(a->pPoint[0], x, y);
            set(a->pPoint[1], x + step, y + step);
            set(a->pPoint[2], x, y + step);
            t_htriangle* b = mesh->GetTriangle(index++);
            set(b->pPoint[0], x, y);
            set(b->pPoint[1], x + step, y);
            set(b->pPoint[2], x + step, y + step);
        }
    mesh->CalcSTV();
    mesh->CalcBoundingBox();
    return mesh;
}

CHTriangulation& meshOf(const benchmark::State& state)
{
    static std::map<std::pair<int, int>, std::unique_ptr<CHTriangulation>> cache;
    const int n = static_cast<int>(state.range(0)), step = static_cast<int>(state.range(1));
    auto& slot = cache[{n, step}];
    if (!slot)
        slot = buildMesh(n, step);
    return *slot;
}

void report(benchmark::State& state, const CHTriangulation& mesh, std::int64_t targetBytes)
{
    state.SetItemsProcessed(state.iterations() * mesh.GetNumTriangles());
    state.SetBytesProcessed(state.iterations() * targetBytes);
    state.counters["triangles"] = mesh.GetNumTriangles();
}

std::int64_t matrixBytes(const CSSEMatrix& m)
{
    return static_cast<std::int64_t>(m.GetSSESizeX()) * m.GetSSESizeY() * 16;
}

void BM_ScanConvertTriangulationMax(benchmark::State& state)
{
    CHTriangulation& mesh = meshOf(state);
    CSSEMatrix target;
    for (auto _ : state) {
        mesh.ScanConvertTriangulationMax(&target, 0.0f);
        benchmark::DoNotOptimize(target.GetMatrixDataDirectly());
    }
    report(state, mesh, matrixBytes(target));
}
BENCHMARK(BM_ScanConvertTriangulationMax)->Args({1000, 1})->Args({1000, 10})->Unit(benchmark::kMillisecond);

void BM_FastScanConvertTriangulation(benchmark::State& state)
{
    CHTriangulation& mesh = meshOf(state);
    CSSEMatrix target;
    for (auto _ : state) {
        mesh.FastScanConvertTriangulation(&target, 0.0f, true);
        benchmark::DoNotOptimize(target.GetMatrixDataDirectly());
    }
    report(state, mesh, matrixBytes(target));
}
BENCHMARK(BM_FastScanConvertTriangulation)->Args({1000, 1})->Args({1000, 10})->Unit(benchmark::kMillisecond);

// The floor for any conversion that writes the whole target once.
void BM_MemsetTarget(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    const std::int64_t bytes = static_cast<std::int64_t>(n) * ((n >> 2) + 1) * 16;
    void* block = SafeAlignedAlloc(static_cast<unsigned long long>(bytes), 16);
    for (auto _ : state) {
        std::memset(block, 0, static_cast<size_t>(bytes));
        benchmark::DoNotOptimize(block);
        benchmark::ClobberMemory();
    }
    SafeAlignedFree(block);
    state.SetBytesProcessed(state.iterations() * bytes);
}
BENCHMARK(BM_MemsetTarget)->Arg(1000)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_OPENCV)
// Draws each triangle's projection with its first corner's height, the closest thing the
// peer offers to an envelope (it overwrites instead of keeping the maximum).
void BM_OpenCVFillConvexPoly(benchmark::State& state)
{
    CHTriangulation& mesh = meshOf(state);
    const SSEPoint lo = mesh.GetMinPoint(), hi = mesh.GetMaxPoint();
    const int w = static_cast<int>(hi.x - lo.x + 0.5f), h = static_cast<int>(hi.y - lo.y + 0.5f);
    cv::Mat image(h + 1, w + 1, CV_32F);
    for (auto _ : state) {
        image.setTo(0.0);
        for (int i = 0; i < mesh.GetNumTriangles(); ++i) {
            const t_htriangle* t = mesh.GetTriangle(i);
            cv::Point corners[3];
            for (int k = 0; k < 3; ++k)
                corners[k] = cv::Point(static_cast<int>(t->pPoint[k]->x - lo.x + 0.5f),
                                       static_cast<int>(t->pPoint[k]->y - lo.y + 0.5f));
            cv::fillConvexPoly(image, corners, 3, cv::Scalar(t->pPoint[0]->z - lo.z));
        }
        benchmark::DoNotOptimize(image.data);
    }
    report(state, mesh, static_cast<std::int64_t>(image.total() * image.elemSize()));
}
BENCHMARK(BM_OpenCVFillConvexPoly)->Args({1000, 1})->Args({1000, 10})->Unit(benchmark::kMillisecond);
#endif

} // namespace
