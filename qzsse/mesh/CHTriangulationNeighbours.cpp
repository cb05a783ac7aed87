// Neighbour finding and the working list of CHTriangulation.
//
// Neighbours are defined by a pairwise scan in list order: for each triangle t still in the
// list and each later triangle u still in the list, t takes u across the first of its edges
// (0,1), (1,2), (2,0) whose two corners both occur among u's corners, u takes t likewise,
// and a triangle is dropped from the list once all three of its neighbours are set (t's own
// walk then ends). Later matches overwrite earlier ones, so on non-manifold or degenerate
// input the result depends on that order. The code below gives exactly the scan's result
// without comparing every pair: only triangles sharing a corner point can match, so each
// walk is replayed over those alone, in the same order.

#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/core/detail/LargeScratch.h"
#include "qzsse/mesh/detail/TriangulationNeighbours.h"

#include <algorithm>
#include <cmath>
#include <climits>
#include <cstdint>
#include <cstring>
#include <emmintrin.h>
#include <vector>

namespace qzsse::detail {

ScratchVector<int> NumberCornerPoints(const SSEPoint* corners, size_t count, int& numPoints)
{
    ScratchVector<int> ids(count);
    CornerNumbering numbering(corners, count);
    for (size_t i = 0; i < count; ++i)
        ids[i] = numbering.Next(i);
    numPoints = numbering.NumPoints();
    return ids;
}

namespace {

// Which neighbour slot of a would take b: the first edge of a whose two corners both occur
// among b's corners, or -1.
inline int matchingSlot(const int* a, const int* b)
{
    auto occurs = [b](int id) { return id >= 0 && (id == b[0] || id == b[1] || id == b[2]); };
    const bool c0 = occurs(a[0]), c1 = occurs(a[1]), c2 = occurs(a[2]);
    if (c0 && c1)
        return 0;
    if (c1 && c2)
        return 1;
    if (c2 && c0)
        return 2;
    return -1;
}

// Triangles per corner point, each list ascending; built as one offsets array and one entry
// array. Only the triangles the filter accepts are listed.
struct PointLists {
    std::vector<int64_t> begin;   // numPoints + 1 offsets
    std::vector<int> entries;
};

template <class Filter>
PointLists buildPointLists(const ScratchVector<int>& ids, int numTriangles, int numPoints, Filter accept)
{
    PointLists lists;
    lists.begin.assign(static_cast<size_t>(numPoints) + 1, 0);
    auto forEachDistinct = [&](int t, auto&& f) {
        const int* a = &ids[3 * static_cast<size_t>(t)];
        for (int k = 0; k < 3; ++k) {
            if (a[k] < 0 || (k > 0 && a[k] == a[0]) || (k == 2 && a[2] == a[1]))
                continue;
            f(a[k]);
        }
    };
    for (int t = 0; t < numTriangles; ++t)
        if (accept(t))
            forEachDistinct(t, [&](int p) { ++lists.begin[static_cast<size_t>(p) + 1]; });
    for (size_t p = 0; p < static_cast<size_t>(numPoints); ++p)
        lists.begin[p + 1] += lists.begin[p];
    lists.entries.resize(static_cast<size_t>(lists.begin.back()));
    std::vector<int64_t> fill(lists.begin.begin(), lists.begin.end() - 1);
    for (int t = 0; t < numTriangles; ++t)
        if (accept(t))
            forEachDistinct(t, [&](int p) { lists.entries[static_cast<size_t>(fill[static_cast<size_t>(p)]++)] = t; });
    return lists;
}

// Replays the scan over the candidates of each walk.
//
// A triangle whose three corners are one point P (the all-zero surplus records of a mesh
// are such) is kept out of the point lists: every pair of them matches, which would make
// the replay quadratic in their number. Their effect is derived instead. Such a triangle
// can only ever take slot 0, so it never fills up, and its walk visits every later
// triangle that holds P; its final neighbour is therefore the last of them still in the
// list, and only the last one of a group keeps a neighbour set by an earlier walk.
class NeighbourReplay {
public:
    NeighbourReplay(const ScratchVector<int>& ids, int numTriangles, int numPoints)
        : m_ids(ids), m_n(std::max(numTriangles, 0)), m_neighbour(3 * static_cast<size_t>(m_n), -1),
          m_filled(static_cast<size_t>(m_n), 0), m_collapsed(static_cast<size_t>(m_n), 0)
    {
        for (int t = 0; t < m_n; ++t) {
            const int* a = corners(t);
            m_collapsed[static_cast<size_t>(t)] = a[0] >= 0 && a[0] == a[1] && a[1] == a[2];
        }
        m_lists = buildPointLists(m_ids, m_n, numPoints, [this](int t) { return !m_collapsed[static_cast<size_t>(t)]; });
        m_groups = buildPointLists(m_ids, m_n, numPoints, [this](int t) { return m_collapsed[static_cast<size_t>(t)] != 0; });
        m_next.assign(m_lists.begin.begin(), m_lists.begin.end() - 1);
        m_groupNext.assign(m_groups.begin.begin(), m_groups.begin.end() - 1);
        m_lastGroupWrite.assign(static_cast<size_t>(numPoints), -1);
    }

    template <class Unlink>
    void Run(Unlink&& unlink)
    {
        for (int t = 0; t < m_n; ++t) {
            if (m_collapsed[static_cast<size_t>(t)])
                walkCollapsed(t, unlink);
            else
                walk(t, unlink);
        }
    }

    // Neighbour index per slot (3 per triangle), -1 for none.
    const std::vector<int>& Neighbours() const { return m_neighbour; }

private:
    const int* corners(int t) const { return &m_ids[3 * static_cast<size_t>(t)]; }
    bool full(int t) const { return m_filled[static_cast<size_t>(t)] == 7; }
    void set(int t, int slot, int u)
    {
        m_neighbour[3 * static_cast<size_t>(t) + static_cast<size_t>(slot)] = u;
        m_filled[static_cast<size_t>(t)] |= static_cast<unsigned char>(1u << slot);
    }

    template <class Unlink>
    void walk(int t, Unlink& unlink)
    {
        const int* a = corners(t);
        int points[3];
        int numPoints = 0;
        for (int k = 0; k < 3; ++k)
            if (a[k] >= 0 && std::find(points, points + numPoints, a[k]) == points + numPoints)
                points[numPoints++] = a[k];
        // Every list of t's points is at t now; the entries after it are the later triangles.
        int64_t head[3], end[3];
        for (int i = 0; i < numPoints; ++i) {
            const size_t p = static_cast<size_t>(points[i]);
            head[i] = ++m_next[p];
            end[i] = m_lists.begin[p + 1];
        }
        if (full(t))
            return;

        // A match needs two corners of t among u's. If t holds a point twice, every match
        // needs that point; otherwise u holds two of t's points and so is on every list of
        // them but the longest.
        int repeated = -1;
        if (a[0] >= 0 && (a[0] == a[1] || a[0] == a[2]))
            repeated = a[0];
        else if (a[1] >= 0 && a[1] == a[2])
            repeated = a[1];
        int numLists = numPoints;
        if (repeated >= 0) {
            const int i = int(std::find(points, points + numPoints, repeated) - points);
            std::swap(head[0], head[i]);
            std::swap(end[0], end[i]);
            numLists = 1;
        }
        else if (numPoints > 0) {
            int longest = 0;
            for (int i = 1; i < numPoints; ++i)
                if (end[i] - head[i] > end[longest] - head[longest])
                    longest = i;
            std::swap(head[longest], head[numPoints - 1]);
            std::swap(end[longest], end[numPoints - 1]);
            numLists = numPoints - 1;
        }

        // Collapsed triangles of the repeated point all match t on the same slot.
        int groupPoint = -1, groupSlot = -1;
        int64_t groupPos = 0, groupEnd = 0;
        if (repeated >= 0) {
            const size_t p = static_cast<size_t>(repeated);
            const int three[3] = {repeated, repeated, repeated};
            groupPos = m_groupNext[p];
            groupEnd = m_groups.begin[p + 1];
            if (groupPos < groupEnd) {
                groupPoint = repeated;
                groupSlot = matchingSlot(a, three);
            }
        }

        for (;;) {
            int u = INT_MAX;
            for (int i = 0; i < numLists; ++i)
                if (head[i] < end[i])
                    u = std::min(u, m_lists.entries[static_cast<size_t>(head[i])]);
            if (groupPoint >= 0 && groupPos < groupEnd && m_groups.entries[static_cast<size_t>(groupPos)] < u) {
                if (visitGroupRun(t, u, groupPoint, groupSlot, groupPos, groupEnd)) {
                    unlink(t);
                    return;
                }
            }
            if (u == INT_MAX)
                return;
            for (int i = 0; i < numLists; ++i)
                if (head[i] < end[i] && m_lists.entries[static_cast<size_t>(head[i])] == u)
                    ++head[i];
            if (full(u))
                continue;
            const int slot = matchingSlot(a, corners(u));
            if (slot < 0)
                continue;
            set(t, slot, u);
            const int back = matchingSlot(corners(u), a);
            if (back >= 0)
                set(u, back, t);
            if (full(u))
                unlink(u);
            if (full(t)) {
                unlink(t);
                return;
            }
        }
    }

    // t meets the run of collapsed triangles before u: each takes t in slot 0 and t takes
    // each in turn, so only the first (which may fill t) and the last matter. Returns true
    // when t is full.
    bool visitGroupRun(int t, int u, int point, int slot, int64_t& pos, int64_t end)
    {
        const int* members = m_groups.entries.data();
        const int64_t runEnd = std::lower_bound(members + pos, members + end, u) - members;
        set(t, slot, members[pos]);
        if (full(t)) {
            if (pos == end - 1)
                m_lastGroupWrite[static_cast<size_t>(point)] = t;
            pos = runEnd;
            return true;
        }
        set(t, slot, members[runEnd - 1]);
        if (runEnd == end)
            m_lastGroupWrite[static_cast<size_t>(point)] = t;
        pos = runEnd;
        return false;
    }

    template <class Unlink>
    void walkCollapsed(int t, Unlink& unlink)
    {
        const int* a = corners(t);
        const size_t p = static_cast<size_t>(a[0]);
        const bool laterMember = ++m_groupNext[p] < m_groups.begin[p + 1];
        int last = -1;
        for (int64_t i = m_next[p]; i < m_lists.begin[p + 1]; ++i) {
            const int u = m_lists.entries[static_cast<size_t>(i)];
            if (full(u))
                continue;
            last = u;
            const int back = matchingSlot(corners(u), a);
            if (back >= 0) {
                set(u, back, t);
                if (full(u))
                    unlink(u);
            }
        }
        if (laterMember) {
            last = std::max(last, m_groups.entries[static_cast<size_t>(m_groups.begin[p + 1] - 1)]);
            m_lastGroupWrite[p] = t;
        }
        else if (last < 0) {
            last = m_lastGroupWrite[p];
        }
        m_neighbour[3 * static_cast<size_t>(t)] = last;
    }

    const ScratchVector<int>& m_ids;
    int m_n;
    std::vector<int> m_neighbour;
    std::vector<unsigned char> m_filled;      // bit k: slot k set
    std::vector<unsigned char> m_collapsed;   // all three corners one point
    PointLists m_lists;                       // triangles per point, collapsed ones excluded
    PointLists m_groups;                      // collapsed triangles per point
    std::vector<int64_t> m_next;              // per point: first list entry not yet walked
    std::vector<int64_t> m_groupNext;
    std::vector<int> m_lastGroupWrite;        // per point: last walk that reached its last collapsed triangle
};

// The scan's result on a mesh where every triangle has three distinct corner points and every
// edge (pair of points) belongs to at most two triangles that share no third point: two
// triangles then match exactly when they share an edge, each on that edge's slot, and no slot
// has a second candidate. Completed triangles leave the list only once all three partners
// are set, so no match is missed. Edges are grouped by their lower point number; returns
// false, with nothing decided, when the mesh is not of that kind.
bool MatchManifoldEdges(const ScratchVector<int>& ids, int numTriangles, int numPoints, ScratchVector<int>& neighbour)
{
    const size_t numEdges = 3 * static_cast<size_t>(numTriangles);
    if (numEdges > static_cast<size_t>(INT_MAX))
        return false;
    for (int t = 0; t < numTriangles; ++t) {
        const int* a = &ids[3 * static_cast<size_t>(t)];
        if (a[0] < 0 || a[1] < 0 || a[2] < 0 || a[0] == a[1] || a[1] == a[2] || a[2] == a[0])
            return false;
    }
    // Edges grouped by lower point: counted, summed to each group's end, and filled from
    // there down, which leaves begin[p] at the start of group p.
    ScratchVector<int> begin(static_cast<size_t>(numPoints) + 1, 0);
    for (size_t e = 0; e < numEdges; ++e) {
        const size_t next = e % 3 == 2 ? e - 2 : e + 1;
        ++begin[static_cast<size_t>(std::min(ids[e], ids[next]))];
    }
    for (size_t p = 1; p <= static_cast<size_t>(numPoints); ++p)
        begin[p] += begin[p - 1];
    struct Entry {
        int other;   // the higher point number
        int edge;    // 3 * triangle + slot
    };
    const auto thirdPoint = [&ids](int edge) {
        const size_t e = static_cast<size_t>(edge);
        return ids[e - e % 3 + (e % 3 + 2) % 3];
    };
    ScratchVector<Entry> entries(numEdges);
    for (size_t e = 0; e < numEdges; ++e) {
        const size_t base = e - e % 3, k = e % 3;
        const int a = ids[e], b = ids[base + (k + 1) % 3];
        const int lower = std::min(a, b), higher = std::max(a, b);
        entries[static_cast<size_t>(--begin[static_cast<size_t>(lower)])] = Entry{higher, static_cast<int>(e)};
    }
    neighbour.assign(numEdges, -1);
    for (size_t p = 0; p < static_cast<size_t>(numPoints); ++p) {
        Entry* first = entries.data() + begin[p];
        Entry* last = entries.data() + begin[p + 1];
        // Large groups (fans) are sorted so that equal edges sit together.
        const bool sorted = last - first > 16;
        if (sorted)
            std::sort(first, last, [](const Entry& x, const Entry& y) { return x.other < y.other; });
        for (Entry* e = first; e < last; ++e) {
            if (neighbour[static_cast<size_t>(e->edge)] >= 0)
                continue;
            Entry* partner = nullptr;
            for (Entry* f = e + 1; f < last; ++f) {
                if (f->other != e->other) {
                    if (sorted)
                        break;
                    continue;
                }
                if (partner != nullptr)
                    return false;   // a third triangle on the edge
                partner = f;
            }
            if (partner == nullptr)
                continue;
            if (thirdPoint(e->edge) == thirdPoint(partner->edge))
                return false;       // the same three points twice
            neighbour[static_cast<size_t>(e->edge)] = partner->edge / 3;
            neighbour[static_cast<size_t>(partner->edge)] = e->edge / 3;
        }
    }
    return true;
}

// The same result as MatchManifoldEdges followed by the list pass, in one pass over the
// triangles that numbers their corners, matches their edges and writes each record as it
// goes, so that a mesh whose neighbours lie close in the record order (a grid, in any scan
// order) is worked on in the cache. Each point lists the edges whose lower point it is, with
// the matched ones kept (a third triangle on an edge must be seen). Also allowed: collapsed
// triangles (one point three times, as the zeroed surplus records of the full-resolution
// mesher), provided no plain triangle after the first of them holds their point. Such a
// triangle matches no plain one that precedes it (a plain triangle holds the point once, so
// two of its corners never occur in it), and the collapsed ones of a point match each other:
// each walk sets slot 0 to every later one, and back, so each ends with the group's last
// record, the last with the one before it; none fills up. Returns false, with records
// partly written, when the mesh is not of that kind.
class PlainMeshLinker {
public:
    PlainMeshLinker(const SSEPoint* corners, t_htriangle* records, int n)
        : m_records(records), m_n(n), m_numbering(corners, 3 * static_cast<size_t>(n)),
          m_filled(static_cast<size_t>(n))
    {
        m_points.reserve(static_cast<size_t>(n) / 2 + static_cast<size_t>(n) / 16 + 64);
    }

    bool Run(t_htriangle*& listHead)
    {
        for (int t = 0; t < m_n; ++t)
            if (!link(t))
                return false;
        linkCollapsedGroups();
        // The list ends as the records left incomplete, in order.
        t_htriangle* last = nullptr;
        listHead = nullptr;
        for (int t = 0; t < m_n; ++t) {
            if (m_filled[static_cast<size_t>(t)] == 3)
                continue;
            t_htriangle& r = m_records[t];
            r.pPrev = last;
            (last != nullptr ? last->pNext : listHead) = &r;
            last = &r;
        }
        return true;
    }

private:
    static constexpr int kPerBlock = 6;     // a grid point has at most six edges
    static constexpr int kMaxBlocks = 32;   // longer chains (big fans) go the sorting way
    // Edges listed under their lower point: the higher point and 3 * triangle + slot, bit-
    // inverted once matched. More than kPerBlock continue in chained blocks of the pool.
    struct PointEdges {
        int count;
        int more;        // next block in m_pool, or -1
        int collapsed;   // a collapsed triangle of this point was seen
        int other[kPerBlock];
        int edge[kPerBlock];
        int unused;
    };
    static_assert(sizeof(PointEdges) == 64);

    int pointOf(size_t corner)
    {
        const int id = m_numbering.Next(corner);
        if (id == static_cast<int>(m_points.size()))
            m_points.push_back(PointEdges{0, -1, 0, {}, {}, 0});
        return id;
    }

    bool link(int t)
    {
        const size_t base = 3 * static_cast<size_t>(t);
        const int a[3] = {pointOf(base), pointOf(base + 1), pointOf(base + 2)};
        t_htriangle& r = m_records[t];
        r.pNext = r.pPrev = nullptr;
        r.pNeighbour[0] = r.pNeighbour[1] = r.pNeighbour[2] = nullptr;
        if (a[0] < 0 || a[1] < 0 || a[2] < 0)
            return false;
        if (a[0] == a[1] && a[1] == a[2]) {
            m_points[static_cast<size_t>(a[0])].collapsed = 1;
            m_collapsed.push_back(Collapsed{a[0], t});
            return true;
        }
        if (a[0] == a[1] || a[1] == a[2] || a[2] == a[0])
            return false;
        if ((m_points[static_cast<size_t>(a[0])].collapsed | m_points[static_cast<size_t>(a[1])].collapsed |
             m_points[static_cast<size_t>(a[2])].collapsed) != 0)
            return false;
        for (int k = 0; k < 3; ++k) {
            const int p = a[k], q = a[(k + 1) % 3];
            const int lower = std::min(p, q), higher = std::max(p, q);
            PointEdges* block = &m_points[static_cast<size_t>(lower)];
            int blocks = 1;
            for (;;) {
                int i = 0;
                while (i < block->count && block->other[i] != higher)
                    ++i;
                if (i < block->count) {
                    const int e = block->edge[i];
                    if (e < 0)
                        return false;   // a third triangle on the edge
                    const int u = e / 3, j = e % 3;
                    // Two triangles on the same three points share all three edges, so t
                    // meets u again on a later edge (or finds one of u's edges matched).
                    for (int earlier = 0; earlier < k; ++earlier)
                        if (r.pNeighbour[earlier] == &m_records[u])
                            return false;
                    block->edge[i] = ~e;
                    r.pNeighbour[k] = &m_records[u];
                    m_records[u].pNeighbour[j] = &r;
                    ++m_filled[static_cast<size_t>(u)];
                    ++m_filled[static_cast<size_t>(t)];
                    break;
                }
                if (block->count < kPerBlock) {
                    block->other[block->count] = higher;
                    block->edge[block->count] = static_cast<int>(base) + k;
                    ++block->count;
                    break;
                }
                if (block->more < 0) {
                    if (blocks == kMaxBlocks)
                        return false;
                    block->more = static_cast<int>(m_pool.size());
                }
                const size_t more = static_cast<size_t>(block->more);
                if (more == m_pool.size())
                    m_pool.push_back(PointEdges{0, -1, 0, {}, {}, 0});   // may move the pool
                block = &m_pool[more];
                ++blocks;
            }
        }
        return true;
    }

    void linkCollapsedGroups()
    {
        std::stable_sort(m_collapsed.begin(), m_collapsed.end(),
                         [](const Collapsed& x, const Collapsed& y) { return x.point < y.point; });
        for (size_t g = 0; g < m_collapsed.size();) {
            size_t end = g + 1;
            while (end < m_collapsed.size() && m_collapsed[end].point == m_collapsed[g].point)
                ++end;
            const int last = m_collapsed[end - 1].triangle;
            for (size_t i = g; i + 1 < end; ++i)
                m_records[m_collapsed[i].triangle].pNeighbour[0] = &m_records[last];
            if (end - g >= 2)
                m_records[last].pNeighbour[0] = &m_records[m_collapsed[end - 2].triangle];
            g = end;
        }
    }

    struct Collapsed {
        int point;
        int triangle;
    };

    t_htriangle* m_records;
    int m_n;
    CornerNumbering m_numbering;
    ScratchVector<unsigned char> m_filled;   // slots set, per triangle
    ScratchVector<PointEdges> m_points;      // per point number
    std::vector<PointEdges> m_pool;
    std::vector<Collapsed> m_collapsed;
};

} // namespace

} // namespace qzsse::detail

void CHTriangulation::IndexTriangleList()
{
    const int n = m_iNumTriangles;
    m_pTriangleList = n > 0 ? &m_pTriangles[0] : nullptr;
    for (int i = 0; i < n; ++i) {
        m_pTriangles[i].pPrev = i > 0 ? &m_pTriangles[i - 1] : nullptr;
        m_pTriangles[i].pNext = i + 1 < n ? &m_pTriangles[i + 1] : nullptr;
    }
}

// The removed record's own links are cleared; a record that is not in the list is left alone.
void CHTriangulation::DeleteTriangleFromList(t_htriangle* triangle)
{
    if (triangle == nullptr || (triangle->pPrev == nullptr && m_pTriangleList != triangle))
        return;
    if (triangle->pPrev)
        triangle->pPrev->pNext = triangle->pNext;
    else
        m_pTriangleList = triangle->pNext;
    if (triangle->pNext)
        triangle->pNext->pPrev = triangle->pPrev;
    triangle->pNext = triangle->pPrev = nullptr;
}

// Neighbours are recomputed from scratch, so a second call gives the same result as the first.
void CHTriangulation::CalcNeighbours()
{
    const int n = m_iNumTriangles;
    if (n == 0) {
        IndexTriangleList();
        return;
    }
    if (!qzsse::detail::g_bDirectNeighbourReplay && 3 * static_cast<size_t>(n) <= static_cast<size_t>(INT_MAX)) {
        qzsse::detail::PlainMeshLinker linker(m_pEdgeArray, m_pTriangles, n);
        if (linker.Run(m_pTriangleList))
            return;
    }
    int numPoints = 0;
    const qzsse::detail::ScratchVector<int> ids = qzsse::detail::NumberCornerPoints(m_pEdgeArray, 3 * static_cast<size_t>(n), numPoints);
    qzsse::detail::ScratchVector<int> neighbour;
    if (!qzsse::detail::g_bDirectNeighbourReplay && qzsse::detail::MatchManifoldEdges(ids, n, numPoints, neighbour)) {
        // The list ends as the records left incomplete, in order; removed ones have no links.
        t_htriangle* last = nullptr;
        m_pTriangleList = nullptr;
        for (int i = 0; i < n; ++i) {
            t_htriangle& t = m_pTriangles[i];
            const size_t at = 3 * static_cast<size_t>(i);
            for (size_t k = 0; k < 3; ++k)
                t.pNeighbour[k] = neighbour[at + k] >= 0 ? &m_pTriangles[neighbour[at + k]] : nullptr;
            t.pNext = nullptr;
            if (neighbour[at] >= 0 && neighbour[at + 1] >= 0 && neighbour[at + 2] >= 0) {
                t.pPrev = nullptr;
                continue;
            }
            t.pPrev = last;
            (last != nullptr ? last->pNext : m_pTriangleList) = &t;
            last = &t;
        }
        return;
    }
    for (int i = 0; i < n; ++i)
        m_pTriangles[i].pNeighbour[0] = m_pTriangles[i].pNeighbour[1] = m_pTriangles[i].pNeighbour[2] = nullptr;
    IndexTriangleList();
    qzsse::detail::NeighbourReplay replay(ids, n, numPoints);
    replay.Run([this](int t) { DeleteTriangleFromList(&m_pTriangles[t]); });
    const std::vector<int>& replayed = replay.Neighbours();
    for (int i = 0; i < n; ++i)
        for (int k = 0; k < 3; ++k) {
            const int u = replayed[3 * static_cast<size_t>(i) + static_cast<size_t>(k)];
            m_pTriangles[i].pNeighbour[k] = u >= 0 ? &m_pTriangles[u] : nullptr;
        }
}

void CHTriangulation::CalcNeighboursConstrained()
{
    CalcNeighbours();
}

void CHTriangulation::FindBorderTriangles()
{
    for (int i = 0; i < m_iNumTriangles; ++i) {
        const t_htriangle& t = m_pTriangles[i];
        if (!t.pNeighbour[0] || !t.pNeighbour[1] || !t.pNeighbour[2])
            m_pTriangles[i].iTag = 13;
    }
}
