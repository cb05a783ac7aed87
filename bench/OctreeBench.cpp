// Filing the triangles of a grid mesh into a six-level octree, against a plain binning loop
// that finds each triangle's cell by integer division of its bounding box and appends the
// index to a per-cell vector (the same work without the packed containment walk).

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cmath>
#include <memory>
#include <vector>

#include "qzsse/geometry/CHOctree.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace {

constexpr float kSide = 64.0f;
constexpr int kDepth = 6;

// Two triangles per grid cell over [0, 64)^2, heights of a gentle wave inside [16, 48].
std::unique_ptr<CHTriangulation> GridMesh(int triangles)
{
    const int n = static_cast<int>(std::sqrt(triangles / 2.0));
    const float step = kSide / static_cast<float>(n + 1);
    auto height = [](float x, float y) { return 32.0f + 16.0f * std::sin(x * 0.11f) * std::cos(y * 0.07f); };
    auto mesh = std::make_unique<CHTriangulation>(2 * n * n, 1.0f, 1.0f, 1.0f);
    int t = 0;
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            const float x0 = static_cast<float>(i) * step, x1 = x0 + step;
            const float y0 = static_cast<float>(j) * step, y1 = y0 + step;
            const SSEPoint p00{.m = _mm_setr_ps(x0, y0, height(x0, y0), 0)};
            const SSEPoint p10{.m = _mm_setr_ps(x1, y0, height(x1, y0), 0)};
            const SSEPoint p01{.m = _mm_setr_ps(x0, y1, height(x0, y1), 0)};
            const SSEPoint p11{.m = _mm_setr_ps(x1, y1, height(x1, y1), 0)};
            t_htriangle* a = mesh->GetTriangle(t++);
            *a->pPoint[0] = p00, *a->pPoint[1] = p10, *a->pPoint[2] = p11;
            t_htriangle* b = mesh->GetTriangle(t++);
            *b->pPoint[0] = p00, *b->pPoint[1] = p11, *b->pPoint[2] = p01;
        }
    mesh->CalcSTV();
    return mesh;
}

void BM_OctreeInsert(benchmark::State& state, bool direct)
{
    qzsse::detail::g_bDirectOctreeFiling = direct;
    const auto mesh = GridMesh(static_cast<int>(state.range(0)));
    SSEPoint lower{.m = _mm_setzero_ps()}, upper{.m = _mm_setr_ps(kSide, kSide, kSide, 0)};
    for (auto _ : state) {
        state.PauseTiming();
        auto tree = std::make_unique<CHOctree>(upper, lower, kSide / 64.0f);
        state.ResumeTiming();
        tree->CalculateOctreeEntries(mesh.get(), 0);
        benchmark::DoNotOptimize(tree->GetStem()->pEntryList[0]);
        state.PauseTiming();
        tree.reset();
        state.ResumeTiming();
    }
    qzsse::detail::g_bDirectOctreeFiling = false;
    state.SetItemsProcessed(state.iterations() * mesh->GetNumTriangles());
}

// Cells of all levels in one array, level k starting at (8^k - 1) / 7, x fastest.
void BM_GridBinningPeer(benchmark::State& state)
{
    const auto mesh = GridMesh(static_cast<int>(state.range(0)));
    const int finest = 1 << (kDepth - 1);
    const float inverse = static_cast<float>(finest) / kSide;
    std::vector<std::vector<int>> cells(((1 << (3 * kDepth)) - 1) / 7);
    for (auto _ : state) {
        for (auto& cell : cells)
            cell.clear();
        for (int t = 0; t < mesh->GetNumTriangles(); ++t) {
            const t_htriangle* tri = mesh->GetTriangle(t);
            const float* lo = &tri->pMinPoint->x;
            const float* hi = &tri->pMaxPoint->x;
            int a[3], b[3];
            bool inside = true;
            for (int k = 0; k < 3; ++k) {
                inside = inside && lo[k] >= 0.0f && hi[k] <= kSide;
                a[k] = std::min(static_cast<int>(lo[k] * inverse), finest - 1);
                b[k] = std::min(static_cast<int>(hi[k] * inverse), finest - 1);
            }
            if (!inside)
                continue;
            int level = kDepth - 1;
            while (level > 0 && (a[0] != b[0] || a[1] != b[1] || a[2] != b[2])) {
                for (int k = 0; k < 3; ++k)
                    a[k] >>= 1, b[k] >>= 1;
                --level;
            }
            const int side = 1 << level;
            const int first = ((1 << (3 * level)) - 1) / 7;
            cells[first + (a[2] * side + a[1]) * side + a[0]].push_back(t);
        }
        benchmark::DoNotOptimize(cells.data());
    }
    state.SetItemsProcessed(state.iterations() * mesh->GetNumTriangles());
}

} // namespace

BENCHMARK_CAPTURE(BM_OctreeInsert, fast, false)->Arg(1000000)->Unit(benchmark::kMillisecond);
// The slot-by-slot descent, the rule the fast filing reproduces.
BENCHMARK_CAPTURE(BM_OctreeInsert, direct, true)->Arg(1000000)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_GridBinningPeer)->Arg(1000000)->Unit(benchmark::kMillisecond);
