#pragma once

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

    double Scale() const { return m_scale; }
    ClipperLib::Path ToPath(const OutlineArrays& outline) const;

    // Polygons from the clipper's result tree, each outer outline followed by its holes, then
    // the islands inside them (the tree's depth-first order); outersOnly skips the holes and
    // everything inside them. A vertex within 1 / scale of an input vertex is that vertex;
    // any other gets z from the nearest point of the input outlines.
    std::vector<CSSE3dPolygon> ToPolygons(const ClipperLib::PolyTree& tree, bool outersOnly);
    void ToPolygon(const ClipperLib::Path& path, CSSE3dPolygon& out);

private:
    std::vector<OutlineArrays> m_outlines;
    OutlineEdgeGrid m_grid;
    double m_scale = 1.0;
};

} // namespace qzsse::detail
