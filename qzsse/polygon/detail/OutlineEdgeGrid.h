#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

namespace qzsse::detail {

// A closed outline as the float arrays of a polygon.
struct OutlineArrays {
    const float* x;
    const float* y;
    const float* z;
    int n;
};

// The closed outlines' edges binned by their XY boxes into a uniform grid of about one cell
// per edge, so that the edges near a point or a box are found without scanning them all.
// Edge e of the outlines together is edge e - first(o) of outline o.
class OutlineEdgeGrid {
public:
    // margin widens the grid's box, so that queries up to that far outside stay on the grid.
    OutlineEdgeGrid(const std::vector<OutlineArrays>& outlines, double margin);

    int EdgeCount() const { return static_cast<int>(m_edges.size()); }
    int OutlineOf(int edge) const { return m_edges[static_cast<size_t>(edge)].outline; }
    // The edge's index within its outline, which is also that of its start point.
    int IndexOf(int edge) const { return m_edges[static_cast<size_t>(edge)].index; }

    // Calls visit(edge) once for every edge whose box meets [x0, x1] x [y0, y1] (and maybe a
    // few more nearby).
    template <class Visit>
    void ForEachEdgeNear(double x0, double y0, double x1, double y1, Visit visit);

    struct Nearest {
        int outline = -1;
        int edge = -1;   // within the outline
        double t = 0.0;  // parameter of the nearest point on the edge
        double distance2 = 0.0;
    };
    // The point of the outlines nearest to (px, py) in XY; the first edge (lowest outline, then
    // lowest index) among equally near ones. outline -1 when there are no edges.
    Nearest NearestPoint(double px, double py) const;

private:
    struct Edge {
        double x0, y0, x1, y1;
        int outline, index;
    };
    int cellX(double x) const;
    int cellY(double y) const;

    std::vector<Edge> m_edges;
    std::vector<int> m_cellStart; // m_cols * m_rows + 1 offsets into m_cellEdges
    std::vector<int> m_cellEdges;
    std::vector<std::uint32_t> m_stamp; // per edge, for ForEachEdgeNear's de-duplication
    std::uint32_t m_visit = 0;
    double m_minX = 0.0, m_minY = 0.0, m_cell = 1.0;
    int m_cols = 1, m_rows = 1;
};

template <class Visit>
void OutlineEdgeGrid::ForEachEdgeNear(double x0, double y0, double x1, double y1, Visit visit)
{
    if (m_edges.empty())
        return;
    if (++m_visit == 0) {
        std::fill(m_stamp.begin(), m_stamp.end(), 0u);
        m_visit = 1;
    }
    const int cx0 = cellX(x0), cx1 = cellX(x1), cy0 = cellY(y0), cy1 = cellY(y1);
    for (int cy = cy0; cy <= cy1; ++cy)
        for (int cx = cx0; cx <= cx1; ++cx) {
            const int cell = cy * m_cols + cx;
            for (int k = m_cellStart[static_cast<size_t>(cell)]; k < m_cellStart[static_cast<size_t>(cell) + 1]; ++k) {
                const int e = m_cellEdges[static_cast<size_t>(k)];
                if (m_stamp[static_cast<size_t>(e)] == m_visit)
                    continue;
                m_stamp[static_cast<size_t>(e)] = m_visit;
                visit(e);
            }
        }
}

} // namespace qzsse::detail
