// Meshing a smooth synthetic height image (size x size, the argument) into a CHTriangulation,
// all of it inside the threshold or about half. Each mesher reports triangles written per
// second and the bytes its arrays hold (records + point arrays, all written on creation) per
// second. The peer is the bandwidth bound: a fresh set of buffers of the same total size,
// allocated, memset and released in the same run.

#include <cmath>
#include <cstring>
#include <map>
#include <memory>

#include <benchmark/benchmark.h>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace {

constexpr float kAllInside = -1000.0f; // below every height and the zero padding rows
constexpr float kHalfInside = 0.0f;     // the surface is positive on about half the image

// Bytes of one record plus its slots in the point arrays: corners and vertex normals
// (3 each), face normal, S, T, V, minimum and maximum corner.
constexpr long long kBytesPerRecord = sizeof(t_htriangle) + 12 * sizeof(SSEPoint);

// Two gentle waves: smooth, and positive on about half of the image.
CSSEMatrix& surface(int size)
{
    static std::map<int, std::unique_ptr<CSSEMatrix>> cache;
    auto& slot = cache[size];
    if (!slot) {
        slot = std::make_unique<CSSEMatrix>();
        slot->Create(size, size);
        const float w = 6.2831853f / static_cast<float>(size);
        for (int y = 0; y < size; ++y)
            for (int x = 0; x < size; ++x)
                slot->SetPointUnsafe(x, y, 40.0f * std::sin(w * x + 0.3f) * std::cos(w * y * 1.5f) + 0.001f * x);
    }
    return *slot;
}

int written(const CHTriangulation& mesh)
{
    int n = 0;
    for (int t = 0; t < mesh.GetNumTriangles(); ++t)
        n += mesh.GetTriangle(t)->pMainNormal->z != 0.0f ? 1 : 0;
    return n;
}

int insideCount(int size, float threshold)
{
    return surface(size).NumValuesAbove(threshold);
}

void report(benchmark::State& state, long long triangles, long long records)
{
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * triangles);
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * records * kBytesPerRecord);
    state.counters["triangles"] = static_cast<double>(triangles);
    state.counters["MB"] = static_cast<double>(records * kBytesPerRecord) / 1e6;
}

void meshFullResolution(benchmark::State& state, float threshold)
{
    const int size = static_cast<int>(state.range(0));
    CSSEMatrix& m = surface(size);
    long long triangles = 0, records = 0;
    for (auto _ : state) {
        CHTriangulation mesh(&m, threshold, true, 1.0f, 1.0f, 1.0f);
        benchmark::DoNotOptimize(mesh.GetEdgeArray());
        state.PauseTiming();
        triangles = written(mesh);
        records = mesh.GetNumTriangles();
        state.ResumeTiming();
    }
    report(state, triangles, records);
}

void meshSubsampled(benchmark::State& state, float threshold, int step)
{
    const int size = static_cast<int>(state.range(0));
    CSSEMatrix& m = surface(size);
    // The records reserved, which creation writes whether used or not.
    const long long records = 2LL * insideCount(size, threshold) / (step * step);
    long long triangles = 0;
    for (auto _ : state) {
        CHTriangulation mesh(&m, threshold, true, 1.0f, 1.0f, 1.0f, step, step);
        benchmark::DoNotOptimize(mesh.GetEdgeArray());
        triangles = mesh.GetNumTriangles();
    }
    report(state, triangles, records);
}

// The same allocations as a full-resolution mesh of this threshold, only memset.
void memsetMeshBuffers(benchmark::State& state, float threshold)
{
    const int size = static_cast<int>(state.range(0));
    const long long n = 2LL * insideCount(size, threshold);
    for (auto _ : state) {
        void* records = SafeMalloc(static_cast<size_t>(n) * sizeof(t_htriangle));
        std::memset(records, 0, static_cast<size_t>(n) * sizeof(t_htriangle));
        void* points[8];
        for (int i = 0; i < 8; ++i) {
            const size_t bytes = static_cast<size_t>(i < 2 ? 3 * n : n) * sizeof(SSEPoint);
            points[i] = SafeAlignedAlloc(bytes, 16);
            std::memset(points[i], 0, bytes);
        }
        benchmark::ClobberMemory();
        for (void* p : points)
            SafeAlignedFree(p);
        SafeFree(records);
    }
    report(state, 0, n);
}

void BM_MeshFullResolution_AllInside(benchmark::State& state) { meshFullResolution(state, kAllInside); }
void BM_MeshFullResolution_HalfInside(benchmark::State& state) { meshFullResolution(state, kHalfInside); }
void BM_MemsetMeshBuffers_AllInside(benchmark::State& state) { memsetMeshBuffers(state, kAllInside); }
void BM_MemsetMeshBuffers_HalfInside(benchmark::State& state) { memsetMeshBuffers(state, kHalfInside); }
void BM_MeshSubsampledStep2_AllInside(benchmark::State& state) { meshSubsampled(state, kAllInside, 2); }
void BM_MeshSubsampledStep2_HalfInside(benchmark::State& state) { meshSubsampled(state, kHalfInside, 2); }

} // namespace

BENCHMARK(BM_MeshFullResolution_AllInside)->Arg(2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemsetMeshBuffers_AllInside)->Arg(2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshFullResolution_HalfInside)->Arg(2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemsetMeshBuffers_HalfInside)->Arg(2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshSubsampledStep2_AllInside)->Arg(2048)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MeshSubsampledStep2_HalfInside)->Arg(2048)->Unit(benchmark::kMillisecond);
