// Ear-clipping triangulation beside a CGAL constrained Delaunay triangulation of the same
// outline (its edges as constraints) when CGAL is installed, on three kinds of polygon:
// - Star/N: N vertices at sorted random angles and random radii in [500, 1000];
// - Comb/N: N / 4 long thin teeth (1 wide, 1 apart, 200 high) on a spine, integer corners;
// - Contour/K: the traced contour (at the 30% elevation quantile) of the sample elevation grid
//   tests/storage/data/jacksboro_fault_dem.npy (override the folder with QZSSE_STORAGE_DATA),
//   bilinearly upsampled K times, every traced pixel a vertex (repeats in a row dropped):
//   about 2 000 vertices per K. The traced outline touches itself at a few pixels, so the
//   ear clipping stops somewhat short of vertices - 2 triangles there.
// The counter "vertices" is the polygon's size and "triangles" the ear clipping's output.

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <numbers>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>

#include "InputCache.h"
#include "qzsse/contour/CPixelChain.h"
#include "qzsse/geometry/CHPolygonTriangulator.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "support/NpyReader.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/Constrained_Delaunay_triangulation_2.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#endif

namespace {

struct Outline {
    std::vector<float> x, y;
    CSSE2dPolygon polygon;

    void Finish()
    {
        // Counter-clockwise, as the ear test expects.
        double area = 0;
        for (size_t i = 0; i < x.size(); ++i) {
            const size_t j = (i + 1) % x.size();
            area += double(x[i]) * y[j] - double(x[j]) * y[i];
        }
        if (area < 0) {
            std::reverse(x.begin(), x.end());
            std::reverse(y.begin(), y.end());
        }
        polygon.Create(static_cast<int>(x.size()));
        for (size_t i = 0; i < x.size(); ++i)
            polygon.SetPoint(static_cast<int>(i), x[i], y[i]);
    }
};

struct Star : Outline {
    explicit Star(int n)
    {
        std::mt19937 rng(23);
        std::uniform_real_distribution<double> jitter(0.0, 0.4);
        std::uniform_real_distribution<double> radius(500.0, 1000.0);
        for (int i = 0; i < n; ++i) {
            const double a = (i + jitter(rng)) * 2.0 * std::numbers::pi / n;
            const double r = radius(rng);
            x.push_back(static_cast<float>(r * std::cos(a)));
            y.push_back(static_cast<float>(r * std::sin(a)));
        }
        Finish();
    }
};

struct Comb : Outline {
    explicit Comb(int n)
    {
        const int teeth = std::max(1, n / 4);
        const auto add = [&](int px, int py) {
            x.push_back(static_cast<float>(px));
            y.push_back(static_cast<float>(py));
        };
        add(0, -10);
        add(2 * teeth, -10);
        for (int t = teeth - 1; t >= 0; --t) {
            add(2 * t + 1, 0);
            add(2 * t + 1, 200);
            add(2 * t, 200);
            add(2 * t, 0);
        }
        Finish();
    }
};

std::filesystem::path DataDir()
{
    if (const char* dir = std::getenv("QZSSE_STORAGE_DATA"))
        return dir;
    return std::filesystem::path(__FILE__).parent_path().parent_path() / "tests" / "storage" / "data";
}

struct Contour : Outline {
    explicit Contour(int k)
    {
        const qzsse::detail::NpyGrid g = qzsse::detail::ReadNpy(DataDir() / "jacksboro_fault_dem.npy");
        std::vector<float> sorted = g.values;
        const size_t at = sorted.size() * 3 / 10;
        std::nth_element(sorted.begin(), sorted.begin() + static_cast<long>(at), sorted.end());
        const float level = sorted[at] + 0.5f;
        const int w = (g.width - 1) * k + 1, h = (g.height - 1) * k + 1;
        // A one-pixel frame above the level keeps the traced region inside the image.
        CSSEMatrix m;
        m.Create(w + 2, h + 2);
        for (int py = 0; py < h + 2; ++py)
            for (int px = 0; px < w + 2; ++px) {
                float value = 1e9f;
                if (px > 0 && py > 0 && px <= w && py <= h) {
                    const double u = double(px - 1) / k, v = double(py - 1) / k;
                    const int x0 = std::min(static_cast<int>(u), g.width - 2);
                    const int y0 = std::min(static_cast<int>(v), g.height - 2);
                    const double fx = u - x0, fy = v - y0;
                    const double top = g.at(x0, y0) + (g.at(x0 + 1, y0) - g.at(x0, y0)) * fx;
                    const double bottom = g.at(x0, y0 + 1) + (g.at(x0 + 1, y0 + 1) - g.at(x0, y0 + 1)) * fx;
                    value = static_cast<float>(top + (bottom - top) * fy);
                }
                m.SetPointUnsafe(px, py, value);
            }
        const int startX = (w + 2) / 2;
        int startY = -1;
        for (int py = 1; py <= h && startY < 0; ++py)
            if (m.GetPointUnsafe(startX, py) < level)
                startY = py;
        CPixelChain chain;
        chain.CreatePixelChain(&m, level, startX, startY, 100000000, false, true, 0);
        for (int i = 0; i < chain.GetCount(); ++i) {
            const pixel& p = chain.GetPixelData()[i];
            const float px = static_cast<float>(p.x), py = static_cast<float>(p.y);
            if (x.empty() || px != x.back() || py != y.back()) {
                x.push_back(px);
                y.push_back(py);
            }
        }
        while (x.size() > 1 && x.front() == x.back() && y.front() == y.back()) {
            x.pop_back();
            y.pop_back();
        }
        Finish();
    }
};

template <class Input>
void BM_EarClipping(benchmark::State& state)
{
    Input& s = CachedInput<Input>(static_cast<int>(state.range(0)));
    int triangles = 0;
    for (auto _ : state) {
        CHPolygonTriangulator triangulator(&s.polygon, 1, 1.0f, 1.0f, false);
        triangles = triangulator.GetNumTriangles();
        benchmark::DoNotOptimize(triangles);
    }
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.x.size()));
    state.counters["vertices"] = static_cast<double>(s.x.size());
    state.counters["triangles"] = triangles;
}
BENCHMARK(BM_EarClipping<Star>)->Name("BM_EarClipping/Star")->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EarClipping<Comb>)->Name("BM_EarClipping/Comb")->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_EarClipping<Contour>)->Name("BM_EarClipping/Contour")->Arg(1)->Arg(5)->Arg(10)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
template <class Input>
void BM_CgalConstrainedDelaunay(benchmark::State& state)
{
    using K = CGAL::Exact_predicates_inexact_constructions_kernel;
    using CDT = CGAL::Constrained_Delaunay_triangulation_2<K>;
    Input& s = CachedInput<Input>(static_cast<int>(state.range(0)));
    std::vector<K::Point_2> points;
    for (size_t i = 0; i < s.x.size(); ++i)
        points.emplace_back(s.x[i], s.y[i]);
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
    state.SetItemsProcessed(state.iterations() * static_cast<int64_t>(s.x.size()));
    state.counters["vertices"] = static_cast<double>(s.x.size());
}
BENCHMARK(BM_CgalConstrainedDelaunay<Star>)->Name("BM_CgalConstrainedDelaunay/Star")->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CgalConstrainedDelaunay<Comb>)->Name("BM_CgalConstrainedDelaunay/Comb")->Arg(1000)->Arg(10000)->Arg(100000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CgalConstrainedDelaunay<Contour>)->Name("BM_CgalConstrainedDelaunay/Contour")->Arg(1)->Arg(5)->Arg(10)->Unit(benchmark::kMillisecond);
#endif

}  // namespace
