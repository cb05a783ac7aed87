#include "qzsse/geometry/CHConvexHull2D.h"

#include <cmath>
#include <cstdio>
#include <cstring>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace qzsse::detail {

constexpr float c_fHullOrientationTolerance = 0.0005f;
constexpr int c_iMaxSortElementSize = 64;

// The one exchange buffer of every hull's sort (hence the single-thread restriction).
unsigned char s_hullSortExchangeBuffer[c_iMaxSortElementSize];

}  // namespace qzsse::detail

CHConvexHull2D::CHConvexHull2D(CSSE3dPolygon* polygon)
{
    const int n = polygon != nullptr ? polygon->GetNumPoints() : 0;
    m_pPoints = static_cast<tPointStruc*>(SafeCalloc(n > 0 ? static_cast<unsigned long long>(n) : 1,
                                                     sizeof(tPointStruc)));
    m_nNumPoints = n;
    for (int i = 0; i < n; ++i) {
        m_pPoints[i].iIndex = i;
        polygon->GetPoint(i, m_pPoints[i].x, m_pPoints[i].y, m_pPoints[i].z);
    }
    if (n < 1)
        return;
    FindLowest();
    m_nNumDeleted = 0;
    QuickSort(m_pPoints + 1, n - 1, static_cast<int>(sizeof(tPointStruc)));
    if (m_nNumDeleted > 0)
        Squash();
    m_pTop = Graham();
}

CHConvexHull2D::~CHConvexHull2D()
{
    SafeFree(m_pPoints);
    m_pPoints = nullptr;
    while (m_pTop != nullptr)
        m_pTop = Pop(m_pTop);
}

int CHConvexHull2D::countCells(const tStackCell* top)
{
    int count = 0;
    for (const tStackCell* cell = top; cell != nullptr; cell = cell->next)
        ++count;
    return count;
}

void CHConvexHull2D::ObtainConvexHull2D(CSSE2dPolygon* polygon)
{
    polygon->Create(countCells(m_pTop));
    int i = 0;
    for (const tStackCell* cell = m_pTop; cell != nullptr; cell = cell->next, ++i)
        polygon->SetPoint(i, cell->p->x, cell->p->y);
}

void CHConvexHull2D::ObtainConvexHull3D(CSSE3dPolygon* polygon)
{
    polygon->Create(countCells(m_pTop));
    int i = 0;
    for (const tStackCell* cell = m_pTop; cell != nullptr; cell = cell->next, ++i)
        polygon->SetPoint(i, cell->p->x, cell->p->y, cell->p->z);
}

tStackCell* CHConvexHull2D::Push(tPointStruc* p, tStackCell* top)
{
    auto* cell = static_cast<tStackCell*>(SafeMalloc(sizeof(tStackCell)));
    cell->p = p;
    cell->next = top;
    return cell;
}

tStackCell* CHConvexHull2D::Pop(tStackCell* top)
{
    tStackCell* below = top->next;
    SafeFree(top);
    return below;
}

void CHConvexHull2D::Swap(int i, int j)
{
    const tPointStruc temp = m_pPoints[i];
    m_pPoints[i] = m_pPoints[j];
    m_pPoints[j] = temp;
}

void CHConvexHull2D::Copy(int from, int to)
{
    m_pPoints[to] = m_pPoints[from];
}

void CHConvexHull2D::FindLowest()
{
    int lowest = 0;
    for (int i = 1; i < m_nNumPoints; ++i) {
        const tPointStruc& p = m_pPoints[i];
        const tPointStruc& best = m_pPoints[lowest];
        if (p.y < best.y || (p.y == best.y && p.x < best.x))
            lowest = i;
    }
    Swap(0, lowest);
}

int CHConvexHull2D::Compare(const void* a, const void* b)
{
    auto* pa = static_cast<tPointStruc*>(const_cast<void*>(a));
    auto* pb = static_cast<tPointStruc*>(const_cast<void*>(b));
    const tPointStruc& p0 = m_pPoints[0];
    const float area = (pa->x - p0.x) * (pb->y - p0.y) - (pa->y - p0.y) * (pb->x - p0.x);
    if (area > qzsse::detail::c_fHullOrientationTolerance)
        return -1;
    if (area < -qzsse::detail::c_fHullOrientationTolerance)
        return 1;
    ++m_nNumDeleted;
    const float dx = std::fabs(pa->x - p0.x) - std::fabs(pb->x - p0.x);
    const float dy = std::fabs(pa->y - p0.y) - std::fabs(pb->y - p0.y);
    if (dx < 0.0f || dy < 0.0f) {
        pa->bDeleted = true;
        return -1;
    }
    if (dx > 0.0f || dy > 0.0f) {
        pb->bDeleted = true;
        return 1;
    }
    if (pa->iIndex <= pb->iIndex)
        pa->bDeleted = true;
    else
        pb->bDeleted = true;
    return 0;
}

void CHConvexHull2D::Squash()
{
    int kept = 0;
    for (int i = 0; i < m_nNumPoints; ++i) {
        if (!m_pPoints[i].bDeleted) {
            Copy(i, kept);
            ++kept;
        }
    }
    m_nNumPoints = kept;
}

void CHConvexHull2D::exchange(unsigned char* a, unsigned char* b, int size)
{
    if (a == b)
        return;
    unsigned char* buffer = qzsse::detail::s_hullSortExchangeBuffer;
    // The hull's own records get copies of a size known here, which the compiler inlines.
    if (size == static_cast<int>(sizeof(tPointStruc))) {
        std::memcpy(buffer, a, sizeof(tPointStruc));
        std::memcpy(a, b, sizeof(tPointStruc));
        std::memcpy(b, buffer, sizeof(tPointStruc));
        return;
    }
    std::memcpy(buffer, a, static_cast<size_t>(size));
    std::memcpy(a, b, static_cast<size_t>(size));
    std::memcpy(b, buffer, static_cast<size_t>(size));
}

void CHConvexHull2D::QuickSort(void* base, int count, int size)
{
    if (size <= 0 || size > qzsse::detail::c_iMaxSortElementSize || count < 2)
        return;
    quickSortRange(static_cast<unsigned char*>(base), 0, count - 1, size);
}

// Partitioning with the pivot parked at lo and both scans stopping on equal keys keeps runs of
// equal points balanced; no record is ever compared with itself, since a comparison can mark
// a record deleted.
void CHConvexHull2D::quickSortRange(unsigned char* base, int lo, int hi, int size)
{
    const auto at = [base, size](int k) { return base + static_cast<size_t>(k) * static_cast<size_t>(size); };
    while (lo < hi) {
        exchange(at(lo), at(lo + (hi - lo) / 2), size);
        int i = lo;
        int j = hi + 1;
        for (;;) {
            while (++i <= hi && Compare(at(i), at(lo)) < 0) {
            }
            while (--j > lo && Compare(at(j), at(lo)) > 0) {
            }
            if (i >= j)
                break;
            exchange(at(i), at(j), size);
        }
        exchange(at(lo), at(j), size);
        // Recursing into the smaller side bounds the stack depth by log n.
        if (j - lo < hi - j) {
            quickSortRange(base, lo, j - 1, size);
            lo = j + 1;
        } else {
            quickSortRange(base, j + 1, hi, size);
            hi = j - 1;
        }
    }
}

tStackCell* CHConvexHull2D::Graham()
{
    tStackCell* top = nullptr;
    for (int k = 0; k < 2 && k < m_nNumPoints; ++k)
        top = Push(&m_pPoints[k], top);
    if (m_nNumPoints < 3)
        return top;
    int i = 2;
    while (i < m_nNumPoints) {
        if (top->next == nullptr) {
            std::printf("Error\n");
            std::fflush(stdout);
            Pop(top);
            return nullptr;
        }
        const tPointStruc& t = *top->p;
        const tPointStruc& s = *top->next->p;
        const tPointStruc& p = m_pPoints[i];
        if ((t.x - s.x) * (p.y - s.y) - (p.x - s.x) * (t.y - s.y) > qzsse::detail::c_fHullOrientationTolerance) {
            top = Push(&m_pPoints[i], top);
            ++i;
        } else {
            top = Pop(top);
        }
    }
    return top;
}
