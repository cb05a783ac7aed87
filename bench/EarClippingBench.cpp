// Ear-clipping triangulation of a star-shaped polygon of N vertices (the benchmark argument),
// beside a CGAL constrained Delaunay triangulation with the polygon's edges as constraints on
// the same outline when CGAL is installed. The ear clipping still tries every candidate
// diagonal against every edge (four edges at a time), so its cost grows with the square of N.

#include <algorithm>
#include <cmath>
#include <numbers>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "InputCache.h"
#include "qzsse/geometry/CHPolygonTriangulator.h"
#include "qzsse/polygon/CSSE2dPolygon.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/Constrained_Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#endif

namespace {

struct Star {
    std::vector<float> x, y;
    CSSE2dPolygon polygon;

    explicit Star(int n)
    {
        std::mt19937 rng(23);
        std::uniform_real_distribution<double> jitter(0.0, 0.4);
        std::uniform_real_distribution<double> radius(500.0, 1000.0);
        polygon.Create(n);
        for (int i = 0; i < n; ++i) {
            const double a = (i + jitter(rng)) * 2.0 * std::numbers::pi / n;
            const double r = radius(rng);
            x.push_back(static_cast<float>(r * std::cos(a)));
            y.push_back(static_cast<float>(r * std::sin(a)));
            polygon.SetPoint(i, x.back(), y.back());
        }
    }
};

void BM_EarClipping(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    Star& s = CachedInput<Star>(n);
    for (auto _ : state) {
        CHPolygonTriangulator triangulator(&s.polygon, 1, 1.0f, 1.0f, false);
        benchmark::DoNotOptimize(triangulator.GetNumTriangles());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_EarClipping)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
void BM_CgalConstrainedDelaunay(benchmark::State& state)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    using CDT = CGAL::Constrained_Delaunay_triangulation_2<K>;
    const int n = static_cast<int>(state.range(0));
    Star& s = CachedInput<Star>(n);
    std::vector<K::Point_2> points;
    for (int i = 0; i < n; ++i)
        points.emplace_back(s.x[static_cast<size_t>(i)], s.y[static_cast<size_t>(i)]);
    for (auto _ : state) {
        CDT cdt;
        std::vector<CDT::Vertex_handle> vertices;
        vertices.reserve(points.size());
        CDT::Face_handle hint;
        for (const auto& p : points) {
            vertices.push_back(cdt.insert(p, hint));
            hint = vertices.back()->face();
        }
        for (size_t i = 0; i < vertices.size(); ++i)
            cdt.insert_constraint(vertices[i], vertices[(i + 1) % vertices.size()]);
        benchmark::DoNotOptimize(cdt.number_of_faces());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_CgalConstrainedDelaunay)->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
