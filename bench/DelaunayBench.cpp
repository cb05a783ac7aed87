// Delaunay triangulation of N random plane points on the 0.1 grid (the benchmark argument),
// beside CGAL's Delaunay_triangulation_2 on the same points when it is installed. The lifted
// hull keeps a conflict graph, so points in random order cost about O(N log N) in all.

#include <random>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "qzsse/geometry/CH2DDelaunay.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#endif

namespace {

std::vector<std::pair<float, float>> RandomGridPoints(int n)
{
    std::mt19937 rng(12345);
    std::uniform_int_distribution<int> coord(0, 99999);
    std::vector<std::pair<float, float>> points(n);
    for (auto& p : points)
        p = {float(coord(rng)) / 10.0f, float(coord(rng)) / 10.0f};
    return points;
}

void BM_Delaunay(benchmark::State& state)
{
    const int n = int(state.range(0));
    const auto points = RandomGridPoints(n);
    for (auto _ : state) {
        CH2DDelaunay delaunay;
        for (int i = 0; i < n; ++i)
            delaunay.AppendVertex(points[i].first, points[i].second, i, false);
        delaunay.CalcDelaunayTriangulation();
        benchmark::DoNotOptimize(delaunay.GetNumFaces());
        state.counters["triangles"] = delaunay.GetNumFaces();
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_Delaunay)
    ->Arg(2500)->Arg(5000)->Arg(10000)->Arg(20000)->Arg(100000)->Arg(1000000)
    ->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
void BM_CgalDelaunay2(benchmark::State& state)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    const int n = int(state.range(0));
    const auto grid = RandomGridPoints(n);
    std::vector<K::Point_2> points;
    for (const auto& p : grid)
        points.emplace_back(p.first, p.second);
    for (auto _ : state) {
        CGAL::Delaunay_triangulation_2<K> dt(points.begin(), points.end());
        benchmark::DoNotOptimize(dt.number_of_faces());
        state.counters["triangles"] = double(dt.number_of_faces());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_CgalDelaunay2)
    ->Arg(2500)->Arg(5000)->Arg(10000)->Arg(20000)->Arg(100000)->Arg(1000000)
    ->Unit(benchmark::kMillisecond);
#endif

} // namespace
