// Neighbour finding on a square grid mesh of N triangles (the benchmark argument; two per
// cell, split along the cell's (x0,y0)-(x1,y1) diagonal) and on the mesh of a height image
// of side N, beside two peers on the grid mesh:
// the hash map of edges a caller would otherwise write, and the plain pairwise scan with
// removal of completed triangles, which is only run at small sizes.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>
#include <xmmintrin.h>

#include <benchmark/benchmark.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace {

std::unique_ptr<CHTriangulation> makeGrid(int triangles)
{
    const int side = static_cast<int>(std::lround(std::sqrt(triangles / 2.0)));
    auto mesh = std::make_unique<CHTriangulation>(2 * side * side, 1.0f, 1.0f, 1.0f);
    t_htriangle* t = mesh->GetTriangles();
    for (int y = 0; y < side; ++y)
        for (int x = 0; x < side; ++x, t += 2) {
            const float x0 = float(x), x1 = float(x + 1), y0 = float(y), y1 = float(y + 1);
            const float z00 = 0.01f * float((x * 7 + y * 3) % 11);
            t[0].pPoint[0]->m = t[1].pPoint[0]->m = _mm_setr_ps(x0, y0, z00, 0.0f);
            t[0].pPoint[1]->m = t[1].pPoint[2]->m = _mm_setr_ps(x1, y1, 0.01f * float((x * 7 + y * 3 + 10) % 11), 0.0f);
            t[0].pPoint[2]->m = _mm_setr_ps(x0, y1, 0.01f * float((x * 7 + y * 3 + 3) % 11), 0.0f);
            t[1].pPoint[1]->m = _mm_setr_ps(x1, y0, 0.01f * float((x * 7 + y * 3 + 7) % 11), 0.0f);
        }
    return mesh;
}

CHTriangulation& grid(int triangles)
{
    static std::map<int, std::unique_ptr<CHTriangulation>> meshes;
    auto& mesh = meshes[triangles];
    if (!mesh)
        mesh = makeGrid(triangles);
    return *mesh;
}

void BM_CalcNeighbours(benchmark::State& state)
{
    CHTriangulation& mesh = grid(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        mesh.CalcNeighbours();
        benchmark::DoNotOptimize(mesh.GetTriangles()[0].pNeighbour[0]);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * mesh.GetNumTriangles());
}
BENCHMARK(BM_CalcNeighbours)->Arg(2048)->Arg(8192)->Arg(32768)->Arg(2000000)->Unit(benchmark::kMillisecond);

// The full-resolution mesh of a side x side height image, as the matrix constructor leaves
// it: two triangles per cell, then the zeroed surplus records.
void BM_CalcNeighboursHeightImage(benchmark::State& state)
{
    static std::map<int, std::unique_ptr<CHTriangulation>> meshes;
    const int side = static_cast<int>(state.range(0));
    auto& mesh = meshes[side];
    if (!mesh) {
        CSSEMatrix matrix;
        matrix.Create(side, side);
        for (int y = 0; y < side; ++y)
            for (int x = 0; x < side; ++x)
                matrix.SetPoint(x, y, 100.0f + 20.0f * std::sin(0.03f * float(x)) * std::cos(0.02f * float(y)));
        mesh = std::make_unique<CHTriangulation>(&matrix, 0.0f, true, 0.5f, 0.5f, 1.0f);
    }
    for (auto _ : state) {
        mesh->CalcNeighbours();
        benchmark::DoNotOptimize(mesh->GetTriangles()[0].pNeighbour[0]);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * mesh->GetNumTriangles());
}
BENCHMARK(BM_CalcNeighboursHeightImage)->Arg(708)->Arg(1000)->Unit(benchmark::kMillisecond);

// An undirected edge as the bits of its two corner points, lower one first.
struct EdgeKey {
    uint32_t bits[8];
    bool operator==(const EdgeKey& o) const { return std::memcmp(bits, o.bits, sizeof bits) == 0; }
};
struct EdgeKeyHash {
    size_t operator()(const EdgeKey& k) const
    {
        uint64_t h = 1469598103934665603ULL;
        for (uint32_t b : k.bits)
            h = (h ^ b) * 1099511628211ULL;
        return static_cast<size_t>(h);
    }
};

void BM_UnorderedMapEdgeAdjacency(benchmark::State& state)
{
    CHTriangulation& mesh = grid(static_cast<int>(state.range(0)));
    const int n = mesh.GetNumTriangles();
    const t_htriangle* tri = mesh.GetTriangles();
    std::vector<int> neighbour;
    for (auto _ : state) {
        neighbour.assign(3 * static_cast<size_t>(n), -1);
        std::unordered_map<EdgeKey, int, EdgeKeyHash> open;   // value: 3 * triangle + slot
        open.reserve(3 * static_cast<size_t>(n) / 2);
        for (int t = 0; t < n; ++t)
            for (int k = 0; k < 3; ++k) {
                uint32_t a[4], b[4];
                std::memcpy(a, tri[t].pPoint[k], 16);
                std::memcpy(b, tri[t].pPoint[(k + 1) % 3], 16);
                EdgeKey key;
                const bool swap = std::memcmp(b, a, 16) < 0;
                std::memcpy(key.bits, swap ? b : a, 16);
                std::memcpy(key.bits + 4, swap ? a : b, 16);
                auto [it, inserted] = open.try_emplace(key, 3 * t + k);
                if (!inserted) {
                    neighbour[3 * static_cast<size_t>(t) + static_cast<size_t>(k)] = it->second / 3;
                    neighbour[static_cast<size_t>(it->second)] = t;
                }
            }
        benchmark::DoNotOptimize(neighbour.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n);
}
BENCHMARK(BM_UnorderedMapEdgeAdjacency)->Arg(2048)->Arg(8192)->Arg(32768)->Arg(2000000)->Unit(benchmark::kMillisecond);

// Every pair of listed triangles compared on all corners; completed triangles leave the list.
void BM_PairwiseScan(benchmark::State& state)
{
    CHTriangulation& mesh = grid(static_cast<int>(state.range(0)));
    const int n = mesh.GetNumTriangles();
    t_htriangle* tri = mesh.GetTriangles();
    auto occurs = [](const t_htriangle* t, int k, const t_htriangle* u) {
        const __m128 p = t->pPoint[k]->m;
        return (_mm_movemask_ps(_mm_cmpeq_ps(p, u->pPoint[0]->m)) == 0xF) ||
               (_mm_movemask_ps(_mm_cmpeq_ps(p, u->pPoint[1]->m)) == 0xF) ||
               (_mm_movemask_ps(_mm_cmpeq_ps(p, u->pPoint[2]->m)) == 0xF);
    };
    auto slot = [&](const t_htriangle* t, const t_htriangle* u) {
        const bool o0 = occurs(t, 0, u), o1 = occurs(t, 1, u), o2 = occurs(t, 2, u);
        return o0 && o1 ? 0 : o1 && o2 ? 1 : o2 && o0 ? 2 : -1;
    };
    auto full = [](const t_htriangle* t) { return t->pNeighbour[0] && t->pNeighbour[1] && t->pNeighbour[2]; };
    for (auto _ : state) {
        for (int i = 0; i < n; ++i)
            tri[i].pNeighbour[0] = tri[i].pNeighbour[1] = tri[i].pNeighbour[2] = nullptr;
        mesh.IndexTriangleList();
        for (t_htriangle* t = mesh.GetTriangleList(); t;) {
            t_htriangle* after = nullptr;
            for (t_htriangle* u = t->pNext; u;) {
                t_htriangle* next = u->pNext;
                const int s = slot(t, u);
                if (s >= 0) {
                    t->pNeighbour[s] = u;
                    const int b = slot(u, t);
                    if (b >= 0)
                        u->pNeighbour[b] = t;
                    if (full(u))
                        mesh.DeleteTriangleFromList(u);
                    if (full(t)) {
                        after = t->pNext;
                        mesh.DeleteTriangleFromList(t);
                        break;
                    }
                }
                u = next;
            }
            t = after ? after : (full(t) ? nullptr : t->pNext);
        }
        benchmark::DoNotOptimize(tri[0].pNeighbour[0]);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * n);
}
BENCHMARK(BM_PairwiseScan)->Arg(2048)->Arg(8192)->Arg(32768)->Unit(benchmark::kMillisecond);

} // namespace
