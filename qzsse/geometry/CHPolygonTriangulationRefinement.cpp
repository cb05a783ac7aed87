#include "qzsse/geometry/CHPolygonTriangulationRefinement.h"

#include <algorithm>
#include <cmath>
#include <numbers>

#include "qzsse/geometry/CHPolygonTriangulator.h"
#include "qzsse/geometry/detail/PolygonTriangulationRefinementPredicates.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

using qzsse::detail::RefinementInCircle;
using qzsse::detail::RefinementOrientation;

namespace {

// The triangulator's vertex count: a step below 1 counts as 1, fewer than three points
// give nothing.
int vertexCount(int points, int step)
{
    return points < 3 ? 0 : points / std::max(step, 1);
}

int slotOf(const int (&v)[3], int a)
{
    return v[0] == a ? 0 : (v[1] == a ? 1 : (v[2] == a ? 2 : -1));
}

}  // namespace

CHPolygonTriangulationRefinement::CHPolygonTriangulationRefinement(const CHPolygonTriangulator& triangulator,
                                                                   const CSSE3dPolygon& polygon, int step)
{
    const int n = vertexCount(polygon.GetNumPoints(), step);
    step = std::max(step, 1);
    m_x.resize(static_cast<size_t>(n));
    m_y.resize(static_cast<size_t>(n));
    m_z.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i)
        polygon.GetPoint(i * step, m_x[static_cast<size_t>(i)], m_y[static_cast<size_t>(i)], m_z[static_cast<size_t>(i)]);
    takeTriangles(triangulator);
}

CHPolygonTriangulationRefinement::CHPolygonTriangulationRefinement(const CHPolygonTriangulator& triangulator,
                                                                   const CSSE2dPolygon& polygon, int step)
{
    const int n = vertexCount(polygon.GetNumPoints(), step);
    step = std::max(step, 1);
    m_x.resize(static_cast<size_t>(n));
    m_y.resize(static_cast<size_t>(n));
    m_z.assign(static_cast<size_t>(n), 0.0f);
    for (int i = 0; i < n; ++i)
        polygon.GetPoint(i * step, m_x[static_cast<size_t>(i)], m_y[static_cast<size_t>(i)]);
    takeTriangles(triangulator);
}

void CHPolygonTriangulationRefinement::takeTriangles(const CHPolygonTriangulator& triangulator)
{
    const int n = GetNumVertices();
    m_next.resize(static_cast<size_t>(n));
    m_previous.resize(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        m_next[static_cast<size_t>(i)] = (i + 1) % n;
        m_previous[static_cast<size_t>(i)] = (i + n - 1) % n;
    }
    m_nBorderVertices = n;

    m_triangles.reserve(static_cast<size_t>(std::max(triangulator.GetNumTriangles(), 0)));
    for (int i = 0; i < triangulator.GetNumTriangles(); ++i) {
        Triangle t{};
        if (!triangulator.GetTriangle(i, t.v[0], t.v[1], t.v[2]))
            continue;
        if (std::any_of(t.v, t.v + 3, [n](int v) { return v < 0 || v >= n; }))
            continue;
        m_triangles.push_back(t);
    }
    linkNeighbours();
}

// Pairs each directed edge with its reverse by sorting the edges on their undirected key.
void CHPolygonTriangulationRefinement::linkNeighbours()
{
    struct Edge {
        unsigned long long key;
        int triangle;
        int slot;
    };
    std::vector<Edge> edges;
    edges.reserve(m_triangles.size() * 3);
    const unsigned long long n = m_x.size();
    for (size_t t = 0; t < m_triangles.size(); ++t) {
        for (int k = 0; k < 3; ++k) {
            m_triangles[t].neighbour[k] = -1;
            const auto a = static_cast<unsigned long long>(m_triangles[t].v[k]);
            const auto b = static_cast<unsigned long long>(m_triangles[t].v[(k + 1) % 3]);
            edges.push_back({std::min(a, b) * n + std::max(a, b), static_cast<int>(t), k});
        }
    }
    std::sort(edges.begin(), edges.end(), [](const Edge& p, const Edge& q) { return p.key < q.key; });
    for (size_t i = 0; i < edges.size();) {
        size_t j = i + 1;
        while (j < edges.size() && edges[j].key == edges[i].key)
            ++j;
        // Only a shared edge of exactly two triangles in opposite directions is interior.
        if (j - i == 2) {
            Triangle& p = m_triangles[static_cast<size_t>(edges[i].triangle)];
            Triangle& q = m_triangles[static_cast<size_t>(edges[i + 1].triangle)];
            if (p.v[edges[i].slot] == q.v[(edges[i + 1].slot + 1) % 3]) {
                p.neighbour[edges[i].slot] = edges[i + 1].triangle;
                q.neighbour[edges[i + 1].slot] = edges[i].triangle;
            }
        }
        i = j;
    }
}

int CHPolygonTriangulationRefinement::orientation(int a, int b, int c) const
{
    const auto ia = static_cast<size_t>(a), ib = static_cast<size_t>(b), ic = static_cast<size_t>(c);
    return RefinementOrientation(m_x[ia], m_y[ia], m_x[ib], m_y[ib], m_x[ic], m_y[ic]);
}

bool CHPolygonTriangulationRefinement::shouldFlip(int t, int k) const
{
    const Triangle& t1 = m_triangles[static_cast<size_t>(t)];
    const int other = t1.neighbour[k];
    if (other < 0)
        return false;
    const Triangle& t2 = m_triangles[static_cast<size_t>(other)];
    const int a = t1.v[k], b = t1.v[(k + 1) % 3], c = t1.v[(k + 2) % 3];
    const int m = slotOf(t2.v, b);
    if (m < 0)
        return false;
    const int d = t2.v[(m + 2) % 3];
    if (orientation(a, b, c) > 0 && orientation(b, a, d) > 0) {
        const auto ia = static_cast<size_t>(a), ib = static_cast<size_t>(b);
        const auto ic = static_cast<size_t>(c), id = static_cast<size_t>(d);
        if (RefinementInCircle(m_x[ia], m_y[ia], m_x[ib], m_y[ib], m_x[ic], m_y[ic], m_x[id], m_y[id]) <= 0)
            return false;
    }
    // Only a flip that leaves two counter-clockwise triangles is made.
    return orientation(a, d, c) > 0 && orientation(d, b, c) > 0;
}

void CHPolygonTriangulationRefinement::flip(int t, int k, std::vector<int>& stack)
{
    Triangle& t1 = m_triangles[static_cast<size_t>(t)];
    const int other = t1.neighbour[k];
    Triangle& t2 = m_triangles[static_cast<size_t>(other)];
    const int a = t1.v[k], b = t1.v[(k + 1) % 3], c = t1.v[(k + 2) % 3];
    const int m = slotOf(t2.v, b);
    const int d = t2.v[(m + 2) % 3];
    const int nBC = t1.neighbour[(k + 1) % 3], nCA = t1.neighbour[(k + 2) % 3];
    const int nAD = t2.neighbour[(m + 1) % 3], nDB = t2.neighbour[(m + 2) % 3];

    t1 = Triangle{{a, d, c}, {nAD, other, nCA}};
    t2 = Triangle{{d, b, c}, {nDB, nBC, t}};
    auto relink = [this](int triangle, int from, int to) {
        if (triangle < 0)
            return;
        for (int& n : m_triangles[static_cast<size_t>(triangle)].neighbour)
            if (n == from) {
                n = to;
                return;
            }
    };
    relink(nAD, other, t);
    relink(nBC, t, other);
    stack.insert(stack.end(), {t, 0, t, 2, other, 0, other, 1});
}

int CHPolygonTriangulationRefinement::FlipToConstrainedDelaunay()
{
    // Each flip lowers the lifted surface over its quadrilateral, or removes a triangle that
    // is not counter-clockwise while creating none, so the loop ends.
    std::vector<int> stack;
    stack.reserve(m_triangles.size() * 6);
    for (size_t t = 0; t < m_triangles.size(); ++t)
        for (int k = 0; k < 3; ++k)
            if (m_triangles[t].neighbour[k] > static_cast<int>(t))
                stack.insert(stack.end(), {static_cast<int>(t), k});
    int flips = 0;
    while (!stack.empty()) {
        const int k = stack.back();
        stack.pop_back();
        const int t = stack.back();
        stack.pop_back();
        if (shouldFlip(t, k)) {
            flip(t, k, stack);
            ++flips;
        }
    }
    return flips;
}

bool CHPolygonTriangulationRefinement::isSliver(const Triangle& t, float minAngleDegrees, float minArea) const
{
    if (orientation(t.v[0], t.v[1], t.v[2]) <= 0)
        return true;
    double ex[3], ey[3], length[3];
    for (int k = 0; k < 3; ++k) {
        const auto p = static_cast<size_t>(t.v[k]), q = static_cast<size_t>(t.v[(k + 1) % 3]);
        ex[k] = static_cast<double>(m_x[q]) - m_x[p];
        ey[k] = static_cast<double>(m_y[q]) - m_y[p];
        length[k] = std::hypot(ex[k], ey[k]);
    }
    const double doubledArea = ex[0] * ey[1] - ey[0] * ex[1];
    if (0.5 * doubledArea < minArea)
        return true;
    // The smallest angle faces the shortest edge: its sine is 2A / (product of the others).
    const int s = static_cast<int>(std::min_element(length, length + 3) - length);
    const int u = (s + 1) % 3, w = (s + 2) % 3;
    const double cosine = -(ex[u] * ex[w] + ey[u] * ey[w]);
    const double angle = std::atan2(std::fabs(doubledArea), cosine);
    return angle < static_cast<double>(minAngleDegrees) * std::numbers::pi / 180.0;
}

bool CHPolygonTriangulationRefinement::removeVertex(int t0, int removed, int kept, std::vector<char>& removedTriangle)
{
    const auto r = static_cast<size_t>(removed);
    if (orientation(m_previous[r], removed, m_next[r]) < 0)
        return false;
    // The triangles around the removed vertex: walk across its two edges in t0 to the border.
    std::vector<int> star;
    const Triangle& first = m_triangles[static_cast<size_t>(t0)];
    const int c0 = slotOf(first.v, removed);
    for (int side : {c0, (c0 + 2) % 3}) {
        int previous = t0;
        int t = first.neighbour[side];
        while (t >= 0 && t != t0) {
            if (star.size() > m_triangles.size())
                return false;
            star.push_back(t);
            const Triangle& tri = m_triangles[static_cast<size_t>(t)];
            const int c = slotOf(tri.v, removed);
            if (c < 0)
                return false;
            const int forward = tri.neighbour[c] == previous ? tri.neighbour[(c + 2) % 3] : tri.neighbour[c];
            previous = t;
            t = forward;
        }
        if (t == t0)
            return false;  // the vertex is not on the border
    }
    for (int t : star) {
        int v[3];
        std::copy(m_triangles[static_cast<size_t>(t)].v, m_triangles[static_cast<size_t>(t)].v + 3, v);
        v[slotOf(v, removed)] = kept;
        if (orientation(v[0], v[1], v[2]) <= 0)
            return false;
    }

    // t0 goes: its neighbours across the edges at its third corner now meet each other.
    const int x = first.v[0] != removed && first.v[0] != kept ? first.v[0] : (first.v[1] != removed && first.v[1] != kept ? first.v[1] : first.v[2]);
    const int cx = slotOf(first.v, x);
    const int acrossKept = first.v[(cx + 1) % 3] == kept ? first.neighbour[cx] : first.neighbour[(cx + 2) % 3];
    const int acrossRemoved = first.v[(cx + 1) % 3] == removed ? first.neighbour[cx] : first.neighbour[(cx + 2) % 3];
    for (int side : {acrossKept, acrossRemoved}) {
        if (side < 0)
            continue;
        const int to = side == acrossKept ? acrossRemoved : acrossKept;
        for (int& n : m_triangles[static_cast<size_t>(side)].neighbour)
            if (n == t0) {
                n = to;
                break;
            }
    }
    for (int t : star) {
        Triangle& tri = m_triangles[static_cast<size_t>(t)];
        tri.v[slotOf(tri.v, removed)] = kept;
    }
    removedTriangle[static_cast<size_t>(t0)] = 1;
    m_next[static_cast<size_t>(m_previous[r])] = m_next[r];
    m_previous[static_cast<size_t>(m_next[r])] = m_previous[r];
    m_next[r] = m_previous[r] = -1;
    --m_nBorderVertices;
    return true;
}

bool CHPolygonTriangulationRefinement::tryCollapse(int t, std::vector<char>& removedTriangle)
{
    const Triangle tri = m_triangles[static_cast<size_t>(t)];
    struct Choice {
        double length;
        int from, to;
    };
    Choice edges[3];
    int count = 0;
    for (int k = 0; k < 3; ++k) {
        const int a = tri.v[k], b = tri.v[(k + 1) % 3];
        if (tri.neighbour[k] >= 0 || m_next[static_cast<size_t>(a)] != b)
            continue;
        const double dx = static_cast<double>(m_x[static_cast<size_t>(b)]) - m_x[static_cast<size_t>(a)];
        const double dy = static_cast<double>(m_y[static_cast<size_t>(b)]) - m_y[static_cast<size_t>(a)];
        edges[count++] = {std::hypot(dx, dy), a, b};
    }
    std::stable_sort(edges, edges + count, [](const Choice& p, const Choice& q) { return p.length < q.length; });
    auto outlineChange = [this](int v) {
        const auto p = static_cast<size_t>(m_previous[static_cast<size_t>(v)]);
        const auto q = static_cast<size_t>(m_next[static_cast<size_t>(v)]);
        const auto i = static_cast<size_t>(v);
        return std::fabs((static_cast<double>(m_x[i]) - m_x[p]) * (static_cast<double>(m_y[q]) - m_y[p])
                         - (static_cast<double>(m_y[i]) - m_y[p]) * (static_cast<double>(m_x[q]) - m_x[p]));
    };
    for (int e = 0; e < count; ++e) {
        int first = edges[e].from, second = edges[e].to;
        if (outlineChange(second) < outlineChange(first))
            std::swap(first, second);
        if (removeVertex(t, first, second, removedTriangle) || removeVertex(t, second, first, removedTriangle))
            return true;
    }
    return false;
}

int CHPolygonTriangulationRefinement::CollapseSlivers(float minAngleDegrees, float minArea)
{
    if (GetNumTriangles() != m_nBorderVertices - 2)
        return 0;
    int total = 0;
    for (;;) {
        std::vector<char> removedTriangle(m_triangles.size(), 0);
        int removed = 0;
        for (size_t t = 0; t < m_triangles.size() && m_nBorderVertices > 3; ++t)
            if (!removedTriangle[t] && isSliver(m_triangles[t], minAngleDegrees, minArea)
                && tryCollapse(static_cast<int>(t), removedTriangle))
                ++removed;
        if (removed == 0)
            return total;
        total += removed;

        std::vector<int> newIndex(m_triangles.size(), -1);
        size_t kept = 0;
        for (size_t t = 0; t < m_triangles.size(); ++t)
            if (!removedTriangle[t]) {
                newIndex[t] = static_cast<int>(kept);
                m_triangles[kept++] = m_triangles[t];
            }
        m_triangles.resize(kept);
        for (Triangle& tri : m_triangles)
            for (int& n : tri.neighbour)
                n = n < 0 ? -1 : newIndex[static_cast<size_t>(n)];
        FlipToConstrainedDelaunay();
    }
}

void CHPolygonTriangulationRefinement::GetBorderLinePolygon(CSSE3dPolygon& border) const
{
    border.Create(m_nBorderVertices);
    int v = 0;
    while (v < GetNumVertices() && m_next[static_cast<size_t>(v)] < 0)
        ++v;
    for (int i = 0; i < m_nBorderVertices; ++i) {
        const auto s = static_cast<size_t>(v);
        border.SetPoint(i, m_x[s], m_y[s], m_z[s]);
        v = m_next[s];
    }
}

bool CHPolygonTriangulationRefinement::GetTriangle(int i, int& a, int& b, int& c) const
{
    if (i < 0 || i >= GetNumTriangles())
        return false;
    const Triangle& t = m_triangles[static_cast<size_t>(i)];
    a = t.v[0];
    b = t.v[1];
    c = t.v[2];
    return true;
}

bool CHPolygonTriangulationRefinement::GetTriangle3D(int i, SSEPoint& a, SSEPoint& b, SSEPoint& c) const
{
    if (i < 0 || i >= GetNumTriangles())
        return false;
    SSEPoint* out[3] = {&a, &b, &c};
    for (int k = 0; k < 3; ++k) {
        const auto v = static_cast<size_t>(m_triangles[static_cast<size_t>(i)].v[k]);
        out[k]->x = m_x[v];
        out[k]->y = m_y[v];
        out[k]->z = m_z[v];
        out[k]->w = 0.0f;
    }
    return true;
}
