#include "qzsse/geometry/CHOctree.h"

#include <cmath>
#include <cstring>
#include <new>
#include <numbers>
#include <xmmintrin.h>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/mesh/CHTriangulation.h"

using qzsse::t_hoctreeentrybucket;

namespace qzsse::detail {

// Child slot order of the octants; the fourth lane does not move.
alignas(16) constexpr float kOctantSigns[8][4] = {
    {+1, +1, -1, 0}, {-1, +1, -1, 0}, {-1, -1, -1, 0}, {+1, -1, -1, 0},
    {+1, +1, +1, 0}, {-1, +1, +1, 0}, {-1, -1, +1, 0}, {+1, -1, +1, 0},
};

// Level code stamped into a filed triangle's iTag; the order is fixed by existing callers.
constexpr int kLevelTags[12] = {1, 4, 2, 3, 5, 6, 7, 8, 9, 10, 11, -1};

// Beyond this many levels the cell count no longer fits the 32-bit counts.
constexpr int kMaxAllocatableDepth = 11;

inline bool validList(int list)
{
    return list >= 0 && list < 4;
}

t_hoctreeentrybucket* newBucket(int index)
{
    auto* bucket = static_cast<t_hoctreeentrybucket*>(SafeCalloc(1, sizeof(t_hoctreeentrybucket)));
    bucket->iIndex[0] = index;
    bucket->iCount = 1;
    return bucket;
}

void releaseBuckets(t_hoctreeentrybucket* bucket)
{
    while (bucket) {
        t_hoctreeentrybucket* next = bucket->pNext;
        SafeFree(bucket);
        bucket = next;
    }
}

} // namespace qzsse::detail

using namespace qzsse::detail;

CHOctree::CHOctree(SSEPoint& upper, SSEPoint& lower, float cellSize)
    : m_pStem(nullptr), m_pLevel{}, m_iLevelCount{}, m_fExtent(0), m_iDepth(0), m_fBounds{},
      m_fCellSize(cellSize), m_iNumBricks(0)
{
    SSEPoint diff;
    diff.m = _mm_sub_ps(upper.m, lower.m);
    float extent = diff.x;
    if (diff.y > extent)
        extent = diff.y;
    if (diff.z > extent)
        extent = diff.z;
    if (diff.w > extent)
        extent = diff.w;
    m_fExtent = extent;
    const float bounds[6] = {lower.x, upper.x, lower.y, upper.y, lower.z, upper.z};
    std::memcpy(m_fBounds, bounds, sizeof(bounds));

    // The logarithm of the float ratio is taken in single precision on purpose: near a
    // half level it decides the depth differently from a double-precision logarithm.
    const float ratio = extent / cellSize;
    const double levels = static_cast<double>(std::log(ratio)) / std::numbers::ln2 + 0.5;
    int depth = 0;
    if (levels >= 99.0)
        depth = 99;
    else if (levels >= 1.0)
        depth = static_cast<int>(levels);
    if (depth > kMaxAllocatableDepth)
        throw std::bad_alloc();

    try {
        unsigned long long count = 1;
        for (int k = 0; k < depth; ++k, count *= 8) {
            const unsigned long long bytes = count * sizeof(t_hoctreeelement);
            auto* cells = static_cast<t_hoctreeelement*>(SafeAlignedAlloc(bytes, 16));
            std::memset(static_cast<void*>(cells), 0, bytes);
            for (unsigned long long j = 0; j < count; ++j)
                cells[j].iLevel = k;
            m_pLevel[k] = cells;
            m_iLevelCount[k] = static_cast<int>(count);
            m_iNumBricks += static_cast<int>(count);
        }
    } catch (...) {
        releaseAll();
        throw;
    }
    m_iDepth = depth;
    if (depth == 0)
        return;

    m_pStem = m_pLevel[0];
    for (int k = 0; k < depth; ++k) {
        const float h = extent * std::ldexp(0.5f, -k);
        t_hoctreeelement* cells = m_pLevel[k];
        t_hoctreeelement* children = k + 1 < depth ? m_pLevel[k + 1] : nullptr;
        for (int j = 0; j < m_iLevelCount[k]; ++j) {
            cells[j].fH = h;
            if (children)
                for (int i = 0; i < 8; ++i)
                    cells[j].pChild[i] = &children[8LL * j + i];
        }
    }

    SSEPoint centre;
    centre.m = _mm_mul_ps(_mm_add_ps(upper.m, lower.m), _mm_set1_ps(0.5f));
    PositionReferenceOctree(m_pStem, &centre);
}

CHOctree::CHOctree(CHOctree*, bool)
    : m_pStem(nullptr), m_pLevel{}, m_iLevelCount{}, m_fExtent(0), m_iDepth(0), m_fBounds{}, m_fCellSize(0),
      m_iNumBricks(0)
{
}

CHOctree::~CHOctree()
{
    releaseAll();
}

void CHOctree::releaseAll()
{
    for (int k = 0; k < 100; ++k) {
        t_hoctreeelement* cells = m_pLevel[k];
        if (!cells)
            continue;
        for (int j = 0; j < m_iLevelCount[k]; ++j)
            for (t_hoctreeentrybucket* head : cells[j].pEntryList)
                releaseBuckets(head);
        SafeAlignedFree(cells);
        m_pLevel[k] = nullptr;
        m_iLevelCount[k] = 0;
    }
    m_pStem = nullptr;
    m_iNumBricks = 0;
    m_iDepth = 0;
}

void CHOctree::DuplicateOctree(CHOctree*) {}

void CHOctree::ReduceToConvenientSize(CHOctree*) {}

void CHOctree::PositionReferenceOctree(t_hoctreeelement* cell, SSEPoint* centre)
{
    if (!cell)
        return;
    const __m128 c = centre->m;
    const __m128 h = _mm_set1_ps(cell->fH);
    cell->center.m = c;
    cell->upperCorner.m = _mm_add_ps(c, h);
    cell->lowerCorner.m = _mm_sub_ps(c, h);
    const __m128 quarter = _mm_set1_ps(cell->fH / 2);
    for (int i = 0; i < 8; ++i) {
        if (!cell->pChild[i])
            continue;
        SSEPoint child;
        child.m = _mm_add_ps(c, _mm_mul_ps(quarter, _mm_load_ps(kOctantSigns[i])));
        PositionReferenceOctree(cell->pChild[i], &child);
    }
}

void CHOctree::CalculateOctreeEntries(CHTriangulation* mesh, int list)
{
    if (!mesh)
        return;
    for (int i = 0; i < mesh->GetNumTriangles(); ++i)
        InsertTriangleIntoOctree(mesh->GetTriangle(i), m_pStem, list);
}

bool CHOctree::InsertTriangleIntoOctree(t_htriangle* tri, t_hoctreeelement* cell, int list)
{
    if (!tri || !cell || !validList(list))
        return false;
    const __m128 inside = _mm_and_ps(_mm_cmpge_ps(tri->pMinPoint->m, cell->lowerCorner.m),
                                     _mm_cmple_ps(tri->pMaxPoint->m, cell->upperCorner.m));
    if ((_mm_movemask_ps(inside) & 7) != 7)
        return false;
    for (t_hoctreeelement* child : cell->pChild)
        if (child && InsertTriangleIntoOctree(tri, child, list))
            return true;
    InsertTriangleIntoOctreeElement(tri, cell, list);
    return true;
}

void CHOctree::InsertTriangleIntoOctreeElement(t_htriangle* tri, t_hoctreeelement* cell, int list)
{
    if (!tri || !cell || !validList(list))
        return;
    AppendEntryToOctreeElement(cell, list, tri->iIndex);
    const int level = cell->iLevel;
    tri->iTag = level >= 0 && level < 12 ? kLevelTags[level] : 1;
}

void CHOctree::AppendEntryToOctreeElement(t_hoctreeelement* cell, int list, int index)
{
    if (!cell || !validList(list))
        return;
    t_hoctreeentrybucket* bucket = cell->pEntryList[list];
    if (!bucket) {
        cell->pEntryList[list] = newBucket(index);
        return;
    }
    while (bucket->pNext)
        bucket = bucket->pNext;
    if (bucket->iCount < 9)
        bucket->iIndex[bucket->iCount++] = index;
    else
        bucket->pNext = newBucket(index);
}

int CHOctree::GetEntryFromOctreeElement(t_hoctreeelement* cell, int list, int n)
{
    if (!cell || !validList(list) || n < 0)
        return -1;
    const t_hoctreeentrybucket* first = cell->pEntryList[list];
    if (!first || n / 10 > 0)
        return -1;
    return n < first->iCount ? first->iIndex[n] : -1;
}

void CHOctree::RemoveAllEntriesFromOctreeElement(t_hoctreeelement* cell)
{
    if (!cell)
        return;
    for (t_hoctreeentrybucket* head : cell->pEntryList)
        releaseBuckets(head);
}

void CHOctree::ClearEntry(t_hoctreeelement& cell)
{
    std::memset(static_cast<void*>(&cell), 0, sizeof(cell));
}

void CHOctree::FindMinMaxPointTriangulation(CHTriangulation* mesh, SSEPoint& max, SSEPoint& min,
                                            t_hoctreeelement* cell, int list)
{
    if (!mesh || !cell || !validList(list))
        return;
    for (t_hoctreeelement* child : cell->pChild)
        FindMinMaxPointTriangulation(mesh, max, min, child, list);
    for (int n = 0;; ++n) {
        const int index = GetEntryFromOctreeElement(cell, list, n);
        if (index == -1)
            break;
        // Indices outside the mesh are not the caller's to give; they are skipped.
        const t_htriangle* tri = mesh->GetTriangle(index);
        if (!tri)
            continue;
        max.m = _mm_max_ps(max.m, tri->pMaxPoint->m);
        min.m = _mm_min_ps(max.m, tri->pMinPoint->m);
    }
}
