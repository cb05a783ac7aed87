#include "qzsse/geometry/CHConvexHull2D.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <emmintrin.h>
#include <utility>
#include <vector>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/core/detail/LargeScratch.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace qzsse::detail {

constexpr float c_fHullOrientationTolerance = 0.0005f;
constexpr int c_iMaxSortElementSize = 64;

// The one exchange buffer of every hull's sort (hence the single-thread restriction).
unsigned char s_hullSortExchangeBuffer[c_iMaxSortElementSize];

// For each set of the four lanes (bit l for lane l), the set lanes in ascending order, padded
// with zeros.
constexpr auto c_ascendingLaneTable = [] {
    struct Table {
        alignas(16) int lanes[16][4];
    } table{};
    for (int mask = 0; mask < 16; ++mask) {
        int n = 0;
        for (int l = 0; l < 4; ++l)
            if (mask & (1 << l))
                table.lanes[mask][n++] = l;
    }
    return table;
}();
// Set lanes per mask (the baseline instruction set has no population count).
constexpr int c_laneCount[16] = {0, 1, 1, 2, 1, 2, 2, 3, 1, 2, 2, 3, 2, 3, 3, 4};
inline const __m128i* const c_ascendingLanes = reinterpret_cast<const __m128i*>(c_ascendingLaneTable.lanes);

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
    if (qzsse::detail::g_bDirectHullSort)
        QuickSort(m_pPoints + 1, n - 1, static_cast<int>(sizeof(tPointStruc)));
    else
        sortByAngle();
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

// The scan as described, a cell allocated per push and freed per pop: what Graham is checked
// against.
tStackCell* CHConvexHull2D::grahamByCells()
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

// The scan runs on an array of point numbers; only the points left on the stack at the end
// get their cells, pushed in the same order, so the stack built is the one the pushes and
// pops would leave. Every point is pushed once, so the array never outgrows n.
tStackCell* CHConvexHull2D::Graham()
{
    if (qzsse::detail::g_bDirectHullSort)
        return grahamByCells();
    if (m_nNumPoints < 3) {
        tStackCell* top = nullptr;
        for (int k = 0; k < m_nNumPoints; ++k)
            top = Push(&m_pPoints[k], top);
        return top;
    }
    qzsse::detail::ScratchVector<int> stack(static_cast<size_t>(m_nNumPoints));
    stack[0] = 0;
    stack[1] = 1;
    size_t height = 2;
    for (int i = 2; i < m_nNumPoints;) {
        if (height < 2) {
            std::printf("Error\n");
            std::fflush(stdout);
            return nullptr;
        }
        const tPointStruc& t = m_pPoints[stack[height - 1]];
        const tPointStruc& s = m_pPoints[stack[height - 2]];
        const tPointStruc& p = m_pPoints[i];
        if ((t.x - s.x) * (p.y - s.y) - (p.x - s.x) * (t.y - s.y) > qzsse::detail::c_fHullOrientationTolerance)
            stack[height++] = i++;
        else
            --height;
    }
    tStackCell* top = nullptr;
    for (size_t k = 0; k < height; ++k)
        top = Push(&m_pPoints[stack[k]], top);
    return top;
}

// Compare on the lanes within the tolerance (bit l for lane l of records), marking them in
// collinear; returns the lanes that sort before the pivot in bits 0-3 and those after it in
// bits 4-7. Kept out of line: it is rare, and a call inside the partition's loop would
// make the compiler keep that loop's values in memory.
__attribute__((noinline, cold)) int CHConvexHull2D::resolveCollinear(int within, const int* records, int pivot, unsigned char* collinear)
{
    int masks = 0;
    while (within != 0) {
        const int l = __builtin_ctz(static_cast<unsigned>(within));
        within &= within - 1;
        const int o = Compare(&m_pPoints[records[l]], &m_pPoints[pivot]);
        if (o < 0)
            masks |= 1 << l;
        if (o > 0)
            masks |= 16 << l;
        collinear[l] = 1;
    }
    return masks;
}

// Compare's result depends only on its two records, and its marks and count only record
// that a comparison happened, so the sort is fixed by the outcome of each (element, pivot)
// comparison it makes. Each partition therefore computes the outcome of every element of
// its range against the pivot at once (the doubled area four at a time, the same float
// operations as Compare; the rare lanes within the tolerance go through Compare itself) and
// then derives where the two scans stop from the positions of their stoppers. Records stay
// in place; the coordinates relative to point 0, a record number and the outcomes move in
// compact arrays, and the records are put into the found order at the end.
void CHConvexHull2D::sortByAngle()
{
    const int count = m_nNumPoints - 1;
    if (count < 2)
        return;
    const size_t size = static_cast<size_t>(count);
    const tPointStruc p0 = m_pPoints[0];
    qzsse::detail::ScratchVector<float> dx(size + 3), dy(size + 3);   // padded for the four-wide loads
    qzsse::detail::ScratchVector<int> record(size);
    for (size_t k = 0; k < size; ++k) {
        dx[k] = m_pPoints[k + 1].x - p0.x;
        dy[k] = m_pPoints[k + 1].y - p0.y;
        record[k] = static_cast<int>(k) + 1;
    }
    qzsse::detail::ScratchVector<unsigned char> collinear(size + 3);
    qzsse::detail::ScratchVector<int> leftStops(size + 4), rightAscending(size + 4);   // room for a whole group
    int deletions = 0;

    const auto exchange = [&](int a, int b) {
        std::swap(dx[static_cast<size_t>(a)], dx[static_cast<size_t>(b)]);
        std::swap(dy[static_cast<size_t>(a)], dy[static_cast<size_t>(b)]);
        std::swap(record[static_cast<size_t>(a)], record[static_cast<size_t>(b)]);
    };

    // Returns the pivot's final position in [lo, hi], as quickSortRange's partition.
    const auto partition = [&](int lo, int hi) {
        exchange(lo, lo + (hi - lo) / 2);
        const float pdx = dx[static_cast<size_t>(lo)], pdy = dy[static_cast<size_t>(lo)];
        const __m128 vpdx = _mm_set1_ps(pdx), vpdy = _mm_set1_ps(pdy);
        const __m128 tolerance = _mm_set1_ps(qzsse::detail::c_fHullOrientationTolerance);
        const __m128 minusTolerance = _mm_set1_ps(-qzsse::detail::c_fHullOrientationTolerance);
        // The left scan stops on outcomes >= 0, the right scan on outcomes <= 0; both stop
        // lists are gathered ascending, four positions at a time through a table of lane
        // offsets, in the same pass that finds the outcomes.
        bool anyCollinear = false;
        int numLeft = 0, numRight = 0;
        for (int k = lo + 1; k <= hi; k += 4) {
            const size_t at = static_cast<size_t>(k);
            const __m128 area = _mm_sub_ps(_mm_mul_ps(_mm_loadu_ps(&dx[at]), vpdy), _mm_mul_ps(_mm_loadu_ps(&dy[at]), vpdx));
            const int before = _mm_movemask_ps(_mm_cmpgt_ps(area, tolerance));
            const int after = _mm_movemask_ps(_mm_cmplt_ps(area, minusTolerance));
            const int valid = hi - k + 1 < 4 ? (1 << (hi - k + 1)) - 1 : 15;
            int leftMask = ~before & valid, rightMask = ~after & valid;
            std::memset(&collinear[at], 0, 4);
            const int within = ~(before | after) & valid;
            if (within != 0) [[unlikely]] {
                const int masks = resolveCollinear(within, &record[at], record[static_cast<size_t>(lo)], &collinear[at]);
                leftMask &= ~(masks & 15);
                rightMask &= ~(masks >> 4);
                anyCollinear = true;
            }
            const __m128i base = _mm_set1_epi32(k);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(&leftStops[static_cast<size_t>(numLeft)]),
                             _mm_add_epi32(base, qzsse::detail::c_ascendingLanes[leftMask]));
            numLeft += qzsse::detail::c_laneCount[leftMask];
            _mm_storeu_si128(reinterpret_cast<__m128i*>(&rightAscending[static_cast<size_t>(numRight)]),
                             _mm_add_epi32(base, qzsse::detail::c_ascendingLanes[rightMask]));
            numRight += qzsse::detail::c_laneCount[rightMask];
        }
        // The right scan meets its stops from the top down.
        const auto rightStop = [&](int r) { return rightAscending[static_cast<size_t>(numRight - 1 - r)]; };
        // Round r's scans start past round r-1's stops, and the records exchanged there stop
        // them: the left scan at the latest on the previous right stop, and vice versa.
        int rounds = 0, i = 0, j = 0;
        for (;; ++rounds) {
            const size_t r = static_cast<size_t>(rounds);
            i = rounds < numLeft ? leftStops[r] : hi + 1;
            j = rounds < numRight ? rightStop(rounds) : lo;
            if (rounds > 0) {
                i = std::min(i, rightStop(rounds - 1));
                j = std::max(j, leftStops[r - 1]);
            }
            if (i >= j)
                break;
        }
        if (anyCollinear) {
            // Compare counts every collinear comparison, repeated ones included: the left scan
            // compared positions lo+1 ... i, the right scan j ... hi, each holding its first
            // record except a stop on a position exchanged in the previous round.
            const auto at = [&](int k, int exchangedWith) {
                return collinear[static_cast<size_t>(exchangedWith >= 0 ? exchangedWith : k)];
            };
            const size_t last = static_cast<size_t>(rounds) - 1;
            for (int k = lo + 1; k <= std::min(i, hi); ++k)
                deletions += at(k, rounds > 0 && k == rightStop(rounds - 1) ? leftStops[last] : -1);
            for (int k = std::max(j, lo + 1); k <= hi; ++k)
                deletions += at(k, rounds > 0 && k == leftStops[last] ? rightStop(rounds - 1) : -1);
        }
        for (int r = 0; r < rounds; ++r)
            exchange(leftStops[static_cast<size_t>(r)], rightStop(r));
        exchange(lo, j);
        return j;
    };

    // Small ranges, where setting up a partition costs more than its comparisons, run
    // quickSortRange itself on the compact arrays, scan by scan.
    const auto outcome1 = [&](int e, int pivot) {
        const size_t a = static_cast<size_t>(e), b = static_cast<size_t>(pivot);
        const float area = dx[a] * dy[b] - dy[a] * dx[b];
        if (area > qzsse::detail::c_fHullOrientationTolerance)
            return -1;
        if (area < -qzsse::detail::c_fHullOrientationTolerance)
            return 1;
        ++deletions;
        return Compare(&m_pPoints[record[a]], &m_pPoints[record[b]]);
    };
    const auto sortSmall = [&](auto& self, int lo, int hi) -> void {
        while (lo < hi) {
            exchange(lo, lo + (hi - lo) / 2);
            int i = lo;
            int j = hi + 1;
            for (;;) {
                while (++i <= hi && outcome1(i, lo) < 0) {
                }
                while (--j > lo && outcome1(j, lo) > 0) {
                }
                if (i >= j)
                    break;
                exchange(i, j);
            }
            exchange(lo, j);
            self(self, lo, j - 1);
            lo = j + 1;
        }
    };
    constexpr int kSmallRange = 12;

    // Ranges are disjoint, so the order they are taken in changes nothing; this is
    // quickSortRange's, with an explicit stack.
    std::vector<std::pair<int, int>> pending{{0, count - 1}};
    while (!pending.empty()) {
        auto [lo, hi] = pending.back();
        pending.pop_back();
        while (lo < hi) {
            if (hi - lo < kSmallRange) {
                sortSmall(sortSmall, lo, hi);
                break;
            }
            const int j = partition(lo, hi);
            if (j - lo < hi - j) {
                pending.emplace_back(j + 1, hi);
                hi = j - 1;
            } else {
                pending.emplace_back(lo, j - 1);
                lo = j + 1;
            }
        }
    }
    m_nNumDeleted = deletions;

    qzsse::detail::ScratchVector<tPointStruc> sorted(size);
    for (size_t k = 0; k < size; ++k) {
        if (k + 16 < size)
            __builtin_prefetch(&m_pPoints[record[k + 16]]);
        sorted[k] = m_pPoints[record[k]];
    }
    std::memcpy(static_cast<void*>(m_pPoints + 1), sorted.data(), size * sizeof(tPointStruc));
}
