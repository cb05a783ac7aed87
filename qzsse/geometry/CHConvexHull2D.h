#pragma once

class CSSE2dPolygon;
class CSSE3dPolygon;

namespace qzsse::detail {
// Test switch (per thread): when set, the constructor sorts with QuickSort and Compare record
// by record and the scan allocates a cell per push, the forms the faster ones are checked
// against.
inline thread_local bool g_bDirectHullSort = false;
} // namespace qzsse::detail

// One input point of the 2-D hull; iIndex is its position in the source polygon.
struct tPointStruc {
    int iIndex;
    float x;
    float y;
    float z;
    bool bDeleted;
};

// A cell of the hull stack, linked from the top down.
struct tStackCell {
    tPointStruc* p;
    tStackCell* next;
};

// Convex hull of the x/y positions of a polygon's points by the Graham scan, computed in the
// constructor. Orientation uses the doubled-area tolerance 0.0005: points on a hull edge (or
// within that tolerance of it) are dropped, and of a collinear run from the pivot only the
// farthest point survives.
//
// The sort exchanges records through one static buffer shared by all instances, so two hulls
// must not be built on two threads at once.
//
// Choices where the original leaves them open: an input of 0 or 1 points gives a hull of
// those points (0 or 1), 2 points give both; the object owns its arrays and is not copyable.
class CHConvexHull2D {
public:
    explicit CHConvexHull2D(CSSE3dPolygon* polygon);
    virtual ~CHConvexHull2D();
    CHConvexHull2D(const CHConvexHull2D&) = delete;
    CHConvexHull2D& operator=(const CHConvexHull2D&) = delete;

    // Writes the hull from the top of the stack down: clockwise, ending with the pivot (the
    // lowest point, the leftmost of equals). An underflowed scan writes an empty polygon.
    void ObtainConvexHull2D(CSSE2dPolygon* polygon);
    void ObtainConvexHull3D(CSSE3dPolygon* polygon);

protected:
    tStackCell* Push(tPointStruc* p, tStackCell* top);
    // Frees the top cell; returns the one below it.
    tStackCell* Pop(tStackCell* top);
    void Swap(int i, int j);
    void Copy(int from, int to);
    // Moves the point with the smallest y (smallest x among equals) to position 0.
    void FindLowest();
    // Angular order around point 0; collinear pairs mark their nearer point deleted.
    int Compare(const void* a, const void* b);
    // Drops the records marked deleted, keeping the order of the rest.
    void Squash();
    // Sorts count records of size bytes with Compare; records over 64 bytes are left unsorted.
    void QuickSort(void* base, int count, int size);
    // Returns the stack, or nullptr after printing "Error\n" when it underflows.
    tStackCell* Graham();

    int m_nNumPoints = 0;
    int m_nNumDeleted = 0;
    tPointStruc* m_pPoints = nullptr;
    tStackCell* m_pTop = nullptr;

private:
    // The same sort as QuickSort with Compare over points 1 ... n-1, with the same comparisons,
    // marks and final order, run on a compact copy of the coordinates.
    void sortByAngle();
    void quickSortRange(unsigned char* base, int lo, int hi, int size);
    void exchange(unsigned char* a, unsigned char* b, int size);
    tStackCell* grahamByCells();
    int resolveCollinear(int within, const int* records, int pivot, unsigned char* collinear);
    static int countCells(const tStackCell* top);
};
