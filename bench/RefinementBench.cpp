// Refinement of an ear-clipped polygon of N vertices (the benchmark argument) to its
// constrained Delaunay triangulation, beside CGAL building the constrained Delaunay
// triangulation of the same outline from scratch when CGAL is installed. The ear clipping is
// done once per input, outside the timing: only the refinement (adjacency plus flips) is
// timed, since that is what replaces CGAL's work here.
//
// Two outlines: a star (random radii), where the ear clipping is already nearly Delaunay, and
// an ellipse, where it is a fan from one vertex and the flips grow with the square of N.

#include <cmath>
#include <memory>
#include <numbers>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "InputCache.h"
#include "qzsse/geometry/CHPolygonTriangulationRefinement.h"
#include "qzsse/geometry/CHPolygonTriangulator.h"
#include "qzsse/polygon/CSSE2dPolygon.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/Constrained_Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#endif

namespace {

template <bool Ellipse>
struct EarClipped {
    std::vector<float> x, y;
    CSSE2dPolygon polygon;
    std::unique_ptr<CHPolygonTriangulator> triangulator;

    explicit EarClipped(int n)
    {
        std::mt19937 rng(23);
        std::uniform_real_distribution<double> jitter(0.0, 0.4);
        std::uniform_real_distribution<double> radius(500.0, 1000.0);
        polygon.Create(n);
        for (int i = 0; i < n; ++i) {
            const double a = (i + jitter(rng)) * 2.0 * std::numbers::pi / n;
            const double rx = Ellipse ? 7000.0 : radius(rng), ry = Ellipse ? 4000.0 : rx;
            x.push_back(static_cast<float>(rx * std::cos(a)));
            y.push_back(static_cast<float>(ry * std::sin(a)));
            polygon.SetPoint(i, x.back(), y.back());
        }
        triangulator = std::make_unique<CHPolygonTriangulator>(&polygon, 1, 1.0f, 1.0f, false);
    }
};
using EarClippedStar = EarClipped<false>;

template <bool Ellipse>
void BM_RefineToConstrainedDelaunay(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    EarClipped<Ellipse>& s = CachedInput<EarClipped<Ellipse>>(n);
    int flips = 0;
    for (auto _ : state) {
        CHPolygonTriangulationRefinement refinement(*s.triangulator, s.polygon);
        flips = refinement.FlipToConstrainedDelaunay();
        benchmark::DoNotOptimize(refinement.GetNumTriangles());
    }
    state.counters["flips"] = flips;
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_RefineToConstrainedDelaunay<false>)->Name("BM_RefineToConstrainedDelaunay/star")->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_RefineToConstrainedDelaunay<true>)->Name("BM_RefineToConstrainedDelaunay/ellipse")->Arg(1000)->Arg(3000)->Unit(benchmark::kMillisecond);

void BM_RefineAndCollapseSlivers(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    EarClippedStar& s = CachedInput<EarClippedStar>(n);
    for (auto _ : state) {
        CHPolygonTriangulationRefinement refinement(*s.triangulator, s.polygon);
        refinement.FlipToConstrainedDelaunay();
        benchmark::DoNotOptimize(refinement.CollapseSlivers(5.0f, 0.0f));
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_RefineAndCollapseSlivers)->Arg(10000)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
using K = CGAL::Exact_predicates_inexact_constructions_kernel;
using CDT = CGAL::Constrained_Delaunay_triangulation_2<K>;

// The polygon as one closed constraint polyline: CGAL inserts the points spatially sorted.
template <bool Ellipse>
void BM_CgalConstrainedDelaunay(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    EarClipped<Ellipse>& s = CachedInput<EarClipped<Ellipse>>(n);
    std::vector<K::Point_2> points;
    for (int i = 0; i < n; ++i)
        points.emplace_back(s.x[static_cast<size_t>(i)], s.y[static_cast<size_t>(i)]);
    for (auto _ : state) {
        CDT cdt;
        cdt.insert_constraint(points.begin(), points.end(), true);
        benchmark::DoNotOptimize(cdt.number_of_faces());
    }
    state.SetItemsProcessed(state.iterations() * n);
}
BENCHMARK(BM_CgalConstrainedDelaunay<false>)->Name("BM_CgalConstrainedDelaunay/star")->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CgalConstrainedDelaunay<true>)->Name("BM_CgalConstrainedDelaunay/ellipse")->Arg(1000)->Arg(3000)->Unit(benchmark::kMillisecond);

// Points first in polygon order (each located from the previous), then the edges.
void BM_CgalConstrainedDelaunayPointsThenEdges(benchmark::State& state)
{
    const int n = static_cast<int>(state.range(0));
    EarClippedStar& s = CachedInput<EarClippedStar>(n);
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
BENCHMARK(BM_CgalConstrainedDelaunayPointsThenEdges)->Arg(1000)->Arg(10000)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
