#include "qzsse/geometry/CRestorationOctree.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "qzsse/geometry/detail/RestorationOctreeGeometry.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace {

// Centroids that still share one octant this deep are left together in a leaf.
constexpr int kMaxDepth = 40;
// Deepest stack: every level leaves at most seven siblings behind.
constexpr int kStackSize = 8 * (kMaxDepth + 2);

// Box keys and triangle results are rounded separately; a box is dropped only when it is
// clearly farther, so a tie on its border still reaches the lower index.
constexpr double kPruneSlack = 1.0 + 1e-12;

struct Pending {
    double key;   // squared box distance or ray entry parameter
    int node;
};

// Pushes the children first .. first + n - 1 whose key may still beat best, nearest last on
// the stack so that the nearest is searched first.
template <class Nodes, class Key>
void pushChildrenNearestLast(const Nodes& nodes, int first, int n, const Key& key, double best, Pending* stack,
                             int& top)
{
    Pending child[8];
    for (int i = 0; i < n; ++i) {
        child[i] = {key(nodes[static_cast<size_t>(first + i)]), first + i};
        for (int j = i; j > 0 && child[j].key > child[j - 1].key; --j)
            std::swap(child[j], child[j - 1]);
    }
    for (int i = 0; i < n; ++i)
        if (child[i].key <= best * kPruneSlack)
            stack[top++] = child[i];
}

inline void corners(const float* f, double a[3], double b[3], double c[3])
{
    for (int k = 0; k < 3; ++k) {
        a[k] = f[k];
        b[k] = f[3 + k];
        c[k] = f[6 + k];
    }
}

} // namespace

CRestorationOctree::CRestorationOctree(const CHTriangulation* mesh, int leafSize)
    : m_nLeafSize(std::max(1, leafSize))
{
    const int n = mesh != nullptr ? std::max(0, mesh->GetNumTriangles()) : 0;
    if (n == 0)
        return;
    m_nTriangles = n;
    m_corners.resize(static_cast<size_t>(n) * 9);
    m_centroids.resize(static_cast<size_t>(n) * 3);
    m_index.resize(static_cast<size_t>(n));
    double lo[3] = {std::numeric_limits<double>::max(), std::numeric_limits<double>::max(),
                    std::numeric_limits<double>::max()};
    double hi[3] = {-lo[0], -lo[1], -lo[2]};
    const t_htriangle* tri = mesh->GetTriangles();
    for (int t = 0; t < n; ++t) {
        m_index[t] = t;
        for (int k = 0; k < 3; ++k) {
            const SSEPoint& q = *tri[t].pPoint[k];
            const float v[3] = {q.x, q.y, q.z};
            for (int a = 0; a < 3; ++a) {
                m_corners[static_cast<size_t>(t) * 9 + k * 3 + a] = v[a];
                m_centroids[static_cast<size_t>(t) * 3 + a] += v[a] / 3.0f;
            }
        }
        for (int a = 0; a < 3; ++a) {
            lo[a] = std::min(lo[a], static_cast<double>(m_centroids[static_cast<size_t>(t) * 3 + a]));
            hi[a] = std::max(hi[a], static_cast<double>(m_centroids[static_cast<size_t>(t) * 3 + a]));
        }
    }
    const double centre[3] = {(lo[0] + hi[0]) / 2, (lo[1] + hi[1]) / 2, (lo[2] + hi[2]) / 2};
    const double half = std::max({hi[0] - lo[0], hi[1] - lo[1], hi[2] - lo[2]}) / 2;
    m_nodes.reserve(static_cast<size_t>(2 * n / m_nLeafSize + 8));
    m_nodes.push_back({});
    build(0, 0, n, centre, half, 0);
    std::vector<float> filed(m_corners.size());
    // Slots in leaf order keep the triangles of one leaf next to each other.
    for (int s = 0; s < n; ++s)
        std::copy_n(&m_corners[static_cast<size_t>(m_index[s]) * 9], 9, &filed[static_cast<size_t>(s) * 9]);
    m_corners.swap(filed);
    std::vector<float>().swap(m_centroids);
}

void CRestorationOctree::build(int self, int first, int count, const double centre[3], double half, int depth)
{
    float lo[3] = {std::numeric_limits<float>::infinity(), std::numeric_limits<float>::infinity(),
                   std::numeric_limits<float>::infinity()};
    float hi[3] = {-lo[0], -lo[1], -lo[2]};
    for (int s = first; s < first + count; ++s) {
        const float* f = &m_corners[static_cast<size_t>(m_index[s]) * 9];
        for (int k = 0; k < 9; ++k) {
            lo[k % 3] = std::min(lo[k % 3], f[k]);
            hi[k % 3] = std::max(hi[k % 3], f[k]);
        }
    }
    Node& node = m_nodes[static_cast<size_t>(self)];
    std::copy_n(lo, 3, node.lo);
    std::copy_n(hi, 3, node.hi);
    node.first = first;
    node.count = count;
    if (count <= m_nLeafSize || depth >= kMaxDepth)
        return;

    // Counting sort of the slots by the octant of their centroid.
    int octantCount[8] = {};
    std::vector<unsigned char> octant(static_cast<size_t>(count));
    for (int s = 0; s < count; ++s) {
        const float* c = &m_centroids[static_cast<size_t>(m_index[first + s]) * 3];
        const int o = (c[0] > centre[0] ? 1 : 0) | (c[1] > centre[1] ? 2 : 0) | (c[2] > centre[2] ? 4 : 0);
        octant[s] = static_cast<unsigned char>(o);
        ++octantCount[o];
    }
    int start[8];
    int children = 0;
    for (int o = 0, sum = 0; o < 8; ++o) {
        start[o] = sum;
        sum += octantCount[o];
        children += octantCount[o] > 0 ? 1 : 0;
    }
    const double h = half / 2;
    if (children == 1) {
        // All in one octant: descend without a node of its own.
        int o = 0;
        while (octantCount[o] == 0)
            ++o;
        const double sub[3] = {centre[0] + ((o & 1) ? h : -h), centre[1] + ((o & 2) ? h : -h),
                               centre[2] + ((o & 4) ? h : -h)};
        build(self, first, count, sub, h, depth + 1);
        return;
    }
    std::vector<int> sorted(static_cast<size_t>(count));
    int fill[8];
    std::copy_n(start, 8, fill);
    for (int s = 0; s < count; ++s)
        sorted[fill[octant[s]]++] = m_index[first + s];
    std::copy(sorted.begin(), sorted.end(), m_index.begin() + first);
    std::vector<unsigned char>().swap(octant);
    std::vector<int>().swap(sorted);

    const int firstChild = static_cast<int>(m_nodes.size());
    m_nodes[static_cast<size_t>(self)].first = firstChild;
    m_nodes[static_cast<size_t>(self)].count = -children;
    m_nodes.resize(m_nodes.size() + static_cast<size_t>(children));
    int slot = firstChild;
    for (int o = 0; o < 8; ++o) {
        if (octantCount[o] == 0)
            continue;
        const double sub[3] = {centre[0] + ((o & 1) ? h : -h), centre[1] + ((o & 2) ? h : -h),
                               centre[2] + ((o & 4) ? h : -h)};
        build(slot++, first + start[o], octantCount[o], sub, h, depth + 1);
    }
}

int CRestorationOctree::FindClosestPoint(const SSEPoint& p, SSEPoint* closest, double* squaredDistance) const
{
    if (m_nTriangles == 0)
        return -1;
    const double q[3] = {p.x, p.y, p.z};
    const auto boxDistance = [&q](const Node& node) {
        double d = 0.0;
        for (int k = 0; k < 3; ++k) {
            const double e = std::max({static_cast<double>(node.lo[k]) - q[k], 0.0, q[k] - node.hi[k]});
            d += e * e;
        }
        return d;
    };
    double best = std::numeric_limits<double>::infinity();
    int bestSlot = -1;
    double bestPoint[3] = {0, 0, 0};
    Pending stack[kStackSize];
    int top = 0;
    stack[top++] = {boxDistance(m_nodes[0]), 0};
    while (top > 0) {
        const Pending item = stack[--top];
        // Equal distances are still visited: a lower index there may win the tie.
        if (item.key > best * kPruneSlack)
            continue;
        const Node& node = m_nodes[static_cast<size_t>(item.node)];
        if (node.count >= 0) {
            for (int s = node.first; s < node.first + node.count; ++s) {
                double a[3], b[3], c[3], x[3];
                corners(&m_corners[static_cast<size_t>(s) * 9], a, b, c);
                const double d = qzsse::detail::ClosestPointOnTriangle(q, a, b, c, x);
                if (d < best || (d == best && bestSlot >= 0 && m_index[s] < m_index[bestSlot])) {
                    best = d;
                    bestSlot = s;
                    std::copy_n(x, 3, bestPoint);
                }
            }
            continue;
        }
        pushChildrenNearestLast(m_nodes, node.first, -node.count, boxDistance, best, stack, top);
    }
    if (bestSlot < 0)
        return -1;
    if (closest != nullptr) {
        closest->x = static_cast<float>(bestPoint[0]);
        closest->y = static_cast<float>(bestPoint[1]);
        closest->z = static_cast<float>(bestPoint[2]);
        closest->w = 0.0f;
    }
    if (squaredDistance != nullptr)
        *squaredDistance = best;
    return m_index[static_cast<size_t>(bestSlot)];
}

int CRestorationOctree::FindFirstRayHit(const SSEPoint& origin, const SSEPoint& direction, SSEPoint* hit,
                                        double* t) const
{
    const double o[3] = {origin.x, origin.y, origin.z};
    const double d[3] = {direction.x, direction.y, direction.z};
    if (m_nTriangles == 0 || (d[0] == 0.0 && d[1] == 0.0 && d[2] == 0.0))
        return -1;
    // Entry parameter of the ray into a box, or infinity when it misses.
    const auto entry = [&o, &d](const Node& node) {
        double t0 = 0.0, t1 = std::numeric_limits<double>::infinity();
        for (int k = 0; k < 3; ++k) {
            if (d[k] == 0.0) {
                if (o[k] < node.lo[k] || o[k] > node.hi[k])
                    return std::numeric_limits<double>::infinity();
                continue;
            }
            double a = (node.lo[k] - o[k]) / d[k], b = (node.hi[k] - o[k]) / d[k];
            if (a > b)
                std::swap(a, b);
            t0 = std::max(t0, a);
            t1 = std::min(t1, b);
        }
        return t0 <= t1 ? t0 : std::numeric_limits<double>::infinity();
    };
    double best = std::numeric_limits<double>::infinity();
    int bestSlot = -1;
    Pending stack[kStackSize];
    int top = 0;
    stack[top++] = {entry(m_nodes[0]), 0};
    while (top > 0) {
        const Pending item = stack[--top];
        if (!(item.key <= best * kPruneSlack))
            continue;
        const Node& node = m_nodes[static_cast<size_t>(item.node)];
        if (node.count >= 0) {
            for (int s = node.first; s < node.first + node.count; ++s) {
                double a[3], b[3], c[3];
                corners(&m_corners[static_cast<size_t>(s) * 9], a, b, c);
                const double u = qzsse::detail::RayTriangleParameter(o, d, a, b, c);
                if (u >= 0.0 && (u < best || (u == best && bestSlot >= 0 && m_index[s] < m_index[bestSlot]))) {
                    best = u;
                    bestSlot = s;
                }
            }
            continue;
        }
        pushChildrenNearestLast(m_nodes, node.first, -node.count, entry, best, stack, top);
    }
    if (bestSlot < 0)
        return -1;
    if (hit != nullptr) {
        hit->x = static_cast<float>(o[0] + best * d[0]);
        hit->y = static_cast<float>(o[1] + best * d[1]);
        hit->z = static_cast<float>(o[2] + best * d[2]);
        hit->w = 0.0f;
    }
    if (t != nullptr)
        *t = best;
    return m_index[static_cast<size_t>(bestSlot)];
}
