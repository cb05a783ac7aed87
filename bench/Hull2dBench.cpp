// 2-D convex hull (Graham scan) of N random points in a 1000 x 1000 square, the benchmark
// argument, beside CGAL's convex_hull_2 on the same points when CGAL is installed.

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

    explicit Cloud(int n)
    {
        std::mt19937 rng(17);
        std::uniform_real_distribution<float> c(0.0f, 1000.0f);
        polygon.Create(n);
        for (int i = 0; i < n; ++i) {
            x.push_back(c(rng));
            y.push_back(c(rng));
            polygon.SetPoint(i, x.back(), y.back(), 0.0f);
        }
    }
};

void BM_ConvexHull2D(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    Cloud& c = CachedInput<Cloud>(n);
    for (auto _ : state) {
        CHConvexHull2D hull(&c.polygon);
        CSSE2dPolygon out;
        hull.ObtainConvexHull2D(&out);
        benchmark::DoNotOptimize(out.GetNumPoints());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_ConvexHull2D)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
void BM_CgalConvexHull2(benchmark::State& state)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    const int n = static_cast<int>(state.range(0));
    Cloud& c = CachedInput<Cloud>(n);
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
BENCHMARK(BM_CgalConvexHull2)->Arg(10000)->Arg(100000)->Arg(1000000)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
