// 3-D convex hull of N integer points, beside CGAL's convex_hull_3 on the same points when
// it is installed. Point sets (the first benchmark argument): 0 random in a cube of side
// 2^20, 1 random in the ball of radius 2^19, 2 on that sphere (rounded to the grid, so
// nearly every point stays on the hull). The incremental hull keeps a conflict graph, so a
// point that falls inside costs only the test that finds it has no face left to see.

#include <array>
#include <cmath>
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

std::vector<std::array<float, 3>> SpacePoints(int kind, int n)
{
    std::mt19937 rng(777);
    std::vector<std::array<float, 3>> points;
    points.reserve(std::size_t(n));
    if (kind == 0) {
        std::uniform_int_distribution<int> coord(0, (1 << 20) - 1);
        while (points.size() < std::size_t(n))
            points.push_back({float(coord(rng)), float(coord(rng)), float(coord(rng))});
        return points;
    }
    const double r = double(1 << 19);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    while (points.size() < std::size_t(n)) {
        double x = unit(rng), y = unit(rng), z = unit(rng);
        const double d = std::sqrt(x * x + y * y + z * z);
        if (d > 1.0 || d < 1e-3)
            continue;
        if (kind == 2)
            x /= d, y /= d, z /= d;
        points.push_back({float(std::round(r * x)), float(std::round(r * y)), float(std::round(r * z))});
    }
    return points;
}

void Sizes(benchmark::internal::Benchmark* b)
{
    for (int kind : {0, 1})
        for (int n : {100000, 1000000})
            b->Args({kind, n});
    b->Args({2, 100000});
    b->Unit(benchmark::kMillisecond);
}

void BM_ConvexHull3D(benchmark::State& state)
{
    const auto points = SpacePoints(int(state.range(0)), int(state.range(1)));
    for (auto _ : state) {
        CHConvexHull3D hull;
        for (const auto& p : points)
            hull.AppendVertex3D(p[0], p[1], p[2], 1.0f);
        hull.CalcConvexHull();
        benchmark::DoNotOptimize(hull.GetNumFaces());
        state.counters["faces"] = hull.GetNumFaces();
    }
    state.SetItemsProcessed(state.iterations() * state.range(1));
}
BENCHMARK(BM_ConvexHull3D)->Apply(Sizes);

#if defined(QZSSE_BENCH_WITH_CGAL)
void BM_CgalConvexHull3(benchmark::State& state)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    std::vector<K::Point_3> points;
    for (const auto& p : SpacePoints(int(state.range(0)), int(state.range(1))))
        points.emplace_back(p[0], p[1], p[2]);
    for (auto _ : state) {
        CGAL::Surface_mesh<K::Point_3> mesh;
        CGAL::convex_hull_3(points.begin(), points.end(), mesh);
        benchmark::DoNotOptimize(mesh.number_of_faces());
        state.counters["faces"] = double(mesh.number_of_faces());
    }
    state.SetItemsProcessed(state.iterations() * state.range(1));
}
BENCHMARK(BM_CgalConvexHull3)->Apply(Sizes);
#endif

} // namespace
