#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <random>
#include <cmath>
#include <vector>

#include "qzsse/geometry/CHOctree.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace {

using Corners = std::vector<float>; // x0 y0 z0 x1 y1 z1 x2 y2 z2
using Lanes = std::array<float, 4>;

SSEPoint P(float x, float y, float z, float w = 0)
{
    return SSEPoint{.m = _mm_setr_ps(x, y, z, w)};
}

Lanes L(const SSEPoint& p)
{
    return {p.x, p.y, p.z, p.w};
}

// A mesh of the given triangles with current per-triangle bounds.
std::unique_ptr<CHTriangulation> MakeMesh(std::initializer_list<Corners> triangles)
{
    auto mesh = std::make_unique<CHTriangulation>(static_cast<int>(triangles.size()), 1.0f, 1.0f, 1.0f);
    int i = 0;
    for (const Corners& c : triangles) {
        for (int k = 0; k < 3; ++k)
            *mesh->GetTriangle(i)->pPoint[k] = P(c[3 * k], c[3 * k + 1], c[3 * k + 2]);
        ++i;
    }
    mesh->CalcSTV();
    return mesh;
}

// Cube [0, 8]^3 with cells of 1: three levels (1 + 8 + 64 cells).
struct Cube8 {
    SSEPoint lo = P(0, 0, 0), hi = P(8, 8, 8);
    CHOctree tree{hi, lo, 1.0f};
};

const Corners kAcrossRootCentre = {3, 3, 3, 5, 3.5f, 3.5f, 3.5f, 5, 5};            // root only
const Corners kAcrossCentreOfSlot7 = {5.5f, 1.5f, 5.5f, 6.5f, 1.5f, 5.5f, 6, 2.5f, 6.5f}; // level 1, cell 7
const Corners kInsideCell59 = {6.5f, 0.5f, 4.5f, 7.5f, 0.5f, 4.5f, 7, 1.5f, 5.5f};   // level 2, cell 8*7+3

} // namespace

TEST(Octree, DepthRoundsLog2OfExtentOverCellSize)
{
    struct Case { SSEPoint hi; float cell; int depth, bricks; };
    const Case cases[] = {
        {P(4, 4, 4), 1, 2, 9},          // log2 4 = 2
        {P(10, 3, 2), 1, 3, 73},        // 3.32 + 0.5
        {P(1, 12, 1), 1, 4, 585},       // 3.58 + 0.5
        {P(4, 4, 4), 0.5f, 3, 73},      // ratio 8
        {P(1, 1, 1, 16), 1, 4, 585},    // the fourth lane counts in the extent
        // The float log of this ratio rounds up to exactly 2.5 levels; a double log stays below.
        {P(5.65685415f, 1, 1), 1, 3, 73},
        {P(1, 1, 1), 1, 0, 0},          // too small for one level: no cells at all
    };
    for (const Case& c : cases) {
        SSEPoint lo = P(0, 0, 0), hi = c.hi;
        CHOctree tree(hi, lo, c.cell);
        EXPECT_EQ(tree.GetDepth(), c.depth) << hi.x << " " << hi.y << " " << hi.w;
        EXPECT_EQ(tree.GetNumBricks(), c.bricks);
        EXPECT_EQ(tree.GetStem(), c.depth ? tree.GetLevel(0) : nullptr);
    }
    SSEPoint lo = P(-1, -2, -3), hi = P(1, 2, 3), far = P(1e6f, 1, 1);
    const float bounds[6] = {-1, 1, -2, 2, -3, 3};
    EXPECT_EQ(std::memcmp(CHOctree(hi, lo, 0.75f).GetBounds(), bounds, sizeof(bounds)), 0);
    EXPECT_THROW({ CHOctree huge(far, lo, 1e-3f); }, std::bad_alloc); // 30 levels
}

TEST(Octree, CellsArePlacedInOctantOrder)
{
    SSEPoint lo = P(10, 20, 30), hi = P(14, 24, 34);
    CHOctree tree(hi, lo, 1.0f);
    ASSERT_EQ(tree.GetDepth(), 2);
    const t_hoctreeelement* stem = tree.GetStem();
    EXPECT_EQ(L(stem->center), (Lanes{12, 22, 32, 0}));
    EXPECT_EQ(L(stem->upperCorner), (Lanes{14, 24, 34, 2})); // all four lanes +- h
    EXPECT_EQ(L(stem->lowerCorner), (Lanes{10, 20, 30, -2}));
    const Lanes centres[8] = {{13, 23, 31, 0}, {11, 23, 31, 0}, {11, 21, 31, 0}, {13, 21, 31, 0},
                              {13, 23, 33, 0}, {11, 23, 33, 0}, {11, 21, 33, 0}, {13, 21, 33, 0}};
    for (int i = 0; i < 8; ++i) {
        ASSERT_EQ(stem->pChild[i], tree.GetLevel(1) + i);
        EXPECT_EQ(L(stem->pChild[i]->center), centres[i]) << i;
        EXPECT_EQ(stem->pChild[i]->fH, 1.0f);
        EXPECT_EQ(stem->pChild[i]->pChild[7], nullptr);
    }
}

TEST(Octree, FilesTriangleInSmallestContainingCellAndTagsItsLevel)
{
    Cube8 c;
    auto mesh = MakeMesh({kAcrossRootCentre, kAcrossCentreOfSlot7, kInsideCell59, {1, 1, 1, 2, 2, 2, 8.5f, 1, 1}});
    c.tree.CalculateOctreeEntries(mesh.get(), 1);
    t_hoctreeelement* cell59 = c.tree.GetLevel(2) + 59;
    EXPECT_EQ(c.tree.GetStem()->pChild[7]->pChild[3], cell59);
    EXPECT_EQ(L(cell59->center), (Lanes{7, 1, 5, 0}));
    EXPECT_EQ(c.tree.GetEntryFromOctreeElement(c.tree.GetStem(), 1, 0), 0);
    EXPECT_EQ(c.tree.GetEntryFromOctreeElement(c.tree.GetLevel(1) + 7, 1, 0), 1);
    EXPECT_EQ(c.tree.GetEntryFromOctreeElement(cell59, 1, 0), 2);
    EXPECT_EQ(c.tree.GetEntryFromOctreeElement(c.tree.GetStem(), 1, 1), -1); // the outside one is nowhere
    const int tags[4] = {1, 4, 2, -1};
    for (int i = 0; i < 4; ++i)
        EXPECT_EQ(mesh->GetTriangle(i)->iTag, tags[i]) << i;

    // Deeper levels only exist on hand-made cells.
    const int table[14] = {1, 4, 2, 3, 5, 6, 7, 8, 9, 10, 11, -1, 1, 1};
    for (int level = 0; level < 14; ++level) {
        t_hoctreeelement cell{};
        cell.iLevel = level;
        c.tree.InsertTriangleIntoOctreeElement(mesh->GetTriangle(3), &cell, 2);
        EXPECT_EQ(mesh->GetTriangle(3)->iTag, table[level]) << level;
        EXPECT_EQ(c.tree.GetEntryFromOctreeElement(&cell, 2, 0), 3);
        c.tree.RemoveAllEntriesFromOctreeElement(&cell);
        c.tree.ClearEntry(cell);
    }
}

TEST(Octree, ContainmentIsInclusiveGoesToFirstSlotAndIgnoresFourthLane)
{
    Cube8 c;
    auto mesh = MakeMesh({{0, 0, 0, 8, 0, 8, 0, 8, 8},          // the whole root cube
                          {0, 0, 0, 8.001f, 1, 1, 1, 1, 1},     // beyond its face
                          {4, 0, 4, 6, 0, 6, 4, 2, 6},          // exactly cell 8*7+2
                          {4, 1, 1, 4, 1.5f, 1, 4, 1, 1.5f},    // on the face shared by slots 2 and 3
                          kInsideCell59});
    mesh->GetTriangle(4)->pMinPoint->w = -50;
    mesh->GetTriangle(4)->pMaxPoint->w = 50;
    t_hoctreeelement* stem = c.tree.GetStem();
    for (int i = 0; i < 5; ++i)
        EXPECT_EQ(c.tree.InsertTriangleIntoOctree(mesh->GetTriangle(i), stem, 0), i != 1) << i;
    const std::pair<t_hoctreeelement*, int> filed[] = {
        {stem, 0}, {c.tree.GetLevel(2) + 58, 2}, {c.tree.GetLevel(2) + 8 * 2 + 3, 3}, {c.tree.GetLevel(2) + 59, 4}};
    for (const auto& [cell, index] : filed)
        EXPECT_EQ(c.tree.GetEntryFromOctreeElement(cell, 0, 0), index);
    EXPECT_EQ(c.tree.GetEntryFromOctreeElement(stem, 0, 1), -1);
    EXPECT_FALSE(c.tree.InsertTriangleIntoOctree(mesh->GetTriangle(0), stem, 4));
}

TEST(Octree, ListsFillNinePerBlockAndReadBackOnlyTheFirstNine)
{
    Cube8 c;
    t_hoctreeelement* cell = c.tree.GetLevel(1) + 3;
    for (int i = 0; i < 10; ++i)
        c.tree.AppendEntryToOctreeElement(cell, 1, 100 + i);
    const qzsse::t_hoctreeentrybucket* head = cell->pEntryList[1];
    ASSERT_TRUE(head && head->pNext);
    EXPECT_EQ(head->iCount, 9);
    EXPECT_EQ(head->pNext->iIndex[0], 109);
    for (int n = -1; n < 40; ++n)
        EXPECT_EQ(c.tree.GetEntryFromOctreeElement(cell, 1, n), n >= 0 && n < 9 ? 100 + n : -1) << n;
    for (auto [target, list] : {std::pair{cell, 0}, {cell, 4}, {nullptr, 1}})
        EXPECT_EQ(c.tree.GetEntryFromOctreeElement(target, list, 0), -1);
}

TEST(Octree, MinMaxAccumulatesMaximumButKeepsLastVisitedMinimum)
{
    Cube8 c;
    const Corners inCell2 = {4.2f, 4.1f, 0.1f, 5.8f, 4.3f, 0.2f, 5, 5.9f, 1.9f};   // under slot 0
    const Corners acrossSlot0 = {5, 5, 1, 7, 5.5f, 1.5f, 5.5f, 7, 3};             // slot 0 itself
    // Mesh order differs from the visit order: children first in slot order, then the cell.
    auto mesh = MakeMesh({kAcrossCentreOfSlot7, inCell2, kInsideCell59, acrossSlot0, kAcrossRootCentre});
    for (int i = 0; i < 4; ++i)
        c.tree.InsertTriangleIntoOctree(mesh->GetTriangle(i), c.tree.GetStem(), 0);
    c.tree.CalculateOctreeEntries(mesh.get(), 1);

    const SSEPoint low = P(-1e6f, -1e6f, -1e6f, -1e6f);
    SSEPoint max = low, min = P(1e6f, 1e6f, 1e6f, 1e6f);
    c.tree.FindMinMaxPointTriangulation(mesh.get(), max, min, c.tree.GetStem(), 0);
    EXPECT_EQ(L(max), (Lanes{7.5f, 7, 6.5f, 0}));
    EXPECT_EQ(L(min), (Lanes{5.5f, 1.5f, 5.5f, 0})); // slot 7 itself comes last
    c.tree.FindMinMaxPointTriangulation(mesh.get(), max, min, c.tree.GetStem(), 1);
    EXPECT_EQ(L(min), (Lanes{3, 3, 3, 0})); // the root comes last
    max = low;
    c.tree.FindMinMaxPointTriangulation(mesh.get(), max, min, c.tree.GetStem()->pChild[0], 0);
    EXPECT_EQ(L(max), (Lanes{7, 7, 3, 0}));
    EXPECT_EQ(L(min), (Lanes{5, 5, 1, 0}));

    // Ten triangles in one cell: the tenth is never read.
    CHTriangulation ten(10, 1, 1, 1);
    for (int k = 0; k < 10; ++k) {
        const float d = 0.1f * static_cast<float>(k);
        t_htriangle* t = ten.GetTriangle(k);
        *t->pPoint[0] = P(6.1f + d, 0.1f + d, 4.1f);
        *t->pPoint[1] = P(6.3f + d, 0.1f + d, 4.1f);
        *t->pPoint[2] = P(6.1f + d, 0.3f + d, 4.3f);
    }
    ten.CalcSTV();
    c.tree.CalculateOctreeEntries(&ten, 2);
    max = low;
    c.tree.FindMinMaxPointTriangulation(&ten, max, min, c.tree.GetStem(), 2);
    const float d8 = 0.1f * 8;
    EXPECT_EQ(L(max), (Lanes{6.3f + d8, 0.3f + d8, 4.3f, 0}));
    EXPECT_EQ(L(min), (Lanes{6.1f + d8, 0.1f + d8, 4.1f, 0}));
}

// Under the sanitizers this also proves that every block is released exactly once.
TEST(Octree, DestructionReleasesEveryBlockOfEveryCell)
{
    int blocks = 0;
    {
        Cube8 c;
        for (int k = 0; k < c.tree.GetDepth(); ++k)
            for (int j = 0; j < c.tree.GetLevelCount(k); ++j)
                for (int list = 0; list < 4; ++list)
                    for (int i = 0; i < 25; ++i)
                        c.tree.AppendEntryToOctreeElement(c.tree.GetLevel(k) + j, list, i);
        for (int k = 0; k < c.tree.GetDepth(); ++k)
            for (int j = 0; j < c.tree.GetLevelCount(k); ++j)
                for (const qzsse::t_hoctreeentrybucket* b : c.tree.GetLevel(k)[j].pEntryList)
                    for (; b; b = b->pNext)
                        ++blocks;
        // Released lists keep their heads; they must be nulled before the tree goes.
        t_hoctreeelement* stem = c.tree.GetStem();
        c.tree.RemoveAllEntriesFromOctreeElement(stem);
        EXPECT_NE(stem->pEntryList[2], nullptr);
        for (auto& head : stem->pEntryList)
            head = nullptr;
    }
    EXPECT_EQ(blocks, 73 * 4 * 3);
}

namespace {

// Every list of every cell, block by block, with each triangle's tag.
std::vector<int> Snapshot(const CHOctree& tree, const CHTriangulation& mesh)
{
    std::vector<int> out;
    for (int k = 0; k < tree.GetDepth(); ++k)
        for (int j = 0; j < tree.GetLevelCount(k); ++j)
            for (const qzsse::t_hoctreeentrybucket* b : tree.GetLevel(k)[j].pEntryList) {
                out.push_back(-7);
                for (; b; b = b->pNext)
                    out.insert(out.end(), b->iIndex, b->iIndex + b->iCount);
            }
    for (int i = 0; i < mesh.GetNumTriangles(); ++i)
        out.push_back(mesh.GetTriangle(i)->iTag);
    return out;
}

} // namespace

TEST(Octree, FastFilingMatchesSlotBySlotDescent)
{
    std::mt19937 rng(11);
    // Corners on the cells' grid (shared faces), random sizes, outside the cube and NaN.
    auto coord = [&](int kind) {
        std::uniform_real_distribution<float> u(-0.5f, 8.5f);
        switch (kind) {
        case 0: return static_cast<float>(rng() % 33) * 0.25f;
        case 1: return u(rng);
        default: return rng() % 50 ? u(rng) * 0.1f + 4 : std::nanf("");
        }
    };
    struct Case { int kind; bool prefill; bool editCell; };
    const Case cases[] = {{0, false, false}, {1, false, false}, {2, true, false}, {0, true, true}, {1, false, true}};
    for (const Case& c : cases) {
        const int n = 3000;
        CHTriangulation mesh(n, 1, 1, 1);
        for (int i = 0; i < n; ++i) {
            const float x = coord(c.kind), y = coord(c.kind), z = coord(c.kind);
            const float d = static_cast<float>(rng() % 5) * 0.25f;
            *mesh.GetTriangle(i)->pPoint[0] = P(x, y, z);
            *mesh.GetTriangle(i)->pPoint[1] = P(x + d, y, z + d);
            *mesh.GetTriangle(i)->pPoint[2] = P(x, y + d, z);
        }
        mesh.CalcSTV();
        std::vector<int> results[2];
        for (int direct = 0; direct < 2; ++direct) {
            Cube8 cube;
            if (c.prefill)
                for (int i = 0; i < 23; ++i)
                    cube.tree.AppendEntryToOctreeElement(cube.tree.GetLevel(2) + 9, 3, -i);
            // A hand-moved cell, a missing link and a cell outside the tree's arrays.
            t_hoctreeelement outside = cube.tree.GetLevel(2)[50];
            if (c.editCell) {
                cube.tree.GetLevel(2)[12].upperCorner.x += 0.5f;
                cube.tree.GetLevel(1)[5].pChild[4] = nullptr;
                cube.tree.GetLevel(1)[6].pChild[2] = &outside;
            }
            for (int i = 0; i < n; ++i)
                mesh.GetTriangle(i)->iTag = -1;
            qzsse::detail::g_bDirectOctreeFiling = direct == 1;
            cube.tree.CalculateOctreeEntries(&mesh, 3);
            cube.tree.CalculateOctreeEntries(&mesh, 3); // appends after a first filling
            qzsse::detail::g_bDirectOctreeFiling = false;
            results[direct] = Snapshot(cube.tree, mesh);
            for (const qzsse::t_hoctreeentrybucket* b = outside.pEntryList[3]; b; b = b->pNext)
                results[direct].insert(results[direct].end(), b->iIndex, b->iIndex + b->iCount);
            cube.tree.RemoveAllEntriesFromOctreeElement(&outside);
        }
        EXPECT_EQ(results[0], results[1]) << c.kind << c.prefill << c.editCell;
    }
}
