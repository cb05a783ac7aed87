#include "qzsse/geometry/CHOctree.h"

#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <new>
#include <numbers>
#include <vector>
#include <emmintrin.h>

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

// Appends index to a list's last bucket, or to a new bucket after it when it is full;
// returns the bucket that holds index.
t_hoctreeentrybucket* appendToBucket(t_hoctreeentrybucket* last, int index)
{
    if (last->iCount < 9) {
        last->iIndex[last->iCount++] = index;
        return last;
    }
    return last->pNext = newBucket(index);
}

// Appends index to the list at head, walking to its last bucket.
t_hoctreeentrybucket* appendToList(t_hoctreeentrybucket*& head, int index)
{
    if (!head)
        return head = newBucket(index);
    t_hoctreeentrybucket* last = head;
    while (last->pNext)
        last = last->pNext;
    return appendToBucket(last, index);
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

namespace qzsse::detail {

// Slots whose octant lies on the + or - side of each axis (bit i = slot i).
constexpr unsigned kSlotsPlus[3] = {0x99, 0x33, 0xF0};
constexpr unsigned kSlotsMinus[3] = {0x66, 0xCC, 0x0F};

// Slots fitting on all three axes, by which of slot 0's (bits 0-2) and slot 6's (bits 3-5)
// extents hold the box per axis; slot 0 is + on x and y and - on z, slot 6 the opposite.
constexpr auto kFittingSlots = [] {
    std::array<unsigned char, 64> table{};
    for (unsigned m = 0; m < 64; ++m) {
        unsigned fits = 0xFF;
        for (unsigned a = 0; a < 3; ++a) {
            const bool in0 = (m >> a) & 1, in6 = (m >> (a + 3)) & 1;
            const bool onPlus = a < 2 ? in0 : in6, onMinus = a < 2 ? in6 : in0;
            fits &= (onPlus ? kSlotsPlus[a] : 0u) | (onMinus ? kSlotsMinus[a] : 0u);
        }
        table[m] = static_cast<unsigned char>(fits);
    }
    return table;
}();

inline bool sameBits(__m128 a, __m128 b)
{
    return (_mm_movemask_epi8(_mm_cmpeq_epi32(_mm_castps_si128(a), _mm_castps_si128(b))) & 0x0FFF) == 0x0FFF;
}

// Per-call state of one cell of the tree: the tail of the list being filled (so appends do
// not walk it) and whether its children are laid out as the constructor places them.
struct FilingCell {
    t_hoctreeentrybucket* tail = nullptr;
    signed char layout = 0; // 0 not looked at, 1 leaf, 2 regular children, 3 anything else
};

// Looks the constructor's layout up per visited cell. A regular cell has eight children whose
// x, y and z extents are, bit for bit, one of two per axis (those of slots 0 and 6 cover both
// signs on every axis); then "the first slot whose cell contains the box" is the lowest set
// bit of the slots fitting on all three axes, the same answer the slot-by-slot test gives.
// Cells of any other shape (hand-edited corners or links) take the slot-by-slot test.
class OctreeFiler {
public:
    OctreeFiler(t_hoctreeelement* const* levels, const int* counts, int depth, int list)
        : m_list(list)
    {
        int total = 0;
        for (int k = 0; k < depth; ++k) {
            m_levels[k] = levels[k];
            m_counts[k] = counts[k];
            m_first[k] = total;
            total += counts[k];
        }
        m_depth = depth;
        m_cells.resize(static_cast<size_t>(total));
    }

    void file(t_htriangle* tri, t_hoctreeelement* cell)
    {
        const __m128 lo = tri->pMinPoint->m;
        const __m128 hi = tri->pMaxPoint->m;
        for (size_t d = 0;; ++d) {
            // Consecutive triangles mostly take the same path: its cells are kept here so the
            // descent need not touch the tree again.
            PathStep scratch;
            PathStep& step = d < m_path.size() ? m_path[d] : scratch;
            if (step.cell != cell)
                load(step, cell);
            t_hoctreeelement* next = nullptr;
            if (step.layout == 2) {
                const int fit0 = _mm_movemask_ps(_mm_and_ps(_mm_cmpge_ps(lo, step.lower0), _mm_cmple_ps(hi, step.upper0)));
                const int fit6 = _mm_movemask_ps(_mm_and_ps(_mm_cmpge_ps(lo, step.lower6), _mm_cmple_ps(hi, step.upper6)));
                const unsigned fits = kFittingSlots[(fit0 & 7) | (fit6 & 7) << 3];
                if (fits)
                    next = step.children[__builtin_ctz(fits)];
            } else if (step.layout == 3) {
                for (t_hoctreeelement* child : cell->pChild) {
                    if (child && (_mm_movemask_ps(_mm_and_ps(_mm_cmpge_ps(lo, child->lowerCorner.m),
                                                             _mm_cmple_ps(hi, child->upperCorner.m))) & 7) == 7) {
                        next = child;
                        break;
                    }
                }
            }
            if (!next) {
                append(cell, step.state, tri->iIndex);
                tri->iTag = step.tag;
                return;
            }
            cell = next;
        }
    }

private:
    struct PathStep {
        __m128 lower0, upper0, lower6, upper6;
        t_hoctreeelement* cell = nullptr;
        FilingCell* state = nullptr;
        t_hoctreeelement* children[8];
        int layout = 3;
        int tag = 1;
    };

    void load(PathStep& step, t_hoctreeelement* cell)
    {
        step.cell = cell;
        step.state = lookup(cell);
        step.layout = step.state ? layoutOf(cell, *step.state) : 3;
        const int level = cell->iLevel;
        step.tag = level >= 0 && level < 12 ? kLevelTags[level] : 1;
        if (step.layout == 2) {
            step.lower0 = cell->pChild[0]->lowerCorner.m;
            step.upper0 = cell->pChild[0]->upperCorner.m;
            step.lower6 = cell->pChild[6]->lowerCorner.m;
            step.upper6 = cell->pChild[6]->upperCorner.m;
            std::memcpy(step.children, cell->pChild, sizeof(step.children));
        }
    }

private:
    FilingCell* lookup(const t_hoctreeelement* cell)
    {
        const int k = cell->iLevel;
        // std::less orders pointers into different arrays too (a hand-linked cell may be anywhere).
        const std::less<const t_hoctreeelement*> before;
        if (k < 0 || k >= m_depth || before(cell, m_levels[k]) || !before(cell, m_levels[k] + m_counts[k]))
            return nullptr;
        return &m_cells[static_cast<size_t>(m_first[k] + (cell - m_levels[k]))];
    }

    static int layoutOf(const t_hoctreeelement* cell, FilingCell& state)
    {
        if (state.layout)
            return state.layout;
        int nulls = 0;
        for (const t_hoctreeelement* child : cell->pChild)
            nulls += child == nullptr;
        if (nulls == 8)
            return state.layout = 1;
        if (nulls != 0)
            return state.layout = 3;
        // Per axis a, the extents of slots on the + side must equal slot 0's (x, y) or slot 6's
        // (z) and those on the - side the other one's.
        alignas(16) static constexpr float kSignsOfSlot0[4] = {1, 1, -1, 0};
        for (int i = 0; i < 8; ++i) {
            const t_hoctreeelement* child = cell->pChild[i];
            const __m128 matchesSlot0 = _mm_cmpeq_ps(_mm_load_ps(kOctantSigns[i]), _mm_load_ps(kSignsOfSlot0));
            const __m128 lower = _mm_or_ps(_mm_and_ps(matchesSlot0, cell->pChild[0]->lowerCorner.m),
                                           _mm_andnot_ps(matchesSlot0, cell->pChild[6]->lowerCorner.m));
            const __m128 upper = _mm_or_ps(_mm_and_ps(matchesSlot0, cell->pChild[0]->upperCorner.m),
                                           _mm_andnot_ps(matchesSlot0, cell->pChild[6]->upperCorner.m));
            const __m128 keepW = _mm_castsi128_ps(_mm_setr_epi32(-1, -1, -1, 0));
            if (!sameBits(_mm_and_ps(lower, keepW), _mm_and_ps(child->lowerCorner.m, keepW)) ||
                !sameBits(_mm_and_ps(upper, keepW), _mm_and_ps(child->upperCorner.m, keepW)))
                return state.layout = 3;
        }
        return state.layout = 2;
    }

    void append(t_hoctreeelement* cell, FilingCell* state, int index)
    {
        if (!state)
            appendToList(cell->pEntryList[m_list], index);
        else
            state->tail = state->tail ? appendToBucket(state->tail, index) : appendToList(cell->pEntryList[m_list], index);
    }

    t_hoctreeelement* m_levels[100] = {};
    int m_counts[100] = {};
    int m_first[100] = {};
    int m_depth = 0;
    int m_list;
    std::vector<FilingCell> m_cells;
    std::vector<PathStep> m_path = std::vector<PathStep>(128);
};

} // namespace qzsse::detail

void CHOctree::CalculateOctreeEntries(CHTriangulation* mesh, int list)
{
    if (!mesh || !m_pStem || !validList(list))
        return;
    if (g_bDirectOctreeFiling) {
        for (int i = 0; i < mesh->GetNumTriangles(); ++i)
            InsertTriangleIntoOctree(mesh->GetTriangle(i), m_pStem, list);
        return;
    }
    OctreeFiler filer(m_pLevel, m_iLevelCount, m_iDepth, list);
    const __m128 rootLower = m_pStem->lowerCorner.m;
    const __m128 rootUpper = m_pStem->upperCorner.m;
    for (int i = 0; i < mesh->GetNumTriangles(); ++i) {
        t_htriangle* tri = mesh->GetTriangle(i);
        if (!tri)
            continue;
        const __m128 inside = _mm_and_ps(_mm_cmpge_ps(tri->pMinPoint->m, rootLower),
                                         _mm_cmple_ps(tri->pMaxPoint->m, rootUpper));
        if ((_mm_movemask_ps(inside) & 7) == 7)
            filer.file(tri, m_pStem);
    }
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
    appendToList(cell->pEntryList[list], index);
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
