#include "qzsse/geometry/detail/EarClippingEdgeIndex.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <limits>

namespace qzsse::detail {
namespace {

constexpr double c_dTolerance = 0.0005f;  // the float tolerance, widened exactly
constexpr double c_dUnit = 0x1p-24;       // unit roundoff of float
// Bound factor on the doubled area's rounding: 4u(1 + 2u) covers the seven roundings, and the
// rest absorbs the double arithmetic of the bounds themselves.
constexpr double c_dRound = 4.02 * c_dUnit;
// Absolute error of the seven roundings should any result be subnormal.
constexpr double c_dUnderflow = 1e-42;
constexpr double c_dSlack = 1.0 + 1e-9;
constexpr double c_dExactProduct = 0x1p24;
constexpr double c_dLargest = 1e18;
constexpr double c_dInf = std::numeric_limits<double>::infinity();
// Below nodes of this many levels (four leaves) the edges are tested one by one: the inline
// side test of an edge costs less than a node test.
constexpr int c_iScanLevels = 2;

// Largest exact |A(c, d, e)| for which Between(c, d, e) can hold (e within the x range, or the
// y range when vertical).
double OnLineArea(double dx, double dy)
{
    return (c_dTolerance + c_dUnderflow + 2 * c_dRound * std::fabs(dx) * std::fabs(dy)) / (1 - c_dRound);
}

// Room for the double rounding of projections onto an axis, relative to the coordinates.
constexpr double c_dProjectionSlack = 1e-12;

double Farthest(double v, double lo, double hi)
{
    return std::max(std::fabs(lo - v), std::fabs(hi - v));
}

}  // namespace

// With c.x != d.x only the x range is checked, and e's distance across the line in y is at most
// the area bound over the run; with c.x == d.x the y range, and the distance in x over the rise.
bool EarClippingEdgeIndex::ReachOf(const t_h2dpoint& c, const t_h2dpoint& d, Reach& out)
{
    const double dx = std::fabs(double(d.x) - double(c.x));
    const double dy = std::fabs(double(d.y) - double(c.y));
    double mx = 0, my = 0;
    if (dx != 0)
        my = OnLineArea(dx, dy) / dx * c_dSlack;
    else if (dy != 0)
        mx = (c_dTolerance + c_dUnderflow) / ((1 - c_dRound) * dy) * c_dSlack;
    else
        return false;
    out = {{c.x - mx, c.x + mx, d.x + mx, d.x - mx}, {c.y - my, c.y + my, d.y + my, d.y - my}};
    return true;
}

bool EarClippingEdgeIndex::Build(const t_hvertex* vertices, int n)
{
    m_points.resize(static_cast<size_t>(n));
    m_next.resize(static_cast<size_t>(n));
    m_prev.resize(static_cast<size_t>(n));
    m_integral = true;
    m_x0 = m_y0 = c_dInf;
    m_x1 = m_y1 = -c_dInf;
    for (int i = 0; i < n; ++i) {
        const t_h2dpoint p = vertices[i].position;
        if (!(std::fabs(p.x) <= c_dLargest && std::fabs(p.y) <= c_dLargest))
            return false;
        m_x0 = std::min(m_x0, double(p.x)), m_x1 = std::max(m_x1, double(p.x));
        m_y0 = std::min(m_y0, double(p.y)), m_y1 = std::max(m_y1, double(p.y));
        m_integral = m_integral && p.x == std::nearbyint(p.x) && p.y == std::nearbyint(p.y) &&
                     std::fabs(p.x) <= 0x1p22f && std::fabs(p.y) <= 0x1p22f;
        m_points[static_cast<size_t>(i)] = p;
        m_next[static_cast<size_t>(i)] = i + 1 < n ? i + 1 : 0;
        m_prev[static_cast<size_t>(i)] = i > 0 ? i - 1 : n - 1;
    }
    m_depth = 0;
    while ((1 << m_depth) < n)
        ++m_depth;
    m_leaves = 1 << m_depth;
    m_nodes.assign(static_cast<size_t>(2 * m_leaves), Node{0, 0, 0, 0, -1, -1, false, false, 0, 0, 0, 0, 0, 0});
    for (int i = 0; i < n; ++i)
        SetLeaf(i);
    for (int node = m_leaves - 1; node >= 1; --node)
        Pull(node);
    return true;
}

void EarClippingEdgeIndex::SetLeaf(int i)
{
    const t_h2dpoint c = m_points[static_cast<size_t>(i)];
    const t_h2dpoint d = m_points[static_cast<size_t>(m_next[static_cast<size_t>(i)])];
    Node& n = m_nodes[static_cast<size_t>(m_leaves + i)];
    const double dx = double(d.x) - double(c.x), dy = double(d.y) - double(c.y);
    n.maxDx = std::fabs(dx);
    n.maxDy = std::fabs(dy);
    Reach r;
    n.unbounded = !ReachOf(c, d, r);
    if (n.unbounded)
        return;
    const double length = std::sqrt(dx * dx + dy * dy);
    n.ux = dx / length;
    n.uy = dy / length;
    n.s0 = n.t0 = n.x0 = n.y0 = c_dInf;
    n.s1 = n.t1 = n.x1 = n.y1 = -c_dInf;
    double scale = 0;
    for (int k = 0; k < 4; ++k) {
        const double s = n.ux * r.x[k] + n.uy * r.y[k], t = n.ux * r.y[k] - n.uy * r.x[k];
        n.s0 = std::min(n.s0, s), n.s1 = std::max(n.s1, s), n.t0 = std::min(n.t0, t), n.t1 = std::max(n.t1, t);
        n.x0 = std::min(n.x0, r.x[k]), n.x1 = std::max(n.x1, r.x[k]);
        n.y0 = std::min(n.y0, r.y[k]), n.y1 = std::max(n.y1, r.y[k]);
        scale = std::max(scale, std::fabs(r.x[k]) + std::fabs(r.y[k]));
    }
    const double slack = c_dProjectionSlack * scale;
    n.s0 -= slack, n.s1 += slack, n.t0 -= slack, n.t1 += slack;
}

// The parent takes the axis of the child with the longer extent along its axis and holds the
// children's corners.
void EarClippingEdgeIndex::Pull(int node)
{
    const Node& l = m_nodes[static_cast<size_t>(2 * node)];
    const Node& r = m_nodes[static_cast<size_t>(2 * node + 1)];
    Node& out = m_nodes[static_cast<size_t>(node)];
    if (l.maxDx < 0 || r.maxDx < 0) {
        out = l.maxDx < 0 ? r : l;
        out.stale = false;
        return;
    }
    out.stale = false;
    out.maxDx = std::max(l.maxDx, r.maxDx);
    out.maxDy = std::max(l.maxDy, r.maxDy);
    out.unbounded = l.unbounded || r.unbounded;
    if (out.unbounded)
        return;
    const Node& axis = l.s1 - l.s0 >= r.s1 - r.s0 ? l : r;
    out.ux = axis.ux;
    out.uy = axis.uy;
    out.s0 = out.t0 = c_dInf;
    out.s1 = out.t1 = -c_dInf;
    double scale = 0;
    for (const Node* child : {&l, &r}) {
        for (const double s : {child->s0, child->s1})
            for (const double t : {child->t0, child->t1}) {
                const double x = s * child->ux - t * child->uy, y = s * child->uy + t * child->ux;
                const double ps = out.ux * x + out.uy * y, pt = out.ux * y - out.uy * x;
                out.s0 = std::min(out.s0, ps), out.s1 = std::max(out.s1, ps);
                out.t0 = std::min(out.t0, pt), out.t1 = std::max(out.t1, pt);
                scale = std::max(scale, std::fabs(s) + std::fabs(t));
            }
    }
    const double slack = c_dProjectionSlack * scale;
    out.s0 -= slack, out.s1 += slack, out.t0 -= slack, out.t1 += slack;
    out.x0 = std::min(l.x0, r.x0), out.y0 = std::min(l.y0, r.y0);
    out.x1 = std::max(l.x1, r.x1), out.y1 = std::max(l.y1, r.y1);
}

void EarClippingEdgeIndex::Remove(int v)
{
    const int p = m_prev[static_cast<size_t>(v)];
    const int q = m_next[static_cast<size_t>(v)];
    m_next[static_cast<size_t>(p)] = q;
    m_prev[static_cast<size_t>(q)] = p;
    m_next[static_cast<size_t>(v)] = -1;
    m_nodes[static_cast<size_t>(m_leaves + v)].maxDx = -1;
    SetLeaf(p);
    // Stale nodes form paths up from changed leaves, so marking stops at the first stale one.
    for (const int leaf : {v, p})
        for (int node = (m_leaves + leaf) / 2; node >= 1 && !m_nodes[static_cast<size_t>(node)].stale; node /= 2)
            m_nodes[static_cast<size_t>(node)].stale = true;
}

void EarClippingEdgeIndex::Refit(int node)
{
    for (const int child : {2 * node, 2 * node + 1})
        if (child < m_leaves && m_nodes[static_cast<size_t>(child)].stale)
            Refit(child);
    Pull(node);
}

bool EarClippingEdgeIndex::JudgedRight(const t_h2dpoint& a, const t_h2dpoint& b) const
{
    const double width = m_x1 - m_x0, height = m_y1 - m_y0;
    const double adx = std::fabs(double(b.x) - double(a.x)), ady = std::fabs(double(b.y) - double(a.y));
    const auto right = [&](double dx, double dy, const t_h2dpoint& p) {
        const double px = Farthest(p.x, m_x0, m_x1), py = Farthest(p.y, m_y0, m_y1);
        const bool exact = m_integral && dx * py < c_dExactProduct && dy * px < c_dExactProduct;
        return exact || c_dRound * (dx * py + dy * px) + c_dUnderflow <= c_dTolerance;
    };
    return right(adx, ady, a) && right(width, height, a) && right(width, height, b);
}

// Intersect (a, b, c, d) can be true only (DESIGN.md) when
// (i) the reach regions of ab and cd meet (a true crossing, or a Between case), or
// (ii) an end of cd is misjudged against line ab: within errAb / |ab| of that line, or
// (iii) a or b is misjudged against line cd while c and d lie truly on both sides of line ab,
//     the crossing point Y outside ab: then both c and d lie within errCd / |p - Y| of line ab.
// A subtree is skipped when all three are ruled out for every edge in it.
bool EarClippingEdgeIndex::Prunable(const Node& node, const Query& q) const
{
    if (node.unbounded)
        return false;
    const double gap = std::max(std::max(q.x0 - node.x1, node.x0 - q.x1), std::max(q.y0 - node.y1, node.y0 - q.y1));
    if (q.judgedRight && gap > 0)
        return true;  // only (i) is left, and the boxes of the regions are apart
    if (q.length == 0)
        return gap > 0;  // a == b: every area against ab is exactly 0, so only Between can hold
    const double adx = std::fabs(q.dx), ady = std::fabs(q.dy);
    // (ii): an end e of an edge below, judged against ab (anchored at a).
    const double ax = Farthest(q.a.x, node.x0, node.x1), ay = Farthest(q.a.y, node.y0, node.y1);
    const bool exactAb = m_integral && adx * ay < c_dExactProduct && ady * ax < c_dExactProduct;
    const double errAb = c_dRound * (adx * ay + ady * ax) + c_dUnderflow;
    const double misjudgedEnd = !exactAb && errAb > c_dTolerance ? errAb / q.length : 0;
    // Signed distances from line ab (times |ab|) of the box's corners.
    // In the box's frame: side = alpha s + beta t - side(origin), along = beta s - alpha t - ...
    const double alpha = q.dx * node.uy - q.dy * node.ux, beta = q.dx * node.ux + q.dy * node.uy;
    const double sideOrigin = q.dx * q.a.y - q.dy * q.a.x, alongOrigin = q.dx * q.a.x + q.dy * q.a.y;
    const double as0 = alpha * node.s0, as1 = alpha * node.s1, bt0 = beta * node.t0, bt1 = beta * node.t1;
    const double lowest = std::min(as0, as1) + std::min(bt0, bt1) - sideOrigin;
    const double highest = std::max(as0, as1) + std::max(bt0, bt1) - sideOrigin;
    const double roundoff = c_dProjectionSlack * q.length *
                            (std::fabs(q.a.x) + std::fabs(q.a.y) + std::fabs(node.s0) + std::fabs(node.s1) +
                             std::fabs(node.t0) + std::fabs(node.t1));
    const auto beyond = [&](double width) {
        const double limit = width * q.length * c_dSlack + roundoff;
        return lowest > limit || highest < -limit;
    };
    if (beyond(std::max(q.onLine, misjudgedEnd)))
        return true;
    if (misjudgedEnd > 0 && !beyond(misjudgedEnd))
        return false;
    // (i) by separating axes: the boxes, the box's two axes, and ab's direction.
    bool apart = gap > 0;
    if (!apart && q.bounded) {
        double qs0 = c_dInf, qs1 = -c_dInf, qt0 = c_dInf, qt1 = -c_dInf, qa0 = c_dInf, qa1 = -c_dInf;
        for (int k = 0; k < 4; ++k) {
            const double x = q.reach.x[k], y = q.reach.y[k];
            const double s = node.ux * x + node.uy * y, t = node.ux * y - node.uy * x;
            const double along = q.dx * (x - q.a.x) + q.dy * (y - q.a.y);
            qs0 = std::min(qs0, s), qs1 = std::max(qs1, s), qt0 = std::min(qt0, t), qt1 = std::max(qt1, t);
            qa0 = std::min(qa0, along), qa1 = std::max(qa1, along);
        }
        const double slack = c_dProjectionSlack * (std::fabs(q.a.x) + std::fabs(q.a.y) + std::fabs(q.dx) + std::fabs(q.dy));
        const double bs0 = beta * node.s0, bs1 = beta * node.s1, at0 = alpha * node.t0, at1 = alpha * node.t1;
        const double along0 = std::min(bs0, bs1) - std::max(at0, at1) - alongOrigin;
        const double along1 = std::max(bs0, bs1) - std::min(at0, at1) - alongOrigin;
        apart = qs1 + slack < node.s0 || qs0 - slack > node.s1 || qt1 + slack < node.t0 || qt0 - slack > node.t1 ||
                qa1 + roundoff < along0 || qa0 - roundoff > along1;
    }
    if (!apart)
        return false;
    // (iii): a or b judged against an edge c-d below (anchored at c), at least `reach` from
    // the crossing point, which lies in this subtree's regions.
    double crossingEnds = 0;
    for (const t_h2dpoint& p : {q.a, q.b}) {
        const double px = Farthest(p.x, node.x0, node.x1), py = Farthest(p.y, node.y0, node.y1);
        const bool exact = m_integral && node.maxDx * py < c_dExactProduct && node.maxDy * px < c_dExactProduct;
        const double err = c_dRound * (node.maxDx * py + node.maxDy * px) + c_dUnderflow;
        if (exact || err <= c_dTolerance)
            continue;
        const double ps = node.ux * p.x + node.uy * p.y, pt = node.ux * p.y - node.uy * p.x;
        const double reach = std::max(std::max(gap, std::max(node.s0 - ps, ps - node.s1)),
                                      std::max(node.t0 - pt, pt - node.t1)) /
                             c_dSlack;
        if (!(reach > 0))
            return false;
        crossingEnds = std::max(crossingEnds, err / reach);
    }
    return crossingEnds == 0 || beyond(crossingEnds);
}

bool EarClippingEdgeIndex::AnyEdgeHits(const CHSimpleBasisFcns& fcns, int ia, int ib)
{
    const t_h2dpoint a = m_points[static_cast<size_t>(ia)];
    const t_h2dpoint b = m_points[static_cast<size_t>(ib)];
    Query q;
    q.a = a;
    q.b = b;
    q.bounded = ReachOf(a, b, q.reach);
    if (q.bounded) {
        q.x0 = std::min(std::min(q.reach.x[0], q.reach.x[1]), std::min(q.reach.x[2], q.reach.x[3]));
        q.x1 = std::max(std::max(q.reach.x[0], q.reach.x[1]), std::max(q.reach.x[2], q.reach.x[3]));
        q.y0 = std::min(std::min(q.reach.y[0], q.reach.y[1]), std::min(q.reach.y[2], q.reach.y[3]));
        q.y1 = std::max(std::max(q.reach.y[0], q.reach.y[1]), std::max(q.reach.y[2], q.reach.y[3]));
    } else {
        q.x0 = -c_dInf, q.x1 = c_dInf, q.y0 = q.y1 = a.y;
    }
    q.dx = double(b.x) - double(a.x);
    q.dy = double(b.y) - double(a.y);
    q.length = std::sqrt(q.dx * q.dx + q.dy * q.dy);
    q.onLine = q.length > 0 ? OnLineArea(q.dx, q.dy) / q.length : 0;
    q.judgedRight = JudgedRight(a, b);
    // Nodes over an edge that ends in a or b hold a point of ab's reach region, so no test
    // could skip them; they are opened untested (and need no fit).
    const int ends[4] = {m_leaves + ia, m_leaves + m_prev[static_cast<size_t>(ia)], m_leaves + ib,
                         m_leaves + m_prev[static_cast<size_t>(ib)]};
    int stack[64];
    int top = 0;
    stack[top++] = 1;
    while (top > 0) {
        const int node = stack[--top];
        const int shift = m_depth + 1 - std::bit_width(static_cast<unsigned>(node));  // 0 at a leaf
        const bool holdsEnd = (ends[0] >> shift) == node || (ends[1] >> shift) == node ||
                              (ends[2] >> shift) == node || (ends[3] >> shift) == node;
        if (!holdsEnd) {  // (a node holding an end holds a ring edge, so it is not empty)
            const Node& n = m_nodes[static_cast<size_t>(node)];
            if (n.maxDx < 0)
                continue;
            if (n.stale) {
                Refit(node);
                if (n.maxDx < 0)
                    continue;
            }
            if (Prunable(n, q))
                continue;
        }
        if (shift <= c_iScanLevels) {
            const int first = (node << shift) - m_leaves;
            const int last = std::min(first + (1 << shift), static_cast<int>(m_next.size()));
            for (int c = first; c < last; ++c) {
                const int d = m_next[static_cast<size_t>(c)];
                if (d < 0 || c == ia || c == ib || d == ia || d == ib)
                    continue;
                const t_h2dpoint pc = m_points[static_cast<size_t>(c)], pd = m_points[static_cast<size_t>(d)];
                if (EarClippingEdgeHits(fcns, a, b, pc, pd, EarClippingArea(a, b, pc), EarClippingArea(a, b, pd)))
                    return true;
            }
            continue;
        }
        stack[top++] = 2 * node + 1;
        stack[top++] = 2 * node;
    }
    return false;
}

}  // namespace qzsse::detail
