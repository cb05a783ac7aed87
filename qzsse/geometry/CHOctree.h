#pragma once

#include "qzsse/core/SSEPoint.h"

class CHTriangulation;
struct t_htriangle;

namespace qzsse {

namespace detail {
// Test switch (per thread): when set, CalculateOctreeEntries files each triangle by the
// slot-by-slot descent of InsertTriangleIntoOctree, the form the faster filing is checked against.
inline thread_local bool g_bDirectOctreeFiling = false;
} // namespace detail

// One block of an octree cell's entry list. It has room for ten triangle indices but is
// filled with nine only; readers still address it as ten per block, so of a whole list
// only the first nine entries can be read back. Both habits are kept for existing callers.
struct t_hoctreeentrybucket {
    int iIndex[10];
    int iCount;
    t_hoctreeentrybucket* pNext;
};

} // namespace qzsse

// One cell of a CHOctree. The corners are centre +- h in all four lanes.
struct alignas(16) t_hoctreeelement {
    SSEPoint center;
    SSEPoint upperCorner;
    SSEPoint lowerCorner;
    float fH;                                          // half edge length
    t_hoctreeelement* pChild[8];                       // null in the deepest level
    qzsse::t_hoctreeentrybucket* pEntryList[4];        // heads of the four lists; null when empty
    int iLevel;                                        // 0 for the root
};

// A complete octree over a cube, allocated in full at construction (8^k cells in level k),
// that files each mesh triangle into the smallest cell wholly containing its bounding box.
// Every cell keeps four independent entry lists (0 to 3), so one tree can index four
// triangle sets. Child slot i lies towards the octant with the signs
//   0 (+,+,-)  1 (-,+,-)  2 (-,-,-)  3 (+,-,-)  4 (+,+,+)  5 (-,+,+)  6 (-,-,+)  7 (+,-,+).
// Null cells, list indices outside 0..3 and unreadable entries give false, -1 or nothing.
//
// Copies are shallow: assignment and copy construction share the cells and their lists,
// and each destructor releases what its object holds. Only one of the sharing trees may be
// destroyed holding them; empty the others first by assigning an empty tree
// (`copy = CHOctree(nullptr, false);`). Assignment does not release the target's old cells.
class CHOctree {
public:
    // Builds the whole tree over the cube of edge max(upper - lower) (all four lanes) centred
    // on (upper + lower) / 2, with round(log2(edge / cellSize)) levels, at most 99. A ratio
    // below about 1.42 gives no level and a null stem. A tree whose cell count would not fit
    // a 32-bit count (more than 11 levels) throws std::bad_alloc before allocating anything.
    CHOctree(SSEPoint& upper, SSEPoint& lower, float cellSize);
    // Does nothing with its arguments; the result is an empty tree (null stem, no levels),
    // which is safe to destroy and serves to empty shallow copies.
    CHOctree(CHOctree* source, bool flag);
    CHOctree(const CHOctree& other) = default;
    CHOctree& operator=(const CHOctree& other) = default;
    // Releases every entry list of every cell and the cell arrays themselves (so nothing of a
    // tree outlives it); sets the depth to 0.
    ~CHOctree();

    // Both leave this tree and the argument unchanged.
    void DuplicateOctree(CHOctree* other);
    void ReduceToConvenientSize(CHOctree* other);

    t_hoctreeelement* GetStem() const { return m_pStem; }
    int GetNumBricks() const { return m_iNumBricks; }
    int GetDepth() const { return m_iDepth; }
    float GetExtent() const { return m_fExtent; }
    float GetCellSize() const { return m_fCellSize; }
    // minX, maxX, minY, maxY, minZ, maxZ of the box given at construction.
    const float* GetBounds() const { return m_fBounds; }
    // The cells of level k (null beyond the depth) and their number.
    t_hoctreeelement* GetLevel(int k) const { return k >= 0 && k < 100 ? m_pLevel[k] : nullptr; }
    int GetLevelCount(int k) const { return k >= 0 && k < 100 ? m_iLevelCount[k] : 0; }

    // Places cell at centre and its sub-tree around it in the octant order.
    void PositionReferenceOctree(t_hoctreeelement* cell, SSEPoint* centre);

    // Files every triangle of mesh (its per-triangle bounds must be current) into list;
    // triangles reaching outside the root cube are silently left out.
    void CalculateOctreeEntries(CHTriangulation* mesh, int list);
    // True when the triangle's bounds lie inside cell (inclusive, fourth lane ignored); it
    // is then filed in the first child in slot order that takes it, else in cell itself.
    bool InsertTriangleIntoOctree(t_htriangle* tri, t_hoctreeelement* cell, int list);
    // Appends the triangle's index and stamps its iTag with a code of the cell's level:
    // levels 0..11 give 1, 4, 2, 3, 5, 6, 7, 8, 9, 10, 11, -1; deeper levels give 1.
    void InsertTriangleIntoOctreeElement(t_htriangle* tri, t_hoctreeelement* cell, int list);
    void AppendEntryToOctreeElement(t_hoctreeelement* cell, int list, int index);
    // Entry n of a list, or -1. Only n < 10 is looked up, and only in the first block, so
    // entries beyond the ninth never come back; a negative n also gives -1.
    int GetEntryFromOctreeElement(t_hoctreeelement* cell, int list, int n);
    // Releases the four lists of cell but leaves their heads pointing at the freed blocks:
    // before the cell is used again, or the tree destroyed, the caller must null them
    // (ClearEntry, or pEntryList[i] = nullptr), or they are read and released twice.
    void RemoveAllEntriesFromOctreeElement(t_hoctreeelement* cell);
    // Zeroes the whole record, links and lists included (the lists are not released).
    void ClearEntry(t_hoctreeelement& cell);
    // Visits the sub-tree of cell children first (slot order), then the cell's readable
    // entries of list in order. max accumulates the triangles' maximum corners; min is set to
    // min(new max, triangle minimum) each time, so it ends as the last visited triangle's
    // minimum corner, not as an accumulated minimum. Existing callers rely on that.
    void FindMinMaxPointTriangulation(CHTriangulation* mesh, SSEPoint& max, SSEPoint& min,
                                      t_hoctreeelement* cell, int list);

protected:
    t_hoctreeelement* m_pStem;
    t_hoctreeelement* m_pLevel[100];
    int m_iLevelCount[100];
    float m_fExtent;
    int m_iDepth;
    float m_fBounds[6];
    float m_fCellSize;
    int m_iNumBricks;

private:
    void releaseAll();
};
