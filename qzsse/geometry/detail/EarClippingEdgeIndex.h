#pragma once

#include <vector>

#include "qzsse/geometry/CHSimpleBasisFcns.h"

namespace qzsse::detail {

constexpr float c_fEarClippingTolerance = 0.0005f;

// The doubled area written exactly as the orientation predicates compute it, so that the
// classification below sees the very floats Intersect would.
inline float EarClippingArea(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

// Intersect (a, b, c, d), given the areas of c and d against ab. With none of the four
// areas within the tolerance, no Between can hold and IntersectProp is the strict side test
// itself; only a near-collinear end needs Intersect.
inline bool EarClippingEdgeHits(const CHSimpleBasisFcns& fcns, const t_h2dpoint& a, const t_h2dpoint& b,
                                const t_h2dpoint& c, const t_h2dpoint& d, float areaC, float areaD)
{
    constexpr float tol = c_fEarClippingTolerance;
    const float areaA = EarClippingArea(c, d, a), areaB = EarClippingArea(c, d, b);
    const auto collinear = [](float area) { return area >= -tol && area <= tol; };
    if (collinear(areaC) || collinear(areaD) || collinear(areaA) || collinear(areaB))
        return fcns.Intersect(a, b, c, d);
    return (areaC > tol) != (areaD > tol) && (areaA > tol) != (areaB > tol);
}

// The ring edges of an ear clipping in a tree over the vertex order (edge i runs from vertex i
// to the next vertex still in the ring), so that a diagonal is tested with Intersect only
// against the edges that could make Intersect answer true. A subtree is skipped only where
// the float rounding bound of the doubled area rules every edge in it out; the argument is in
// DESIGN.md ("Ear clipping edge index").
class EarClippingEdgeIndex {
public:
    // The ring is vertices 0 .. n-1 in order. False (and the index unused) when a coordinate
    // is not finite or so large that products could overflow.
    bool Build(const t_hvertex* vertices, int n);
    // Vertex v leaves the ring: its predecessor's edge now runs to its successor. The nodes
    // above are re-fitted when a query first needs them.
    void Remove(int v);
    // Whether an edge with no end in ia or ib meets segment a-b as Intersect sees it; ia and ib
    // are in the ring.
    bool AnyEdgeHits(const CHSimpleBasisFcns& fcns, int ia, int ib);

    // Where Between(c, d, e) can hold for some e: a parallelogram around segment c-d (see the
    // .cpp). Unbounded (false) when c == d.
    struct Reach {
        double x[4], y[4];
    };
    static bool ReachOf(const t_h2dpoint& c, const t_h2dpoint& d, Reach& out);

private:
    // A box along axis u = (ux, uy) holding the reach regions of the edges below:
    // s in [s0, s1] along u, t in [t0, t1] along (-uy, ux); with its axis-aligned box.
    // What a query reads first (emptiness, the axis-aligned box) comes first.
    struct Node {
        double x0, y0, x1, y1;
        double maxDx;  // largest |d.x - c.x| of the edges below; negative when there are none
        double maxDy;
        bool unbounded;
        bool stale;  // a leaf below changed since the last fit (so every ancestor is stale too)
        double ux, uy, s0, s1, t0, t1;
    };
    struct Query {
        t_h2dpoint a, b;
        Reach reach;    // of ab
        bool bounded;
        double x0, y0, x1, y1;  // box of the reach
        double dx, dy;  // b - a
        double length;
        double onLine;  // farthest an end on ab can lie from the line
        // No float judgement against ab or against any ring edge can be wrong: every ring
        // vertex lies in the box of the first ring, so cases (ii) and (iii) cannot arise.
        bool judgedRight;
    };

    void SetLeaf(int i);
    void Pull(int node);
    void Refit(int node);
    // True when no float judgement of a ring vertex against line ab, nor of a or b against a
    // ring edge, can differ from the exact sign: the bounds of Prunable over the first ring's
    // vertex box, which holds every vertex and edge of every later ring.
    bool JudgedRight(const t_h2dpoint& a, const t_h2dpoint& b) const;
    bool Prunable(const Node& node, const Query& q) const;

    std::vector<t_h2dpoint> m_points;
    std::vector<int> m_next, m_prev;
    std::vector<Node> m_nodes;
    int m_leaves = 0;
    int m_depth = 0;  // m_leaves == 1 << m_depth
    double m_x0 = 0, m_y0 = 0, m_x1 = 0, m_y1 = 0;  // box of the first ring's vertices
    // Every coordinate an integer of magnitude up to 2^22: differences are exact, and so is a
    // product of two differences below 2^24.
    bool m_integral = false;
};

}  // namespace qzsse::detail
