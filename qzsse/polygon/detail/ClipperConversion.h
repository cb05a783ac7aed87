#pragma once

#include <memory>
#include <vector>

#include <polyclipping/clipper.hpp>

#include "qzsse/polygon/detail/OutlineEdgeGrid.h"

class CSSE3dPolygon;

namespace qzsse::detail {

// Float outlines to the clipper's integer coordinates and back. The scale is a power of two
// chosen so that every |coordinate| + margin stays below 2^29 / scale: multiplying by it is
// exact in double, the products stay inside the clipper's fast 64-bit range (below 2^30) and
// rounding moves a point by at most 0.5 / scale per axis.
class ClipperFrame {
public:
    ClipperFrame(const std::vector<OutlineArrays>& outlines, double margin);
    ~ClipperFrame();

    double Scale() const { return m_scale; }
    ClipperLib::Path ToPath(const OutlineArrays& outline) const;

    // Polygons from the clipper's result tree: each outer outline, its holes, then the
    // islands inside each hole (likewise). With keepVertices a vertex at the integer position of an input vertex is that vertex; any
    // other gets z from the nearest point of the input outlines (their common z when all
    // input z are equal).
    std::vector<CSSE3dPolygon> ToPolygons(const ClipperLib::PolyTree& tree, bool keepVertices);
    void ToPolygon(const ClipperLib::Path& path, CSSE3dPolygon& out, bool keepVertices);

private:
    OutlineEdgeGrid& grid();
    bool atVertex(const ClipperLib::IntPoint& p, int outline, int index) const;

    std::vector<OutlineArrays> m_outlines;
    std::unique_ptr<OutlineEdgeGrid> m_grid; // built on first use
    double m_margin = 0.0;
    double m_scale = 1.0;
    bool m_commonZ = true;
};

} // namespace qzsse::detail
