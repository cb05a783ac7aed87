#include "qzsse/polygon/detail/ClipperConversion.h"

#include <cmath>

#include "qzsse/polygon/CSSE3dPolygon.h"

namespace qzsse::detail {

namespace {

double ChooseScale(const std::vector<OutlineArrays>& outlines, double margin)
{
    double largest = 0.0;
    for (const OutlineArrays& a : outlines)
        for (int i = 0; i < a.n; ++i)
            largest = std::max({largest, std::fabs(static_cast<double>(a.x[i])), std::fabs(static_cast<double>(a.y[i]))});
    largest += std::fabs(margin);
    int exponent = 0;
    std::frexp(std::max(largest, 1e-30), &exponent); // largest < 2^exponent
    return std::ldexp(1.0, 29 - exponent);
}

} // namespace

ClipperFrame::ClipperFrame(const std::vector<OutlineArrays>& outlines, double margin)
    : m_outlines(outlines), m_margin(std::fabs(margin) + 1.0), m_scale(ChooseScale(outlines, margin))
{
    const float* first = nullptr;
    for (const OutlineArrays& a : outlines)
        for (int i = 0; i < a.n && m_commonZ; ++i) {
            if (!first)
                first = &a.z[i];
            m_commonZ = a.z[i] == *first;
        }
}

ClipperFrame::~ClipperFrame() = default;

OutlineEdgeGrid& ClipperFrame::grid()
{
    if (!m_grid)
        m_grid = std::make_unique<OutlineEdgeGrid>(m_outlines, m_margin);
    return *m_grid;
}

ClipperLib::Path ClipperFrame::ToPath(const OutlineArrays& outline) const
{
    ClipperLib::Path path(static_cast<size_t>(outline.n));
    for (int i = 0; i < outline.n; ++i)
        path[static_cast<size_t>(i)] =
            ClipperLib::IntPoint(std::llround(static_cast<double>(outline.x[i]) * m_scale),
                                 std::llround(static_cast<double>(outline.y[i]) * m_scale));
    return path;
}

bool ClipperFrame::atVertex(const ClipperLib::IntPoint& p, int outline, int index) const
{
    const OutlineArrays& a = m_outlines[static_cast<size_t>(outline)];
    return std::llround(static_cast<double>(a.x[index]) * m_scale) == p.X &&
           std::llround(static_cast<double>(a.y[index]) * m_scale) == p.Y;
}

// The clipper walks the input outlines in order (either way round), so a kept vertex is
// usually a neighbour of the one before it; only the others need the grid.
void ClipperFrame::ToPolygon(const ClipperLib::Path& path, CSSE3dPolygon& out, bool keepVertices)
{
    const int n = static_cast<int>(path.size());
    out.Create(n);
    const double inverse = 1.0 / m_scale;
    int lastOutline = -1, lastIndex = 0;
    for (int i = 0; i < n; ++i) {
        const ClipperLib::IntPoint& q = path[static_cast<size_t>(i)];
        const double px = static_cast<double>(q.X) * inverse, py = static_cast<double>(q.Y) * inverse;
        int vertex = -1;
        if (keepVertices && lastOutline >= 0) {
            const int m = m_outlines[static_cast<size_t>(lastOutline)].n;
            for (const int k : {lastIndex + 1 == m ? 0 : lastIndex + 1, lastIndex == 0 ? m - 1 : lastIndex - 1, lastIndex})
                if (atVertex(q, lastOutline, k)) {
                    vertex = k;
                    break;
                }
        }
        float z = m_outlines.empty() || m_outlines[0].n == 0 ? 0.0f : m_outlines[0].z[0];
        if (vertex < 0 && keepVertices) {
            // Every input vertex starts an edge whose box holds it: the lowest outline, then
            // index, among those at this position.
            grid().ForEachEdgeNear(px - inverse, py - inverse, px + inverse, py + inverse, [&](int e) {
                const int o = m_grid->OutlineOf(e), k = m_grid->IndexOf(e);
                if ((vertex < 0 || o < lastOutline || (o == lastOutline && k < vertex)) && atVertex(q, o, k)) {
                    lastOutline = o;
                    vertex = k;
                }
            });
        }
        if (vertex < 0 && !m_commonZ) {
            const OutlineEdgeGrid::Nearest near = grid().NearestPoint(px, py);
            const OutlineArrays& a = m_outlines[static_cast<size_t>(near.outline)];
            const int i0 = near.edge, i1 = near.edge + 1 == a.n ? 0 : near.edge + 1;
            z = static_cast<float>(a.z[i0] + near.t * (static_cast<double>(a.z[i1]) - a.z[i0]));
        }
        if (vertex >= 0) {
            const OutlineArrays& a = m_outlines[static_cast<size_t>(lastOutline)];
            lastIndex = vertex;
            out.SetPoint(i, a.x[vertex], a.y[vertex], a.z[vertex]);
        } else {
            out.SetPoint(i, static_cast<float>(px), static_cast<float>(py), z);
        }
    }
}

namespace {

// An outer outline, its holes, then the islands inside each hole, likewise.
void CollectOuter(const ClipperLib::PolyNode* outer, std::vector<const ClipperLib::PolyNode*>& nodes)
{
    nodes.push_back(outer);
    for (const ClipperLib::PolyNode* hole : outer->Childs)
        nodes.push_back(hole);
    for (const ClipperLib::PolyNode* hole : outer->Childs)
        for (const ClipperLib::PolyNode* island : hole->Childs)
            CollectOuter(island, nodes);
}

} // namespace

std::vector<CSSE3dPolygon> ClipperFrame::ToPolygons(const ClipperLib::PolyTree& tree, bool keepVertices)
{
    std::vector<const ClipperLib::PolyNode*> nodes;
    for (const ClipperLib::PolyNode* outer : tree.Childs)
        CollectOuter(outer, nodes);
    std::vector<CSSE3dPolygon> out(nodes.size());
    for (size_t k = 0; k < nodes.size(); ++k)
        ToPolygon(nodes[k]->Contour, out[k], keepVertices);
    return out;
}

} // namespace qzsse::detail
