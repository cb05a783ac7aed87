#include "qzsse/geometry/CHDecideRyTriInRyTri.h"

#include <algorithm>
#include <array>
#include <cmath>

#include "qzsse/geometry/detail/DecideRyTriInRyTriPredicates.h"
#include "qzsse/geometry/detail/ExactIntegerSign.h"
#include "qzsse/mesh/CHTriangulation.h"

using qzsse::detail::OrientationSign2;
using qzsse::detail::OrientationSign3;

namespace {

// Sign of orient2(u, v, p + (e, e^2)) in xy for an infinitesimal e: the exact sign, or when
// p is on the line the first non-zero term of the shift (-(v.y - u.y) e, then (v.x - u.x) e^2).
int shiftedSide(const long long u[3], const long long v[3], const long long p[3])
{
    const int s = OrientationSign2(u[0], u[1], v[0], v[1], p[0], p[1]);
    if (s != 0)
        return s;
    if (v[1] != u[1])
        return v[1] > u[1] ? -1 : 1;
    return v[0] > u[0] ? 1 : (v[0] < u[0] ? -1 : 0);
}

} // namespace

CHDecideRyTriInRyTri::CHDecideRyTriInRyTri(const CHTriangulation* mesh, double scale) : m_dScale(scale)
{
    const int n = mesh != nullptr ? std::max(0, mesh->GetNumTriangles()) : 0;
    m_triangles.resize(static_cast<size_t>(n));
    const t_htriangle* records = n > 0 ? mesh->GetTriangles() : nullptr;
    std::vector<std::array<long long, 6>> edges;
    edges.reserve(static_cast<size_t>(n) * 3);
    for (int t = 0; t < n; ++t) {
        Triangle& tri = m_triangles[static_cast<size_t>(t)];
        for (int k = 0; k < 3; ++k)
            tri.c[k] = snap(*records[t].pPoint[k]);
        for (int a = 0; a < 3; ++a) {
            tri.lo[a] = std::min({tri.c[0].v[a], tri.c[1].v[a], tri.c[2].v[a]});
            tri.hi[a] = std::max({tri.c[0].v[a], tri.c[1].v[a], tri.c[2].v[a]});
        }
        tri.orient = OrientationSign2(tri.c[0].v[0], tri.c[0].v[1], tri.c[1].v[0], tri.c[1].v[1], tri.c[2].v[0],
                                      tri.c[2].v[1]);
        tri.flat = qzsse::detail::Collinear3(tri.c[0].v, tri.c[1].v, tri.c[2].v);
        for (int k = 0; k < 3; ++k) {
            const Corner& u = tri.c[k];
            const Corner& v = tri.c[(k + 1) % 3];
            const bool less = std::lexicographical_compare(u.v, u.v + 3, v.v, v.v + 3);
            const Corner& first = less ? u : v;
            const Corner& second = less ? v : u;
            if (std::equal(u.v, u.v + 3, v.v))
                continue;
            edges.push_back({first.v[0], first.v[1], first.v[2], second.v[0], second.v[1], second.v[2]});
        }
        if (t == 0) {
            m_lo[0] = tri.lo[0], m_lo[1] = tri.lo[1], m_hi[0] = tri.hi[0], m_hi[1] = tri.hi[1];
        }
        for (int a = 0; a < 2; ++a) {
            m_lo[a] = std::min(m_lo[a], tri.lo[a]);
            m_hi[a] = std::max(m_hi[a], tri.hi[a]);
        }
    }
    std::sort(edges.begin(), edges.end());
    for (size_t i = 0; i < edges.size();) {
        size_t j = i;
        while (j < edges.size() && edges[j] == edges[i])
            ++j;
        if ((j - i) % 2 != 0) {
            m_bClosed = false;
            break;
        }
        i = j;
    }
    std::vector<std::array<long long, 6>>().swap(edges);

    // Uniform grid over xy with about one cell per triangle; a triangle is listed in every
    // cell its box overlaps.
    const double side = std::max(1.0, std::floor(std::sqrt(static_cast<double>(n))));
    m_nCellsX = m_nCellsY = static_cast<int>(side);
    m_cellStart.assign(static_cast<size_t>(m_nCellsX) * static_cast<size_t>(m_nCellsY) + 1, 0);
    for (int pass = 0; pass < 2; ++pass) {
        for (int t = 0; t < n; ++t) {
            const Triangle& tri = m_triangles[static_cast<size_t>(t)];
            const int x0 = cellX(tri.lo[0]), x1 = cellX(tri.hi[0]), y0 = cellY(tri.lo[1]), y1 = cellY(tri.hi[1]);
            for (int y = y0; y <= y1; ++y)
                for (int x = x0; x <= x1; ++x) {
                    const size_t cell = static_cast<size_t>(y) * static_cast<size_t>(m_nCellsX) + static_cast<size_t>(x);
                    if (pass == 0)
                        ++m_cellStart[cell + 1];
                    else
                        m_cellTriangles[static_cast<size_t>(m_cellStart[cell]++)] = t;
                }
        }
        if (pass == 0) {
            for (size_t c = 1; c < m_cellStart.size(); ++c)
                m_cellStart[c] += m_cellStart[c - 1];
            m_cellTriangles.resize(static_cast<size_t>(m_cellStart.back()));
        } else {
            // The second pass moved every start to the next cell's; shift them back.
            for (size_t c = m_cellStart.size() - 1; c > 0; --c)
                m_cellStart[c] = m_cellStart[c - 1];
            m_cellStart[0] = 0;
        }
    }
}

CHDecideRyTriInRyTri::Corner CHDecideRyTriInRyTri::snap(const SSEPoint& p) const
{
    return {{static_cast<long long>(static_cast<double>(p.x) * m_dScale + 0.5),
             static_cast<long long>(static_cast<double>(p.y) * m_dScale + 0.5),
             static_cast<long long>(static_cast<double>(p.z) * m_dScale + 0.5)}};
}

int CHDecideRyTriInRyTri::cellX(long long x) const
{
    const double f = static_cast<double>(x - m_lo[0]) / (static_cast<double>(m_hi[0] - m_lo[0]) + 1.0);
    return std::clamp(static_cast<int>(f * m_nCellsX), 0, m_nCellsX - 1);
}

int CHDecideRyTriInRyTri::cellY(long long y) const
{
    const double f = static_cast<double>(y - m_lo[1]) / (static_cast<double>(m_hi[1] - m_lo[1]) + 1.0);
    return std::clamp(static_cast<int>(f * m_nCellsY), 0, m_nCellsY - 1);
}

void CHDecideRyTriInRyTri::candidates(const long long lo[3], const long long hi[3], std::vector<int>& out) const
{
    out.clear();
    if (m_triangles.empty())
        return;
    const int x0 = cellX(lo[0]), x1 = cellX(hi[0]), y0 = cellY(lo[1]), y1 = cellY(hi[1]);
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) {
            const size_t cell = static_cast<size_t>(y) * static_cast<size_t>(m_nCellsX) + static_cast<size_t>(x);
            for (int i = m_cellStart[cell]; i < m_cellStart[cell + 1]; ++i) {
                const Triangle& t = m_triangles[static_cast<size_t>(m_cellTriangles[static_cast<size_t>(i)])];
                if (t.lo[0] <= hi[0] && t.hi[0] >= lo[0] && t.lo[1] <= hi[1] && t.hi[1] >= lo[1] &&
                    t.lo[2] <= hi[2] && t.hi[2] >= lo[2])
                    out.push_back(m_cellTriangles[static_cast<size_t>(i)]);
            }
        }
    std::sort(out.begin(), out.end());
    out.erase(std::unique(out.begin(), out.end()), out.end());
}

int CHDecideRyTriInRyTri::decideSnapped(const Corner& point) const
{
    if (!m_bClosed)
        return c_iNotClosed;
    const long long* p = point.v;
    if (m_triangles.empty() || p[0] < m_lo[0] || p[0] > m_hi[0] || p[1] < m_lo[1] || p[1] > m_hi[1])
        return -1;
    const size_t cell = static_cast<size_t>(cellY(p[1])) * static_cast<size_t>(m_nCellsX) +
                        static_cast<size_t>(cellX(p[0]));
    int parity = 0;
    for (int i = m_cellStart[cell]; i < m_cellStart[cell + 1]; ++i) {
        const Triangle& t = m_triangles[static_cast<size_t>(m_cellTriangles[static_cast<size_t>(i)])];
        if (p[0] < t.lo[0] || p[0] > t.hi[0] || p[1] < t.lo[1] || p[1] > t.hi[1])
            continue;
        if (p[2] >= t.lo[2] && p[2] <= t.hi[2] && qzsse::detail::PointInTriangle3(p, t.c[0].v, t.c[1].v, t.c[2].v))
            return 0;
        if (t.orient == 0 || shiftedSide(t.c[0].v, t.c[1].v, p) != t.orient ||
            shiftedSide(t.c[1].v, t.c[2].v, p) != t.orient || shiftedSide(t.c[2].v, t.c[0].v, p) != t.orient)
            continue;
        // The shifted ray passes through the triangle; it counts when the triangle is above.
        if (p[2] < t.lo[2] || (p[2] <= t.hi[2] && OrientationSign3(t.c[0].v, t.c[1].v, t.c[2].v, p) == t.orient))
            parity ^= 1;
    }
    return parity != 0 ? 1 : -1;
}

int CHDecideRyTriInRyTri::DecidePoint(const SSEPoint& p) const
{
    return decideSnapped(snap(p));
}

int CHDecideRyTriInRyTri::DecideTriangle(const SSEPoint& a, const SSEPoint& b, const SSEPoint& c) const
{
    const Corner q[3] = {snap(a), snap(b), snap(c)};
    const int side = decideSnapped(q[0]);
    if (side == c_iNotClosed || side == 0 || decideSnapped(q[1]) != side || decideSnapped(q[2]) != side)
        return side == c_iNotClosed ? c_iNotClosed : 0;
    long long lo[3], hi[3];
    for (int k = 0; k < 3; ++k) {
        lo[k] = std::min({q[0].v[k], q[1].v[k], q[2].v[k]});
        hi[k] = std::max({q[0].v[k], q[1].v[k], q[2].v[k]});
    }
    std::vector<int> near;
    candidates(lo, hi, near);
    for (const int i : near) {
        const Triangle& t = m_triangles[static_cast<size_t>(i)];
        if (!t.flat && qzsse::detail::TrianglesMeet(q[0].v, q[1].v, q[2].v, t.c[0].v, t.c[1].v, t.c[2].v))
            return 0;
    }
    return side;
}

int CHDecideRyTriInRyTri::DecideTriangulation(const CHTriangulation* mesh) const
{
    if (!m_bClosed)
        return c_iNotClosed;
    const int n = mesh != nullptr ? mesh->GetNumTriangles() : 0;
    int side = 1;
    for (int t = 0; t < n; ++t) {
        const t_htriangle& tri = mesh->GetTriangles()[t];
        const int s = DecideTriangle(*tri.pPoint[0], *tri.pPoint[1], *tri.pPoint[2]);
        if (s == 0 || (t > 0 && s != side))
            return 0;
        side = s;
    }
    return side;
}
