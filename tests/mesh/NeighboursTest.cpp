#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <string>
#include <vector>
#include <xmmintrin.h>

#include "mesh/MeshTestUtil.h"
#include "qzsse/mesh/detail/TriangulationNeighbours.h"

using namespace qzsse::test;

namespace {

// Neighbour index per slot (3 per record, -1 for none) and the records left in the list.
struct Adjacency {
    std::vector<int> neighbour;
    std::vector<int> listed;
};

// The pairwise scan written out plainly on a copy of the corners, with its own list.
Adjacency pairwiseScan(const CHTriangulation& mesh)
{
    const int n = mesh.GetNumTriangles();
    const std::vector<SSEPoint> c(mesh.GetEdgeArray(), mesh.GetEdgeArray() + 3 * n);
    auto occurs = [&](int t, int k, int u) {
        for (int j = 0; j < 3; ++j)
            if (_mm_movemask_ps(_mm_cmpeq_ps(c[3 * t + k].m, c[3 * u + j].m)) == 0xF)
                return true;
        return false;
    };
    auto slot = [&](int t, int u) {
        const bool o0 = occurs(t, 0, u), o1 = occurs(t, 1, u), o2 = occurs(t, 2, u);
        return o0 && o1 ? 0 : o1 && o2 ? 1 : o2 && o0 ? 2 : -1;
    };
    Adjacency r{std::vector<int>(3 * n, -1), {}};
    std::vector<int> next(n), prev(n);
    for (int i = 0; i < n; ++i) {
        next[i] = i + 1 < n ? i + 1 : -1;
        prev[i] = i - 1;
    }
    int head = n > 0 ? 0 : -1;
    auto full = [&](int t) { return r.neighbour[3 * t] >= 0 && r.neighbour[3 * t + 1] >= 0 && r.neighbour[3 * t + 2] >= 0; };
    auto unlink = [&](int t) {   // keeps t's own links, so a walk standing on t goes on
        (prev[t] >= 0 ? next[prev[t]] : head) = next[t];
        if (next[t] >= 0)
            prev[next[t]] = prev[t];
    };
    for (int t = head; t >= 0; t = next[t]) {
        for (int u = next[t]; u >= 0; u = next[u]) {
            const int s = slot(t, u);
            if (s < 0)
                continue;
            r.neighbour[3 * t + s] = u;
            const int b = slot(u, t);
            if (b >= 0)
                r.neighbour[3 * u + b] = t;
            if (full(u))
                unlink(u);
            if (full(t)) {
                unlink(t);
                break;
            }
        }
    }
    for (int t = head; t >= 0; t = next[t])
        r.listed.push_back(t);
    return r;
}

Adjacency adjacencyOf(const CHTriangulation& mesh)
{
    const t_htriangle* base = mesh.GetTriangles();
    Adjacency r;
    for (int i = 0; i < mesh.GetNumTriangles(); ++i)
        for (const t_htriangle* u : base[i].pNeighbour)
            r.neighbour.push_back(u ? static_cast<int>(u - base) : -1);
    const t_htriangle* before = nullptr;
    for (const t_htriangle* t = mesh.GetTriangleList(); t; t = t->pNext) {
        EXPECT_EQ(t->pPrev, before);
        r.listed.push_back(static_cast<int>(t - base));
        before = t;
    }
    return r;
}

void expectSameAsScan(CHTriangulation& mesh, const char* what)
{
    const Adjacency expected = pairwiseScan(mesh);
    mesh.CalcNeighbours();
    const Adjacency got = adjacencyOf(mesh);
    ASSERT_EQ(got.neighbour, expected.neighbour) << what;
    ASSERT_EQ(got.listed, expected.listed) << what;
}

TEST(Neighbours, MatchPairwiseScanOnCollidingRandomMeshes)
{
    std::mt19937 rng(7);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (int round = 0; round < 400; ++round) {
        const int n = int(rng() % 90);
        const int lattice = 2 + int(rng() % 3);
        CHTriangulation mesh(n, 1, 1, 1);
        auto coord = [&] { return float(rng() % lattice); };
        auto height = [&] { const int r = int(rng() % 8); return r == 0 ? -0.0f : r == 1 ? nan : r < 5 ? 0.0f : 1.0f; };
        for (int t = 0; t < n; ++t) {
            const int kind = int(rng() % 10);
            if (kind == 0)
                continue;   // zeroed record: all corners at the origin
            if (kind <= 2 && t > 0) {   // copy of an earlier triangle, maybe rotated
                const int s = int(rng() % t), r = int(rng() % 3);
                for (int k = 0; k < 3; ++k)
                    mesh.GetTriangles()[t].pPoint[k]->m = mesh.GetTriangles()[s].pPoint[(k + r) % 3]->m;
                continue;
            }
            for (int k = 0; k < 3; ++k)
                setCorner(mesh, t, k, coord(), coord(), height());
            if (kind == 3)   // one point three times
                for (int k = 1; k < 3; ++k)
                    mesh.GetTriangles()[t].pPoint[k]->m = mesh.GetTriangles()[t].pPoint[0]->m;
            if (kind == 4)   // two equal corners
                mesh.GetTriangles()[t].pPoint[rng() % 3]->m = mesh.GetTriangles()[t].pPoint[rng() % 3]->m;
        }
        expectSameAsScan(mesh, ("round " + std::to_string(round)).c_str());
    }
}

TEST(Neighbours, MatchPairwiseScanOnShuffledGridsWithZeroedSurplus)
{
    std::mt19937 rng(11);
    for (int round = 0; round < 40; ++round) {
        const int w = 1 + int(rng() % 7), h = 1 + int(rng() % 7), surplus = int(rng() % 30);
        CHTriangulation grid(2 * w * h, 1, 1, 1);
        writeGrid(grid, w, h);
        // The same triangles in shuffled records with rotated corners, zeroed records mixed in
        // (they share the grid's corner at the origin).
        std::vector<int> order(2 * w * h + surplus);
        for (size_t i = 0; i < order.size(); ++i)
            order[i] = int(i);
        std::shuffle(order.begin(), order.end(), rng);
        CHTriangulation mesh(int(order.size()), 1, 1, 1);
        for (size_t i = 0; i < order.size(); ++i) {
            if (order[i] >= 2 * w * h)
                continue;
            const int r = round % 2 ? int(rng() % 3) : 0;
            for (int k = 0; k < 3; ++k)
                mesh.GetTriangles()[i].pPoint[k]->m = grid.GetTriangles()[order[i]].pPoint[(k + r) % 3]->m;
        }
        expectSameAsScan(mesh, ("round " + std::to_string(round)).c_str());
        // In array order, with the surplus behind the grid as the full-resolution mesher leaves it.
        CHTriangulation tail(2 * w * h + surplus, 1, 1, 1);
        writeGrid(tail, w, h);
        expectSameAsScan(tail, "surplus at the end");
    }
}

void expectSameAsScanAndReplay(CHTriangulation& mesh, int round)
{
    const int n = mesh.GetNumTriangles();
    qzsse::detail::g_bDirectNeighbourReplay = true;
    mesh.CalcNeighbours();
    const Adjacency replayed = adjacencyOf(mesh);
    qzsse::detail::g_bDirectNeighbourReplay = false;
    expectSameAsScan(mesh, ("round " + std::to_string(round)).c_str());
    const Adjacency got = adjacencyOf(mesh);
    ASSERT_EQ(got.neighbour, replayed.neighbour) << round;
    ASSERT_EQ(got.listed, replayed.listed) << round;
    // The removed records keep no links.
    for (int t = 0; t < n; ++t) {
        if (std::find(got.listed.begin(), got.listed.end(), t) == got.listed.end()) {
            ASSERT_TRUE(mesh.GetTriangles()[t].pNext == nullptr && mesh.GetTriangles()[t].pPrev == nullptr) << round;
        }
    }
}

// Shuffled grids with rotated corners, plain or with one extra triangle that keeps the mesh
// plain (on a border edge) or not (a third triangle on an inner edge, a repeated triangle, a
// triangle with two equal corners, a NaN corner, -0.0 against +0.0), against the scan and
// against the replay of it.
TEST(Neighbours, PlainMeshesAndTheirNearMissesMatchScanAndReplay)
{
    enum Extra { kNone, kOnBorderEdge, kOnInnerEdge, kRepeated, kTwoEqualCorners, kNaNCorner, kNegativeZero };
    std::mt19937 rng(23);
    const float nan = std::numeric_limits<float>::quiet_NaN();
    for (int round = 0; round < 140; ++round) {
        const Extra extra = Extra(round % 7);
        const int w = 1 + int(rng() % 6), h = 1 + int(rng() % 6), cells = 2 * w * h;
        CHTriangulation grid(cells, 1, 1, 1);
        writeGrid(grid, w, h);
        const int n = cells + (extra == kNone ? 0 : 1);
        std::vector<int> order(size_t(n), 0);
        for (int i = 0; i < n; ++i)
            order[size_t(i)] = i;
        std::shuffle(order.begin(), order.end(), rng);
        CHTriangulation mesh(n, 1, 1, 1);
        for (int i = 0; i < n; ++i) {
            const int r = int(rng() % 3), t = order[size_t(i)];
            if (t < cells) {
                for (int k = 0; k < 3; ++k)
                    mesh.GetTriangles()[i].pPoint[k]->m = grid.GetTriangles()[t].pPoint[(k + r) % 3]->m;
                continue;
            }
            const float cx = float(rng() % unsigned(w)), cy = float(rng() % unsigned(h));
            switch (extra) {
            case kOnBorderEdge:   // below the bottom edge of cell (cx, 0)
                setCorner(mesh, i, 0, cx, 0), setCorner(mesh, i, 1, cx + 0.5f, -1), setCorner(mesh, i, 2, cx + 1, 0);
                break;
            case kOnInnerEdge:    // across the diagonal of cell (cx, cy)
                setCorner(mesh, i, 0, cx, cy), setCorner(mesh, i, 1, cx + 1, cy + 1), setCorner(mesh, i, 2, cx + 3, cy);
                break;
            case kRepeated:
                for (int k = 0; k < 3; ++k)
                    mesh.GetTriangles()[i].pPoint[k]->m = grid.GetTriangles()[int(rng() % unsigned(cells))].pPoint[(k + r) % 3]->m;
                break;
            case kTwoEqualCorners:
                setCorner(mesh, i, 0, cx, cy), setCorner(mesh, i, 1, cx + 1, cy + 1), setCorner(mesh, i, 2, cx, cy);
                break;
            case kNaNCorner:
                setCorner(mesh, i, 0, cx, cy), setCorner(mesh, i, 1, cx + 1, cy + 1), setCorner(mesh, i, 2, nan, cy);
                break;
            default:              // the origin written as -0.0, with a border edge of cell (0, 0)
                setCorner(mesh, i, 0, -0.0f, 0), setCorner(mesh, i, 1, 0.5f, -1), setCorner(mesh, i, 2, 1, 0);
                break;
            }
        }
        expectSameAsScanAndReplay(mesh, round);
    }
}

// A closed fan and an open one around a point with many triangles, in shuffled records.
TEST(Neighbours, FansMatchScanAndReplay)
{
    std::mt19937 rng(3);
    for (const int spokes : {3, 17, 40, 200}) {
        for (const bool closed : {true, false}) {
            const int n = closed ? spokes : spokes - 1;
            std::vector<int> order(size_t(n), 0);
            for (int i = 0; i < n; ++i)
                order[size_t(i)] = i;
            std::shuffle(order.begin(), order.end(), rng);
            CHTriangulation mesh(n, 1, 1, 1);
            const auto rim = [spokes](int k, float& x, float& y) {
                x = std::cos(6.2831853f * float(k % spokes) / float(spokes));
                y = std::sin(6.2831853f * float(k % spokes) / float(spokes));
            };
            for (int i = 0; i < n; ++i) {
                float x0, y0, x1, y1;
                rim(order[size_t(i)], x0, y0);
                rim(order[size_t(i)] + 1, x1, y1);
                setCorner(mesh, i, 0, 0, 0), setCorner(mesh, i, 1, x0, y0), setCorner(mesh, i, 2, x1, y1);
            }
            expectSameAsScanAndReplay(mesh, spokes);
        }
    }
}

// A strip on fresh points (more points than the point numbering first makes room for),
// then copies of random strip triangles, whose corners were last seen long before.
TEST(Neighbours, MatchPairwiseScanWhenPointsRecurFarApart)
{
    std::mt19937 rng(5);
    const int strip = 1100, copies = 200;
    CHTriangulation mesh(strip + copies, 1, 1, 1);
    for (int t = 0; t < strip; ++t)
        for (int k = 0; k < 3; ++k)
            setCorner(mesh, t, k, float(t + k), float((t + k) % 2), 0.5f);
    for (int t = strip; t < strip + copies; ++t) {
        const int s = int(rng() % strip), r = int(rng() % 3);
        for (int k = 0; k < 3; ++k)
            mesh.GetTriangles()[t].pPoint[k]->m = mesh.GetTriangles()[s].pPoint[(k + r) % 3]->m;
    }
    expectSameAsScan(mesh, "strip");
}

// Plain meshes, or nearly so, whose corners the point numbering cannot keep in its grid of
// cells: points piled above one another, an outlier far off, more points than it expected;
// and zeroed records around a grid, before or after the triangles holding their point.
TEST(Neighbours, PlainMeshesOffTheCellGridMatchScanAndReplay)
{
    struct Case {
        const char* name;
        int n;
        std::function<void(CHTriangulation&)> write;
    };
    const auto wall = [](CHTriangulation& mesh) {   // x and z vary, y does not: 101 points per x
        for (int z = 0; z < 100; ++z)
            for (int x = 0; x < 3; ++x) {
                const int t = 2 * (z * 3 + x);
                const float x0 = float(x), x1 = float(x + 1), z0 = float(z), z1 = float(z + 1);
                setCorner(mesh, t, 0, x0, 0, z0), setCorner(mesh, t, 1, x1, 0, z1), setCorner(mesh, t, 2, x0, 0, z1);
                setCorner(mesh, t + 1, 0, x0, 0, z0), setCorner(mesh, t + 1, 1, x1, 0, z0), setCorner(mesh, t + 1, 2, x1, 0, z1);
            }
    };
    const auto gridWithZeros = [](int w, int h, int zerosBefore, float originZ) {
        return [=](CHTriangulation& mesh) {
            CHTriangulation grid(2 * w * h, 1, 1, 1);
            writeGrid(grid, w, h);
            for (int t = 0; t < 2 * w * h; ++t)
                for (int k = 0; k < 3; ++k) {
                    SSEPoint p = *grid.GetTriangles()[t].pPoint[k];
                    if (p.x == 0 && p.y == 0)
                        p.z = originZ;
                    mesh.GetTriangles()[zerosBefore + t].pPoint[k]->m = p.m;
                }
        };
    };
    const std::vector<Case> cases = {
        {"wall", 600, wall},
        {"outlier", 2 * 20 * 20 + 1, [](CHTriangulation& mesh) {
             writeGrid(mesh, 20, 20);
             const int t = 2 * 20 * 20;
             setCorner(mesh, t, 0, 20, 0), setCorner(mesh, t, 1, 1e30f, 5), setCorner(mesh, t, 2, 20, 1);
         }},
        {"disjoint triangles", 2000, [](CHTriangulation& mesh) {
             for (int t = 0; t < 2000; ++t)
                 setCorner(mesh, t, 0, float(t), 0), setCorner(mesh, t, 1, float(t) + 0.5f, 1), setCorner(mesh, t, 2, float(t), 1);
         }},
        {"zeros after, origin a corner", 2 * 6 * 5 + 7, gridWithZeros(6, 5, 0, 0.0f)},
        {"zeros after, origin apart", 2 * 6 * 5 + 7, gridWithZeros(6, 5, 0, 2.0f)},
        {"zeros before the origin's triangles", 2 * 6 * 5 + 7, gridWithZeros(6, 5, 7, 0.0f)},
        {"zeros before, origin apart", 2 * 6 * 5 + 7, gridWithZeros(6, 5, 7, 2.0f)},
    };
    for (size_t c = 0; c < cases.size(); ++c) {
        CHTriangulation mesh(cases[c].n, 1, 1, 1);
        cases[c].write(mesh);
        SCOPED_TRACE(cases[c].name);
        expectSameAsScanAndReplay(mesh, int(c));
    }
}

// The grid's interior edges link both ways, only triangles with a border edge stay listed
// and those are tagged. A big block of zeroed records behind it: each takes the last record of the block,
// the last one takes the one before it, and none ever fills up.
TEST(Neighbours, GridLinksAndZeroedBlockPointsAtItsLastRecord)
{
    const int w = 40, h = 30, surplus = 200000, n = 2 * w * h + surplus;
    CHTriangulation mesh(n, 1, 1, 1);
    writeGrid(mesh, w, h);
    mesh.CalcNeighbours();
    const t_htriangle* base = mesh.GetTriangles();
    int links = 0;
    for (int t = 0; t < 2 * w * h; ++t)
        for (const t_htriangle* u : base[t].pNeighbour)
            if (u) {
                ++links;
                EXPECT_TRUE(std::count(u->pNeighbour, u->pNeighbour + 3, &base[t]) == 1) << t;
            }
    EXPECT_EQ(links, 2 * ((w - 1) * h + w * (h - 1) + w * h));
    // The border ring is tagged 13: the upper-left triangle of a cell owns its left and top
    // edges, the other its bottom and right; inner tags stay.
    mesh.FindBorderTriangles();
    for (int t = 0; t < 2 * w * h; t += 2) {
        const int x = t / 2 % w, y = t / 2 / w;
        ASSERT_EQ(base[t].iTag, x == 0 || y == h - 1 ? 13 : -1) << x << "," << y;
        ASSERT_EQ(base[t + 1].iTag, y == 0 || x == w - 1 ? 13 : -1) << x << "," << y;
    }
    for (int t = 2 * w * h; t < n; ++t) {
        ASSERT_EQ(base[t].pNeighbour[0], &base[t + 1 < n ? n - 1 : n - 2]) << t;
        ASSERT_EQ(base[t].pNeighbour[1], nullptr);
        ASSERT_EQ(base[t].pNeighbour[2], nullptr);
    }
    const Adjacency first = adjacencyOf(mesh);
    EXPECT_EQ(int(first.listed.size()), 2 * (w + h) - 2 + surplus);
    mesh.CalcNeighboursConstrained(); // a second run starts afresh
    EXPECT_EQ(adjacencyOf(mesh).neighbour, first.neighbour);
    EXPECT_EQ(adjacencyOf(mesh).listed, first.listed);
}

} // namespace
