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
    : m_outlines(outlines), m_grid(outlines, std::fabs(margin) + 1.0), m_scale(ChooseScale(outlines, margin))
{
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

void ClipperFrame::ToPolygon(const ClipperLib::Path& path, CSSE3dPolygon& out)
{
    const int n = static_cast<int>(path.size());
    out.Create(n);
    const double inverse = 1.0 / m_scale;
    const double snap2 = inverse * inverse;
    for (int i = 0; i < n; ++i) {
        const double px = static_cast<double>(path[static_cast<size_t>(i)].X) * inverse;
        const double py = static_cast<double>(path[static_cast<size_t>(i)].Y) * inverse;
        const OutlineEdgeGrid::Nearest near = m_grid.NearestPoint(px, py);
        float x = static_cast<float>(px), y = static_cast<float>(py), z = 0.0f;
        if (near.outline >= 0) {
            const OutlineArrays& a = m_outlines[static_cast<size_t>(near.outline)];
            const int i0 = near.edge, i1 = near.edge + 1 == a.n ? 0 : near.edge + 1;
            // An input vertex comes back exactly as it went in.
            const auto vertexNear = [&](int k) {
                const double dx = a.x[k] - px, dy = a.y[k] - py;
                return dx * dx + dy * dy <= snap2;
            };
            if (near.distance2 <= snap2 && (vertexNear(i0) || vertexNear(i1))) {
                const int k = vertexNear(i0) ? i0 : i1;
                x = a.x[k];
                y = a.y[k];
                z = a.z[k];
            } else {
                z = static_cast<float>(a.z[i0] + near.t * (static_cast<double>(a.z[i1]) - a.z[i0]));
            }
        }
        out.SetPoint(i, x, y, z);
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

std::vector<CSSE3dPolygon> ClipperFrame::ToPolygons(const ClipperLib::PolyTree& tree, bool outersOnly)
{
    std::vector<const ClipperLib::PolyNode*> nodes;
    for (const ClipperLib::PolyNode* outer : tree.Childs) {
        if (outersOnly)
            nodes.push_back(outer);
        else
            CollectOuter(outer, nodes);
    }
    std::vector<CSSE3dPolygon> out(nodes.size());
    for (size_t k = 0; k < nodes.size(); ++k)
        ToPolygon(nodes[k]->Contour, out[k]);
    return out;
}

} // namespace qzsse::detail
