#include "qzsse/geometry/detail/EarClippingEdgeIndex.h"

#include <algorithm>
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

// Where a point must lie for Between(c, d, point) to hold: the segment's box, widened across
// the segment's direction by the tolerance over the run, since with c.x != d.x only the x
// range is checked (the y range when vertical; the line y = c.y for c == d).
struct Reach {
    double x0, y0, x1, y1;
};

Reach ReachBox(const t_h2dpoint& c, const t_h2dpoint& d)
{
    const double dx = std::fabs(double(d.x) - double(c.x));
    const double dy = std::fabs(double(d.y) - double(c.y));
    Reach r{std::min<double>(c.x, d.x), std::min<double>(c.y, d.y), std::max<double>(c.x, d.x),
            std::max<double>(c.y, d.y)};
    if (dx != 0) {
        const double t = (c_dTolerance + c_dUnderflow + 2 * c_dRound * dx * dy) / (1 - c_dRound);
        const double m = t / dx * c_dSlack;
        r.y0 -= m;
        r.y1 += m;
    } else if (dy != 0) {
        const double m = (c_dTolerance + c_dUnderflow) / ((1 - c_dRound) * dy) * c_dSlack;
        r.x0 -= m;
        r.x1 += m;
    } else {
        r.x0 = -c_dInf;
        r.x1 = c_dInf;
    }
    return r;
}

double Farthest(double v, double lo, double hi)
{
    return std::max(std::fabs(lo - v), std::fabs(hi - v));
}

}  // namespace

bool EarClippingEdgeIndex::Build(const t_hvertex* vertices, int n)
{
    m_points.resize(static_cast<size_t>(n));
    m_next.resize(static_cast<size_t>(n));
    m_prev.resize(static_cast<size_t>(n));
    m_integral = true;
    for (int i = 0; i < n; ++i) {
        const t_h2dpoint p = vertices[i].position;
        if (!(std::fabs(p.x) <= c_dLargest && std::fabs(p.y) <= c_dLargest))
            return false;
        m_integral = m_integral && p.x == std::nearbyint(p.x) && p.y == std::nearbyint(p.y) &&
                     std::fabs(p.x) <= 0x1p22f && std::fabs(p.y) <= 0x1p22f;
        m_points[static_cast<size_t>(i)] = p;
        m_next[static_cast<size_t>(i)] = i + 1 < n ? i + 1 : 0;
        m_prev[static_cast<size_t>(i)] = i > 0 ? i - 1 : n - 1;
    }
    m_leaves = 1;
    while (m_leaves < n)
        m_leaves *= 2;
    m_nodes.assign(static_cast<size_t>(2 * m_leaves), Node{{0, 0, 0, 0}, -1, -1});
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
    const Reach r = ReachBox(c, d);
    m_nodes[static_cast<size_t>(m_leaves + i)] = {{r.x0, r.y0, r.x1, r.y1},
                                                  std::fabs(double(d.x) - double(c.x)),
                                                  std::fabs(double(d.y) - double(c.y))};
}

void EarClippingEdgeIndex::Pull(int node)
{
    const Node& l = m_nodes[static_cast<size_t>(2 * node)];
    const Node& r = m_nodes[static_cast<size_t>(2 * node + 1)];
    Node& out = m_nodes[static_cast<size_t>(node)];
    if (l.maxDx < 0 || r.maxDx < 0) {
        out = l.maxDx < 0 ? r : l;
        return;
    }
    out.box = {std::min(l.box.x0, r.box.x0), std::min(l.box.y0, r.box.y0), std::max(l.box.x1, r.box.x1),
               std::max(l.box.y1, r.box.y1)};
    out.maxDx = std::max(l.maxDx, r.maxDx);
    out.maxDy = std::max(l.maxDy, r.maxDy);
}

void EarClippingEdgeIndex::Remove(int v)
{
    const int p = m_prev[static_cast<size_t>(v)];
    const int q = m_next[static_cast<size_t>(v)];
    m_next[static_cast<size_t>(p)] = q;
    m_prev[static_cast<size_t>(q)] = p;
    m_nodes[static_cast<size_t>(m_leaves + v)].maxDx = -1;
    SetLeaf(p);
    for (int node = (m_leaves + v) / 2; node >= 1; node /= 2)
        Pull(node);
    for (int node = (m_leaves + p) / 2; node >= 1; node /= 2)
        Pull(node);
}

// A subtree is skipped only when it lies apart from the query's reach box (ruling out the
// Between cases and a true crossing) and, where the rounding bound allows a misjudged side,
// also farther from the line ab than any misjudged end could be.
bool EarClippingEdgeIndex::Prunable(const Node& node, const t_h2dpoint& a, const t_h2dpoint& b, const Box& query,
                                    double dx, double dy, double length) const
{
    const Box& box = node.box;
    if (!(std::isfinite(box.x0) && std::isfinite(box.x1)))
        return false;
    const double gap = std::max(std::max(query.x0 - box.x1, box.x0 - query.x1),
                                std::max(query.y0 - box.y1, box.y0 - query.y1));
    if (!(gap > 0))
        return false;
    if (length == 0)
        return true;  // a == b: every area against ab is exactly 0, so only Between can hold
    const double adx = std::fabs(dx), ady = std::fabs(dy);
    // An end e of an edge below, judged against ab (anchored at a).
    const double ax = Farthest(a.x, box.x0, box.x1), ay = Farthest(a.y, box.y0, box.y1);
    double width = 0;
    const bool exactAb = m_integral && adx * ay < c_dExactProduct && ady * ax < c_dExactProduct;
    const double errAb = c_dRound * (adx * ay + ady * ax) + c_dUnderflow;
    if (!exactAb && errAb > c_dTolerance)
        width = errAb / length;
    // a or b judged against an edge c-d below (anchored at c).
    const double bx = Farthest(b.x, box.x0, box.x1), by = Farthest(b.y, box.y0, box.y1);
    const double px = std::max(ax, bx), py = std::max(ay, by);
    const bool exactCd = m_integral && node.maxDx * py < c_dExactProduct && node.maxDy * px < c_dExactProduct;
    const double errCd = c_dRound * (node.maxDx * py + node.maxDy * px) + c_dUnderflow;
    if (!exactCd && errCd > c_dTolerance)
        width = std::max(width, errCd / gap);
    if (width == 0)
        return true;
    // Signed distances times the length, with room for their own double rounding.
    const double limit = width * length * c_dSlack + 1e-14 * (adx * ay + ady * ax);
    const auto side = [&](double x, double y) { return dx * (y - a.y) - dy * (x - a.x); };
    const double s0 = side(box.x0, box.y0), s1 = side(box.x1, box.y0);
    const double s2 = side(box.x0, box.y1), s3 = side(box.x1, box.y1);
    return std::min(std::min(s0, s1), std::min(s2, s3)) > limit ||
           std::max(std::max(s0, s1), std::max(s2, s3)) < -limit;
}

bool EarClippingEdgeIndex::AnyEdgeHits(const CHSimpleBasisFcns& fcns, int ia, int ib) const
{
    const t_h2dpoint a = m_points[static_cast<size_t>(ia)];
    const t_h2dpoint b = m_points[static_cast<size_t>(ib)];
    const Reach r = ReachBox(a, b);
    const Box query{r.x0, r.y0, r.x1, r.y1};
    const double dx = double(b.x) - double(a.x), dy = double(b.y) - double(a.y);
    const double length = std::sqrt(dx * dx + dy * dy);
    int stack[64];
    int top = 0;
    stack[top++] = 1;
    while (top > 0) {
        const int node = stack[--top];
        const Node& n = m_nodes[static_cast<size_t>(node)];
        if (n.maxDx < 0)
            continue;
        if (node >= m_leaves) {
            const int c = node - m_leaves;
            const int d = m_next[static_cast<size_t>(c)];
            if (c == ia || c == ib || d == ia || d == ib)
                continue;
            if (fcns.Intersect(a, b, m_points[static_cast<size_t>(c)], m_points[static_cast<size_t>(d)]))
                return true;
            continue;
        }
        if (Prunable(n, a, b, query, dx, dy, length))
            continue;
        stack[top++] = 2 * node + 1;
        stack[top++] = 2 * node;
    }
    return false;
}

}  // namespace qzsse::detail
