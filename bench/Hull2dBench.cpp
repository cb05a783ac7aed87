// 2-D convex hull (Graham scan) of N random points (the benchmark argument) in a 1000 x 1000
// square, or with a second argument of 1 in a disk of radius 500, beside CGAL's
// convex_hull_2 on the same points when CGAL is installed.

#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "InputCache.h"
#include "qzsse/geometry/CHConvexHull2D.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/convex_hull_2.h>
#endif

namespace {

struct Cloud {
    std::vector<float> x, y;
    CSSE3dPolygon polygon;

    // key: point count, negated for the disk
    explicit Cloud(int key)
    {
        const int n = key < 0 ? -key : key;
        std::mt19937 rng(17);
        std::uniform_real_distribution<float> c(0.0f, 1000.0f);
        polygon.Create(n);
        while (static_cast<int>(x.size()) < n) {
            const float px = c(rng), py = c(rng);
            if (key < 0 && (px - 500.0f) * (px - 500.0f) + (py - 500.0f) * (py - 500.0f) > 250000.0f)
                continue;
            polygon.SetPoint(static_cast<int>(x.size()), px, py, 0.0f);
            x.push_back(px);
            y.push_back(py);
        }
    }
};

int cloudKey(const benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    return state.range(1) != 0 ? -n : n;
}

void cloudArgs(benchmark::internal::Benchmark* b)
{
    for (const int n : {10000, 100000, 1000000})
        b->Args({n, 0});
    b->Args({1000000, 1});
}

void BM_ConvexHull2D(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    Cloud& c = CachedInput<Cloud>(cloudKey(state));
    for (auto _ : state) {
        CHConvexHull2D hull(&c.polygon);
        CSSE2dPolygon out;
        hull.ObtainConvexHull2D(&out);
        benchmark::DoNotOptimize(out.GetNumPoints());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ConvexHull2D)->Apply(cloudArgs)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
void BM_CgalConvexHull2(benchmark::State& state)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    const int n = static_cast<int>(state.range(0));
    Cloud& c = CachedInput<Cloud>(cloudKey(state));
    std::vector<K::Point_2> points;
    for (int i = 0; i < n; ++i)
        points.emplace_back(c.x[static_cast<size_t>(i)], c.y[static_cast<size_t>(i)]);
    std::vector<K::Point_2> hull;
    for (auto _ : state) {
        hull.clear();
        CGAL::convex_hull_2(points.begin(), points.end(), std::back_inserter(hull));
        benchmark::DoNotOptimize(hull.data());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_CgalConvexHull2)->Apply(cloudArgs)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
