// Simplification, filter, dilation, overlap and merge of two star-shaped polygons of N
// vertices each (the benchmark argument), spaced about one unit apart like a traced contour:
// seven lobes, radius R +- 0.19 R with R = N / 2 pi, +-0.5 of noise, the second centre R / 5
// to the right; beside the peers on the same input when they are installed: Boost.Geometry
// (simplify, buffer, intersection, union_) and Clipper (ClipperOffset, Clipper::Execute). The
// peers get the input in their own coordinates (double, or Clipper's integers at our scale),
// prepared outside the timing; ours converts inside it. The round joins of all three stay
// within 0.001 of the distance (Boost: 70 points per circle).

#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "InputCache.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

#if defined(QZSSE_BENCH_WITH_BOOST)
// Boost 1.74's buffer and rescaling leave values unset on paths g++ 12 cannot rule out.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
#include <boost/geometry.hpp>
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#endif
#if defined(QZSSE_BENCH_WITH_CLIPPER)
#include <polyclipping/clipper.hpp>
#endif

namespace {

constexpr float kDistance = 5.0f;
constexpr float kDeviation = 1.0f;
// Our scale for coordinates below 4096 (R (1.19 + 0.2) + 5 at N = 20000): 2^29 / 2^12.
constexpr double kClipperScale = 131072.0;

struct Stars {
    CSSE3dPolygon a, b;
    std::vector<float> ax, ay, bx, by;

    explicit Stars(int n)
    {
        std::mt19937 rng(7);
        const float radius = static_cast<float>(n) / (2.0f * std::numbers::pi_v<float>);
        make(rng, n, radius, 0.0f, a, ax, ay);
        make(rng, n, radius, 0.2f * radius, b, bx, by);
    }
    static void make(std::mt19937& rng, int n, float radius, float cx, CSSE3dPolygon& p, std::vector<float>& x,
                     std::vector<float>& y)
    {
        std::uniform_real_distribution<float> noise(-0.5f, 0.5f);
        p.Create(n);
        for (int i = 0; i < n; ++i) {
            const float t = 2.0f * std::numbers::pi_v<float> * static_cast<float>(i) / static_cast<float>(n);
            const float r = radius * (1.0f + 0.19f * std::sin(7.0f * t)) + noise(rng);
            x.push_back(cx + r * std::cos(t));
            y.push_back(r * std::sin(t));
            p.SetPoint(i, x.back(), y.back(), 0.0f);
        }
    }
};

Stars& input(benchmark::State& state) { return CachedInput<Stars>(static_cast<int>(state.range(0))); }

void BM_ReducePoints(benchmark::State& state)
{
    Stars& s = input(state);
    for (auto _ : state) {
        CSSE3dPolygon p;
        p.CreateSimilar(&s.a);
        p.ReducePoints(kDeviation, false);
        benchmark::DoNotOptimize(p.GetNumPoints());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ReducePoints)->Arg(2000)->Arg(20000);

void BM_FilterMedian3(benchmark::State& state)
{
    Stars& s = input(state);
    CSSE3dPolygon p;
    p.CreateSimilar(&s.a);
    for (auto _ : state) {
        p.FilterMedian3(true);
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FilterMedian3)->Arg(2000)->Arg(20000);

void BM_DilateExact(benchmark::State& state)
{
    Stars& s = input(state);
    for (auto _ : state)
        benchmark::DoNotOptimize(s.a.DilateExact(kDistance).size());
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_DilateExact)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

void BM_FindIntersectionWithAnotherPolygon(benchmark::State& state)
{
    Stars& s = input(state);
    std::vector<qzsse::PolygonCrossing> crossings;
    std::vector<CSSE3dPolygon> overlap;
    for (auto _ : state)
        benchmark::DoNotOptimize(s.a.FindIntersectionWithAnotherPolygon(s.b, crossings, overlap));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_FindIntersectionWithAnotherPolygon)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

void BM_CreateMergePolygon(benchmark::State& state)
{
    Stars& s = input(state);
    CSSE3dPolygon merged;
    for (auto _ : state)
        benchmark::DoNotOptimize(merged.CreateMergePolygon(s.a, s.b));
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_CreateMergePolygon)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_BOOST)
namespace bg = boost::geometry;
using BPoint = bg::model::d2::point_xy<double>;
using BLine = bg::model::linestring<BPoint>;
using BPolygon = bg::model::polygon<BPoint, false, false>;
using BMulti = bg::model::multi_polygon<BPolygon>;

struct BoostStars {
    BLine line;
    BPolygon a, b;
    explicit BoostStars(int n)
    {
        const Stars& s = CachedInput<Stars>(n);
        for (size_t i = 0; i < s.ax.size(); ++i) {
            line.push_back({s.ax[i], s.ay[i]});
            a.outer().push_back({s.ax[i], s.ay[i]});
            b.outer().push_back({s.bx[i], s.by[i]});
        }
    }
};
BoostStars& boostInput(benchmark::State& state) { return CachedInput<BoostStars>(static_cast<int>(state.range(0))); }

void BM_BoostSimplify(benchmark::State& state)
{
    BoostStars& s = boostInput(state);
    for (auto _ : state) {
        BLine out;
        bg::simplify(s.line, out, kDeviation);
        benchmark::DoNotOptimize(out.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_BoostSimplify)->Arg(2000)->Arg(20000);

void BM_BoostBuffer(benchmark::State& state)
{
    BoostStars& s = boostInput(state);
    for (auto _ : state) {
        BMulti out;
        bg::buffer(s.a, out, bg::strategy::buffer::distance_symmetric<double>(kDistance),
                   bg::strategy::buffer::side_straight(), bg::strategy::buffer::join_round(70),
                   bg::strategy::buffer::end_round(70), bg::strategy::buffer::point_circle(70));
        benchmark::DoNotOptimize(out.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_BoostBuffer)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

void BM_BoostIntersection(benchmark::State& state)
{
    BoostStars& s = boostInput(state);
    for (auto _ : state) {
        BMulti out;
        bg::intersection(s.a, s.b, out);
        benchmark::DoNotOptimize(out.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_BoostIntersection)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

void BM_BoostUnion(benchmark::State& state)
{
    BoostStars& s = boostInput(state);
    for (auto _ : state) {
        BMulti out;
        bg::union_(s.a, s.b, out);
        benchmark::DoNotOptimize(out.size());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_BoostUnion)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);
#endif

#if defined(QZSSE_BENCH_WITH_CLIPPER)
struct ClipperStars {
    ClipperLib::Path a, b;
    explicit ClipperStars(int n)
    {
        const Stars& s = CachedInput<Stars>(n);
        for (size_t i = 0; i < s.ax.size(); ++i) {
            a.emplace_back(std::llround(s.ax[i] * kClipperScale), std::llround(s.ay[i] * kClipperScale));
            b.emplace_back(std::llround(s.bx[i] * kClipperScale), std::llround(s.by[i] * kClipperScale));
        }
    }
};
ClipperStars& clipperInput(benchmark::State& state)
{
    return CachedInput<ClipperStars>(static_cast<int>(state.range(0)));
}

void BM_ClipperOffset(benchmark::State& state)
{
    ClipperStars& s = clipperInput(state);
    const double delta = kDistance * kClipperScale;
    for (auto _ : state) {
        ClipperLib::ClipperOffset offset(2.0, delta * 0.001 / 2.25);
        offset.AddPath(s.a, ClipperLib::jtRound, ClipperLib::etClosedPolygon);
        ClipperLib::PolyTree out;
        offset.Execute(out, delta);
        benchmark::DoNotOptimize(out.Total());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_ClipperOffset)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);

void clipperBoolean(benchmark::State& state, ClipperLib::ClipType type)
{
    ClipperStars& s = clipperInput(state);
    for (auto _ : state) {
        ClipperLib::Clipper clipper;
        clipper.AddPath(s.a, ClipperLib::ptSubject, true);
        clipper.AddPath(s.b, ClipperLib::ptClip, true);
        ClipperLib::PolyTree out;
        clipper.Execute(type, out, ClipperLib::pftNonZero, ClipperLib::pftNonZero);
        benchmark::DoNotOptimize(out.Total());
    }
    state.SetItemsProcessed(state.iterations() * state.range(0));
}
void BM_ClipperIntersection(benchmark::State& state) { clipperBoolean(state, ClipperLib::ctIntersection); }
void BM_ClipperUnion(benchmark::State& state) { clipperBoolean(state, ClipperLib::ctUnion); }
BENCHMARK(BM_ClipperIntersection)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ClipperUnion)->Arg(2000)->Arg(20000)->Unit(benchmark::kMillisecond);
#endif

} // namespace
