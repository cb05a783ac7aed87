// Delaunay triangulation of N plane points on the 0.1 grid, beside CGAL's
// Delaunay_triangulation_2 on the same points when it is installed. Point sets (the first
// benchmark argument): 0 random in a 10 000 square, 1 clustered (Gaussian blobs), 2 a square
// grid in scan order (rows by y, each by x), 3 random points sorted into scan order, 4 the
// random points of set 0 in CGAL's spatial_sort order (only with CGAL: what the caller's
// order costs, the triangles being the same). The points go in in that order; in scan
// order every point lands outside the hull so far and sees about sqrt(N) faces.

#include <algorithm>
#include <cmath>
#include <random>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "qzsse/geometry/CH2DDelaunay.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/spatial_sort.h>
#endif

namespace {

std::vector<std::pair<float, float>> PlanePoints(int kind, int n)
{
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> coord(0, 99999);
    std::vector<std::pair<float, float>> points(n);
    if (kind == 1) {
        // 50 blobs of sigma 100 at random centres, snapped to the 0.1 grid.
        std::vector<std::pair<float, float>> centres(50);
        for (auto& c : centres)
            c = {float(coord(rng)) / 10.0f, float(coord(rng)) / 10.0f};
        std::normal_distribution<float> blob(0.0f, 100.0f);
        for (int i = 0; i < n; ++i) {
            const auto& c = centres[std::size_t(i) % centres.size()];
            points[std::size_t(i)] = {std::round((c.first + blob(rng)) * 10.0f) / 10.0f,
                                      std::round((c.second + blob(rng)) * 10.0f) / 10.0f};
        }
        return points;
    }
    if (kind == 2) {
        const int side = int(std::ceil(std::sqrt(double(n))));
        for (int i = 0; i < n; ++i)
            points[std::size_t(i)] = {float(i % side), float(i / side)};
        return points;
    }
    for (auto& p : points)
        p = {float(coord(rng)) / 10.0f, float(coord(rng)) / 10.0f};
#if defined(QZSSE_BENCH_WITH_CGAL)
    if (kind == 4) {
        using K = CGAL::Exact_predicates_inexact_constructions_kernel;
        std::vector<K::Point_2> sorted;
        for (const auto& p : points)
            sorted.emplace_back(p.first, p.second);
        CGAL::spatial_sort(sorted.begin(), sorted.end());
        for (std::size_t i = 0; i < points.size(); ++i)
            points[i] = {float(sorted[i].x()), float(sorted[i].y())};
    }
#endif
    if (kind == 3)
        std::sort(points.begin(), points.end(),
                  [](const auto& a, const auto& b) { return a.second != b.second ? a.second < b.second : a.first < b.first; });
    return points;
}

void Sizes(benchmark::internal::Benchmark* b)
{
    for (int n : {10000, 100000, 1000000})
        b->Args({0, n});
    b->Args({1, 100000});
#if defined(QZSSE_BENCH_WITH_CGAL)
    for (int n : {100000, 1000000})
        b->Args({4, n});
#endif
    for (int n : {10000, 40000, 160000})
        b->Args({2, n})->Args({3, n});
    b->Unit(benchmark::kMillisecond);
}

void BM_Delaunay(benchmark::State& state)
{
    const int n = int(state.range(1));
    const auto points = PlanePoints(int(state.range(0)), n);
    for (auto _ : state) {
        CH2DDelaunay delaunay;
        for (int i = 0; i < n; ++i)
            delaunay.AppendVertex(points[std::size_t(i)].first, points[std::size_t(i)].second, i, false);
        delaunay.CalcDelaunayTriangulation();
        benchmark::DoNotOptimize(delaunay.GetNumFaces());
        state.counters["triangles"] = delaunay.GetNumFaces();
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_Delaunay)->Apply(Sizes);

#if defined(QZSSE_BENCH_WITH_CGAL)
void BM_CgalDelaunay2(benchmark::State& state)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    const int n = int(state.range(1));
    std::vector<K::Point_2> points;
    for (const auto& p : PlanePoints(int(state.range(0)), n))
        points.emplace_back(p.first, p.second);
    for (auto _ : state) {
        CGAL::Delaunay_triangulation_2<K> dt(points.begin(), points.end());
        benchmark::DoNotOptimize(dt.number_of_faces());
        state.counters["triangles"] = double(dt.number_of_faces());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_CgalDelaunay2)->Apply(Sizes);
#endif

} // namespace
