// 3-D convex hull of N random integer points in a cube of side 2^20 (the benchmark
// argument), beside CGAL's convex_hull_3 on the same points when it is installed. The
// incremental hull keeps a conflict graph, so a point that falls inside costs only the
// tests against the few faces it was seen to conflict with.

#include <array>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "qzsse/geometry/CHConvexHull3D.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Surface_mesh.h>
#include <CGAL/convex_hull_3.h>
#endif

namespace {

std::vector<std::array<float, 3>> RandomCubePoints(int n)
{
    std::mt19937 rng(777);
    std::uniform_int_distribution<int> coord(0, (1 << 20) - 1);
    std::vector<std::array<float, 3>> points(n);
    for (auto& p : points)
        p = {float(coord(rng)), float(coord(rng)), float(coord(rng))};
    return points;
}

void BM_ConvexHull3D(benchmark::State& state)
{
    const int n = int(state.range(0));
    const auto points = RandomCubePoints(n);
    for (auto _ : state) {
        CHConvexHull3D hull;
        for (const auto& p : points)
            hull.AppendVertex3D(p[0], p[1], p[2], 1.0f);
        hull.CalcConvexHull();
        benchmark::DoNotOptimize(hull.GetNumFaces());
        state.counters["faces"] = hull.GetNumFaces();
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ConvexHull3D)
    ->Arg(12500)->Arg(25000)->Arg(50000)->Arg(100000)->Arg(1000000)
    ->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
void BM_CgalConvexHull3(benchmark::State& state)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    const int n = int(state.range(0));
    std::vector<K::Point_3> points;
    for (const auto& p : RandomCubePoints(n))
        points.emplace_back(p[0], p[1], p[2]);
    for (auto _ : state) {
        CGAL::Surface_mesh<K::Point_3> mesh;
        CGAL::convex_hull_3(points.begin(), points.end(), mesh);
        benchmark::DoNotOptimize(mesh.number_of_faces());
        state.counters["faces"] = double(mesh.number_of_faces());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_CgalConvexHull3)
    ->Arg(12500)->Arg(25000)->Arg(50000)->Arg(100000)->Arg(1000000)
    ->Unit(benchmark::kMillisecond);
#endif

} // namespace
