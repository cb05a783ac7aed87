// Queries on meshes from the sample height grid (jacksboro_fault_dem, resampled bilinearly):
// - 1M closest-point queries on a 1M-triangle surface (708 x 708 samples) against CGAL's
//   AABB tree (Simple_cartesian<double>, distance queries accelerated);
// - containment of 1M points in a closed 1M-triangle solid (the surface on 501 x 501
//   samples over a flat floor, with walls) against CGAL's Side_of_triangle_mesh.
// Both sides answer the same points (on the 1/1024 grid); building the structures is timed
// separately. Every benchmark runs once over all queries (Iterations(1)): read the CPU time.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <random>
#include <vector>

#include <benchmark/benchmark.h>
#include <emmintrin.h>

#include "support/NpyReader.h"
#include "support/TriangleSoup.h"
#include "qzsse/geometry/CHDecideRyTriInRyTri.h"
#include "qzsse/geometry/CRestorationOctree.h"
#include "qzsse/mesh/CHTriangulation.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/AABB_traits.h>
#include <CGAL/AABB_tree.h>
#include <CGAL/AABB_triangle_primitive.h>
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/Side_of_triangle_mesh.h>
#include <CGAL/Simple_cartesian.h>
#include <CGAL/Surface_mesh.h>
#endif

namespace {

using qzsse::support::MeshOf;
using qzsse::support::Tri;
constexpr int kQueries = 1000000;
constexpr int kSurfaceSide = 708;   // 2 * 707^2 = 999 698 triangles
constexpr int kSolidSide = 501;     // 4 * 500^2 + 8 * 500 = 1 004 000 triangles
constexpr double kGridScale = 1024.0;

std::filesystem::path DataDir()
{
    if (const char* dir = std::getenv("QZSSE_STORAGE_DATA"))
        return dir;
    return std::filesystem::path(__FILE__).parent_path().parent_path() / "tests" / "storage" / "data";
}

// Heights of the sample grid resampled to side x side, on the 1/1024 grid.
std::vector<float> Heights(int side)
{
    static const qzsse::detail::NpyGrid g = qzsse::detail::ReadNpy(DataDir() / "jacksboro_fault_dem.npy");
    std::vector<float> h(static_cast<size_t>(side) * static_cast<size_t>(side));
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x) {
            const double u = x * (g.width - 1.0) / (side - 1.0), v = y * (g.height - 1.0) / (side - 1.0);
            const int x0 = std::min(static_cast<int>(u), g.width - 2), y0 = std::min(static_cast<int>(v), g.height - 2);
            const double fx = u - x0, fy = v - y0;
            const double top = g.at(x0, y0) + (g.at(x0 + 1, y0) - g.at(x0, y0)) * fx;
            const double bottom = g.at(x0, y0 + 1) + (g.at(x0 + 1, y0 + 1) - g.at(x0, y0 + 1)) * fx;
            h[static_cast<size_t>(y) * side + x] =
                static_cast<float>(std::round((top + (bottom - top) * fy) * kGridScale) / kGridScale);
        }
    return h;
}

// The height surface on side x side samples at unit spacing; closed adds floor and walls.
std::vector<Tri> Grid(int side, bool closed, float floorZ)
{
    const std::vector<float> h = Heights(side);
    const auto top = [&h, side](float x, float y) {
        return h[static_cast<size_t>(y) * static_cast<size_t>(side) + static_cast<size_t>(x)];
    };
    return qzsse::support::Slab(side - 1, 1.0f, floorZ, top, closed);
}

struct Scene {
    std::vector<Tri> tris;
    std::unique_ptr<CHTriangulation> mesh;
    std::vector<SSEPoint> queries;   // in the box of the mesh, z widened by a quarter each way
};

Scene& Surface()
{
    static Scene s = [] {
        Scene r;
        r.tris = Grid(kSurfaceSide, false, 0.0f);
        r.mesh = MeshOf(r.tris);
        return r;
    }();
    return s;
}

float MinHeight(const std::vector<Tri>& tris)
{
    float lo = tris[0][2];
    for (const Tri& t : tris)
        lo = std::min({lo, t[2], t[5], t[8]});
    return lo;
}

Scene& Solid()
{
    static Scene s = [] {
        Scene r;
        const std::vector<Tri> top = Grid(kSolidSide, false, 0.0f);
        r.tris = Grid(kSolidSide, true, std::floor(MinHeight(top)) - 50.0f);
        r.mesh = MeshOf(r.tris);
        return r;
    }();
    return s;
}

std::vector<SSEPoint>& Queries(Scene& s)
{
    if (s.queries.empty()) {
        float lo[3] = {1e30f, 1e30f, 1e30f}, hi[3] = {-1e30f, -1e30f, -1e30f};
        for (const Tri& t : s.tris)
            for (int k = 0; k < 9; ++k) {
                lo[k % 3] = std::min(lo[k % 3], t[k]);
                hi[k % 3] = std::max(hi[k % 3], t[k]);
            }
        const float dz = (hi[2] - lo[2]) / 4;
        std::mt19937 rng(42);
        std::uniform_real_distribution<float> x(lo[0], hi[0]), y(lo[1], hi[1]), z(lo[2] - dz, hi[2] + dz);
        s.queries.resize(kQueries);
        for (SSEPoint& p : s.queries) {
            // On the 1/1024 grid, where containment snaps nothing: both sides decide the same
            // points.
            const auto grid = [](float v) { return static_cast<float>(std::round(v * kGridScale) / kGridScale); };
            const float px = grid(x(rng)), py = grid(y(rng)), pz = grid(z(rng));
            p.m = _mm_setr_ps(px, py, pz, 0.0f);
        }
    }
    return s.queries;
}

void BM_ClosestPoint_Ours(benchmark::State& state)
{
    Scene& s = Surface();
    const std::vector<SSEPoint>& q = Queries(s);
    const CRestorationOctree octree(s.mesh.get());
    for (auto _ : state) {
        double sum = 0.0;
        for (const SSEPoint& p : q) {
            double d2;
            sum += octree.FindClosestPoint(p, nullptr, &d2) >= 0 ? d2 : 0.0;
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kQueries);
    state.counters["triangles"] = static_cast<double>(s.tris.size());
}

void BM_OctreeBuild_Ours(benchmark::State& state)
{
    Scene& s = Surface();
    for (auto _ : state) {
        const CRestorationOctree octree(s.mesh.get());
        benchmark::DoNotOptimize(octree.GetNumNodes());
    }
}

void BM_Containment_Ours(benchmark::State& state)
{
    Scene& s = Solid();
    const std::vector<SSEPoint>& q = Queries(s);
    const CHDecideRyTriInRyTri decide(s.mesh.get(), kGridScale);
    if (!decide.IsClosed())
        state.SkipWithError("the solid is not closed");
    for (auto _ : state) {
        int inside = 0;
        for (const SSEPoint& p : q)
            inside += decide.DecidePoint(p) > 0 ? 1 : 0;
        benchmark::DoNotOptimize(inside);
        state.counters["inside"] = inside;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kQueries);
    state.counters["triangles"] = static_cast<double>(s.tris.size());
}

void BM_ContainmentBuild_Ours(benchmark::State& state)
{
    Scene& s = Solid();
    for (auto _ : state) {
        const CHDecideRyTriInRyTri decide(s.mesh.get(), kGridScale);
        benchmark::DoNotOptimize(decide.IsClosed());
    }
}

BENCHMARK(BM_OctreeBuild_Ours)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ClosestPoint_Ours)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ContainmentBuild_Ours)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Containment_Ours)->Iterations(1)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
using SC = CGAL::Simple_cartesian<double>;
using SCTriangles = std::vector<SC::Triangle_3>;
using SCTree = CGAL::AABB_tree<CGAL::AABB_traits<SC, CGAL::AABB_triangle_primitive<SC, SCTriangles::const_iterator>>>;
using Epick = CGAL::Exact_predicates_inexact_constructions_kernel;
using SurfaceMesh = CGAL::Surface_mesh<Epick::Point_3>;

struct CgalSurface {
    CgalSurface()
    {
        for (const Tri& t : Surface().tris)
            triangles.emplace_back(SC::Point_3(t[0], t[1], t[2]), SC::Point_3(t[3], t[4], t[5]),
                                   SC::Point_3(t[6], t[7], t[8]));
    }
    SCTriangles triangles;
};

void BM_ClosestPoint_CGAL(benchmark::State& state)
{
    static const CgalSurface input;
    const std::vector<SSEPoint>& q = Queries(Surface());
    SCTree tree(input.triangles.begin(), input.triangles.end());
    tree.accelerate_distance_queries();
    for (auto _ : state) {
        double sum = 0.0;
        for (const SSEPoint& p : q) {
            const SC::Point_3 x(p.x, p.y, p.z);
            sum += CGAL::squared_distance(x, tree.closest_point(x));
        }
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kQueries);
}

void BM_AabbTreeBuild_CGAL(benchmark::State& state)
{
    static const CgalSurface input;
    for (auto _ : state) {
        SCTree tree(input.triangles.begin(), input.triangles.end());
        tree.accelerate_distance_queries();
        benchmark::DoNotOptimize(tree.size());
    }
}

// The solid as a Surface_mesh, corners shared by position.
SurfaceMesh& CgalSolid()
{
    static SurfaceMesh mesh = [] {
        SurfaceMesh m;
        std::map<std::array<float, 3>, SurfaceMesh::Vertex_index> index;
        const auto vertex = [&](const Tri& t, int k) {
            const std::array<float, 3> key{t[3 * k], t[3 * k + 1], t[3 * k + 2]};
            const auto found = index.find(key);
            return found != index.end() ? found->second
                                        : (index[key] = m.add_vertex(Epick::Point_3(key[0], key[1], key[2])));
        };
        for (const Tri& t : Solid().tris)
            m.add_face(vertex(t, 0), vertex(t, 1), vertex(t, 2));
        return m;
    }();
    return mesh;
}

void BM_Containment_CGAL(benchmark::State& state)
{
    const std::vector<SSEPoint>& q = Queries(Solid());
    const CGAL::Side_of_triangle_mesh<SurfaceMesh, Epick> side(CgalSolid());
    for (auto _ : state) {
        int inside = 0;
        for (const SSEPoint& p : q)
            inside += side(Epick::Point_3(p.x, p.y, p.z)) == CGAL::ON_BOUNDED_SIDE ? 1 : 0;
        benchmark::DoNotOptimize(inside);
        state.counters["inside"] = inside;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * kQueries);
}

BENCHMARK(BM_AabbTreeBuild_CGAL)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_ClosestPoint_CGAL)->Iterations(1)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Containment_CGAL)->Iterations(1)->Unit(benchmark::kMillisecond);
#endif

} // namespace
