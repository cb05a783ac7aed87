#include "qzsse/polygon/detail/OutlineEdgeGrid.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace qzsse::detail {

namespace {

// Squared distance from p to the segment a-b and the parameter of the nearest point.
double SegmentDistance2(double px, double py, double ax, double ay, double bx, double by, double& t)
{
    const double vx = bx - ax, vy = by - ay;
    const double len2 = vx * vx + vy * vy;
    t = 0.0;
    if (len2 > 0.0) {
        t = ((px - ax) * vx + (py - ay) * vy) / len2;
        t = t < 0.0 ? 0.0 : (t > 1.0 ? 1.0 : t);
    }
    const double dx = ax + t * vx - px, dy = ay + t * vy - py;
    return dx * dx + dy * dy;
}

} // namespace

OutlineEdgeGrid::OutlineEdgeGrid(const std::vector<OutlineArrays>& outlines, double margin)
{
    double minX = std::numeric_limits<double>::infinity(), minY = minX, maxX = -minX, maxY = -minX;
    for (int o = 0; o < static_cast<int>(outlines.size()); ++o) {
        const OutlineArrays& a = outlines[static_cast<size_t>(o)];
        for (int i = 0; i < a.n; ++i) {
            const int j = i + 1 == a.n ? 0 : i + 1;
            m_edges.push_back({a.x[i], a.y[i], a.x[j], a.y[j], o, i});
            minX = std::min(minX, static_cast<double>(a.x[i]));
            maxX = std::max(maxX, static_cast<double>(a.x[i]));
            minY = std::min(minY, static_cast<double>(a.y[i]));
            maxY = std::max(maxY, static_cast<double>(a.y[i]));
        }
    }
    if (m_edges.empty())
        return;
    minX -= margin;
    minY -= margin;
    maxX += margin;
    maxY += margin;
    // About one cell per edge over the box.
    const double w = maxX - minX, h = maxY - minY;
    const double area = std::max(w * h, 1e-300);
    m_cell = std::sqrt(area / static_cast<double>(m_edges.size()));
    if (!(m_cell > 0.0))
        m_cell = std::max(std::max(w, h), 1.0);
    m_cols = static_cast<int>(std::min(4096.0, std::floor(w / m_cell) + 1.0));
    m_rows = static_cast<int>(std::min(4096.0, std::floor(h / m_cell) + 1.0));
    m_cell = std::max(w / m_cols, h / m_rows);
    if (!(m_cell > 0.0))
        m_cell = 1.0;
    m_minX = minX;
    m_minY = minY;

    // Counting sort of (cell, edge) pairs.
    m_cellStart.assign(static_cast<size_t>(m_cols) * static_cast<size_t>(m_rows) + 1, 0);
    const auto forCells = [&](const Edge& e, auto f) {
        const int cx0 = cellX(std::min(e.x0, e.x1)), cx1 = cellX(std::max(e.x0, e.x1));
        const int cy0 = cellY(std::min(e.y0, e.y1)), cy1 = cellY(std::max(e.y0, e.y1));
        for (int cy = cy0; cy <= cy1; ++cy)
            for (int cx = cx0; cx <= cx1; ++cx)
                f(cy * m_cols + cx);
    };
    for (const Edge& e : m_edges)
        forCells(e, [&](int cell) { ++m_cellStart[static_cast<size_t>(cell) + 1]; });
    for (size_t c = 1; c < m_cellStart.size(); ++c)
        m_cellStart[c] += m_cellStart[c - 1];
    m_cellEdges.resize(static_cast<size_t>(m_cellStart.back()));
    std::vector<int> fill(m_cellStart.begin(), m_cellStart.end() - 1);
    for (int k = 0; k < static_cast<int>(m_edges.size()); ++k)
        forCells(m_edges[static_cast<size_t>(k)],
                 [&](int cell) { m_cellEdges[static_cast<size_t>(fill[static_cast<size_t>(cell)]++)] = k; });
    m_stamp.assign(m_edges.size(), 0u);
}

int OutlineEdgeGrid::cellX(double x) const
{
    const double c = std::floor((x - m_minX) / m_cell);
    return c < 0.0 ? 0 : (c >= m_cols ? m_cols - 1 : static_cast<int>(c));
}

int OutlineEdgeGrid::cellY(double y) const
{
    const double c = std::floor((y - m_minY) / m_cell);
    return c < 0.0 ? 0 : (c >= m_rows ? m_rows - 1 : static_cast<int>(c));
}

// Searches rings of cells around the point's cell, growing until no cell further out can
// hold anything nearer than what was found.
OutlineEdgeGrid::Nearest OutlineEdgeGrid::NearestPoint(double px, double py) const
{
    Nearest best;
    if (m_edges.empty())
        return best;
    best.distance2 = std::numeric_limits<double>::infinity();
    int bestEdge = -1;
    const int cx = cellX(px), cy = cellY(py);
    // A point off the grid starts its lower bound at its distance to the grid's box.
    const double offX = std::max({m_minX - px, px - (m_minX + m_cols * m_cell), 0.0});
    const double offY = std::max({m_minY - py, py - (m_minY + m_rows * m_cell), 0.0});
    const double off = std::max(offX, offY);
    const int maxRing = std::max(m_cols, m_rows);
    for (int ring = 0; ring <= maxRing; ++ring) {
        for (int y = cy - ring; y <= cy + ring; ++y) {
            if (y < 0 || y >= m_rows)
                continue;
            const bool edgeRow = (y == cy - ring || y == cy + ring);
            for (int x = cx - ring; x <= cx + ring; x += (edgeRow || ring == 0) ? 1 : 2 * ring) {
                if (x < 0 || x >= m_cols)
                    continue;
                const int cell = y * m_cols + x;
                for (int k = m_cellStart[static_cast<size_t>(cell)]; k < m_cellStart[static_cast<size_t>(cell) + 1]; ++k) {
                    const int e = m_cellEdges[static_cast<size_t>(k)];
                    const Edge& g = m_edges[static_cast<size_t>(e)];
                    double t;
                    const double d2 = SegmentDistance2(px, py, g.x0, g.y0, g.x1, g.y1, t);
                    if (d2 < best.distance2 || (d2 == best.distance2 && e < bestEdge)) {
                        best.distance2 = d2;
                        best.t = t;
                        bestEdge = e;
                    }
                }
            }
        }
        // Cells of the next ring lie at least ring cells (plus the offset) away.
        const double bound = off + ring * m_cell;
        if (bestEdge >= 0 && best.distance2 < bound * bound)
            break;
    }
    best.outline = m_edges[static_cast<size_t>(bestEdge)].outline;
    best.edge = m_edges[static_cast<size_t>(bestEdge)].index;
    return best;
}

} // namespace qzsse::detail
