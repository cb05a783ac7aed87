#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <map>
#include <random>
#include <string>
#include <vector>
#include <xmmintrin.h>

#include "qzsse/mesh/CHTriangulation.h"

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

void setCorner(CHTriangulation& mesh, int t, int k, float x, float y, float z = 0.0f)
{
    mesh.GetTriangles()[t].pPoint[k]->m = _mm_setr_ps(x, y, z, 0.0f);
}

// W x H unit cells, each split along (x0,y0)-(x1,y1) into records 2 * (y * W + x) and the next.
void writeGrid(CHTriangulation& mesh, int w, int h)
{
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int t = 2 * (y * w + x);
            const float x0 = float(x), x1 = float(x + 1), y0 = float(y), y1 = float(y + 1);
            setCorner(mesh, t, 0, x0, y0), setCorner(mesh, t, 1, x1, y1), setCorner(mesh, t, 2, x0, y1);
            setCorner(mesh, t + 1, 0, x0, y0), setCorner(mesh, t + 1, 1, x1, y0), setCorner(mesh, t + 1, 2, x1, y1);
        }
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

TEST(Neighbours, GridInteriorEdgesLinkBothWaysAndBorderEdgesStayNull)
{
    const int w = 37, h = 23;
    CHTriangulation mesh(2 * w * h, 1, 1, 1);
    writeGrid(mesh, w, h);
    mesh.CalcNeighbours();
    // Independent oracle: the triangles on each undirected edge.
    std::map<std::array<float, 4>, std::vector<std::pair<int, int>>> edges;
    for (int t = 0; t < 2 * w * h; ++t)
        for (int k = 0; k < 3; ++k) {
            const SSEPoint a = *mesh.GetTriangles()[t].pPoint[k], b = *mesh.GetTriangles()[t].pPoint[(k + 1) % 3];
            std::array<float, 4> key{a.x, a.y, b.x, b.y};
            if (std::make_pair(b.x, b.y) < std::make_pair(a.x, a.y))
                key = {b.x, b.y, a.x, a.y};
            edges[key].push_back({t, k});
        }
    int interior = 0;
    const t_htriangle* base = mesh.GetTriangles();
    for (const auto& [key, sides] : edges) {
        ASSERT_LE(sides.size(), 2u);
        if (sides.size() == 1) {
            EXPECT_EQ(base[sides[0].first].pNeighbour[sides[0].second], nullptr);
            continue;
        }
        ++interior;
        EXPECT_EQ(base[sides[0].first].pNeighbour[sides[0].second], &base[sides[1].first]);
        EXPECT_EQ(base[sides[1].first].pNeighbour[sides[1].second], &base[sides[0].first]);
    }
    EXPECT_EQ(interior, (w - 1) * h + w * (h - 1) + w * h);
    // Only triangles with a border edge stay in the list; a second run starts afresh.
    const Adjacency first = adjacencyOf(mesh);
    EXPECT_EQ(int(first.listed.size()), 2 * (w + h) - 2);
    mesh.CalcNeighboursConstrained();
    EXPECT_EQ(adjacencyOf(mesh).neighbour, first.neighbour);
    EXPECT_EQ(adjacencyOf(mesh).listed, first.listed);
}

TEST(Neighbours, SignedZeroesMatchButNaNCornersNeverDo)
{
    const float nan = std::numeric_limits<float>::quiet_NaN();
    CHTriangulation mesh(6, 1, 1, 1);
    // 0 and 1 share the edge (0,0)-(1,1) once written with -0.0.
    setCorner(mesh, 0, 0, 0.0f, 0.0f), setCorner(mesh, 0, 1, 1, 1), setCorner(mesh, 0, 2, 0, 1);
    setCorner(mesh, 1, 0, -0.0f, -0.0f, -0.0f), setCorner(mesh, 1, 1, 1, 0), setCorner(mesh, 1, 2, 1, 1);
    // 2 and 3 are the same triangle with a NaN corner, 4 and 5 share only a NaN-free corner.
    for (int t = 2; t < 4; ++t)
        setCorner(mesh, t, 0, 5, 5), setCorner(mesh, t, 1, nan, 6), setCorner(mesh, t, 2, 6, 6);
    setCorner(mesh, 4, 0, 9, 9), setCorner(mesh, 4, 1, 10, 9), setCorner(mesh, 4, 2, 10, 10);
    setCorner(mesh, 5, 0, 9, 9), setCorner(mesh, 5, 1, 8, 9), setCorner(mesh, 5, 2, 8, 8);
    mesh.CalcNeighbours();
    const std::vector<int> expected = {1, -1, -1, /**/ -1, -1, 0, /**/ -1, -1, 3, /**/ -1, -1, 2, /**/ -1, -1, -1,
                                       /**/ -1, -1, -1};
    EXPECT_EQ(adjacencyOf(mesh).neighbour, expected);
}

// A big block of zeroed records: each takes the last record of the block, the last one takes
// the one before it, and none ever fills up.
TEST(Neighbours, LargeZeroedBlockEachPointsAtItsLastRecord)
{
    const int w = 40, h = 30, surplus = 200000, n = 2 * w * h + surplus;
    CHTriangulation mesh(n, 1, 1, 1);
    writeGrid(mesh, w, h);
    mesh.CalcNeighbours();
    const t_htriangle* base = mesh.GetTriangles();
    for (int t = 2 * w * h; t < n; ++t) {
        ASSERT_EQ(base[t].pNeighbour[0], &base[t + 1 < n ? n - 1 : n - 2]) << t;
        ASSERT_EQ(base[t].pNeighbour[1], nullptr);
        ASSERT_EQ(base[t].pNeighbour[2], nullptr);
    }
    EXPECT_EQ(int(adjacencyOf(mesh).listed.size()), 2 * (w + h) - 2 + surplus);
}

TEST(BorderTriangles, GridRingIsTaggedThirteenAndInnerTagsStay)
{
    const int w = 9, h = 7;
    CHTriangulation mesh(2 * w * h, 1, 1, 1);
    writeGrid(mesh, w, h);
    mesh.CalcNeighbours();
    mesh.FindBorderTriangles();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int t = 2 * (y * w + x);
            // The upper-left triangle owns the cell's left and top edges, the other its bottom and right.
            EXPECT_EQ(mesh.GetTriangles()[t].iTag, x == 0 || y == h - 1 ? 13 : -1) << x << "," << y;
            EXPECT_EQ(mesh.GetTriangles()[t + 1].iTag, y == 0 || x == w - 1 ? 13 : -1) << x << "," << y;
        }
}

} // namespace
