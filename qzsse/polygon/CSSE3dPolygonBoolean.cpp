#include <algorithm>
#include <cmath>
#include <vector>

#include "qzsse/polygon/CSSE3dPolygon.h"
#include "qzsse/polygon/detail/ClipperConversion.h"
#include "qzsse/polygon/detail/OutlineEdgeGrid.h"

namespace {

using qzsse::detail::OutlineArrays;

inline double Cross(double ax, double ay, double bx, double by) { return ax * by - ay * bx; }

// The shared points of edge a0-a1 and edge b0-b1 with parameters half-open on both, in
// double: a proper or touching crossing, or, on one line, the start point of either edge
// when it lies on the other.
template <class Report>
void EdgePairCrossings(double a0x, double a0y, double a1x, double a1y, double b0x, double b0y, double b1x,
                       double b1y, Report report)
{
    const double rx = a1x - a0x, ry = a1y - a0y, sx = b1x - b0x, sy = b1y - b0y;
    const double rr = rx * rx + ry * ry, ss = sx * sx + sy * sy;
    if (rr == 0.0 || ss == 0.0)
        return; // a repeated point: the neighbouring edge that starts there reports it
    const double qx = b0x - a0x, qy = b0y - a0y;
    const double denom = Cross(rx, ry, sx, sy);
    if (denom != 0.0) {
        const double t = Cross(qx, qy, sx, sy) / denom;
        const double u = Cross(qx, qy, rx, ry) / denom;
        if (t >= 0.0 && t < 1.0 && u >= 0.0 && u < 1.0)
            report(t, u);
        return;
    }
    if (Cross(qx, qy, rx, ry) != 0.0)
        return; // parallel, apart
    // One line: a0 on b, then b0 on a.
    const double uA = -(qx * sx + qy * sy) / ss;
    if (uA >= 0.0 && uA < 1.0)
        report(0.0, uA);
    const double tB = (qx * rx + qy * ry) / rr;
    if (tB > 0.0 && tB < 1.0)
        report(tB, 0.0);
}

// The boolean of two closed outlines in the frame both were converted with (non-zero fill).
void clipPair(const qzsse::detail::ClipperFrame& frame, const OutlineArrays& subject, const OutlineArrays& clip,
              ClipperLib::ClipType type, ClipperLib::PolyTree& tree)
{
    ClipperLib::Clipper clipper;
    clipper.AddPath(frame.ToPath(subject), ClipperLib::ptSubject, true);
    clipper.AddPath(frame.ToPath(clip), ClipperLib::ptClip, true);
    clipper.Execute(type, tree, ClipperLib::pftNonZero, ClipperLib::pftNonZero);
}

} // namespace

bool CSSE3dPolygon::FindIntersectionWithAnotherPolygon(const CSSE3dPolygon& other,
                                                       std::vector<qzsse::PolygonCrossing>& crossings,
                                                       std::vector<CSSE3dPolygon>& overlap) const
{
    crossings.clear();
    overlap.clear();
    const int n = m_nNumPoints, m = other.m_nNumPoints;
    if (n < 2 || m < 2)
        return false;

    const OutlineArrays mine{m_pX, m_pY, m_pZ, n}, theirs{other.m_pX, other.m_pY, other.m_pZ, m};
    qzsse::detail::OutlineEdgeGrid grid({theirs}, 0.0);
    for (int i = 0; i < n; ++i) {
        const int i1 = i + 1 == n ? 0 : i + 1;
        const double a0x = m_pX[i], a0y = m_pY[i], a1x = m_pX[i1], a1y = m_pY[i1];
        grid.ForEachEdgeNear(std::min(a0x, a1x), std::min(a0y, a1y), std::max(a0x, a1x), std::max(a0y, a1y),
                             [&](int j) {
                                 const int j1 = j + 1 == m ? 0 : j + 1;
                                 EdgePairCrossings(a0x, a0y, a1x, a1y, other.m_pX[j], other.m_pY[j],
                                                   other.m_pX[j1], other.m_pY[j1], [&](double t, double u) {
                                                       const double z0 = m_pZ[i], z1 = m_pZ[i1];
                                                       crossings.push_back({static_cast<float>(a0x + t * (a1x - a0x)),
                                                                            static_cast<float>(a0y + t * (a1y - a0y)),
                                                                            static_cast<float>(z0 + t * (z1 - z0)), i,
                                                                            static_cast<float>(t), j,
                                                                            static_cast<float>(u)});
                                                   });
                             });
    }
    std::sort(crossings.begin(), crossings.end(), [](const qzsse::PolygonCrossing& p, const qzsse::PolygonCrossing& q) {
        return p.edge != q.edge ? p.edge < q.edge : (p.t != q.t ? p.t < q.t : p.otherEdge < q.otherEdge);
    });

    if (n < 3 || m < 3)
        return false;
    qzsse::detail::ClipperFrame frame({mine, theirs}, 0.0);
    ClipperLib::PolyTree tree;
    clipPair(frame, mine, theirs, ClipperLib::ctIntersection, tree);
    overlap = frame.ToPolygons(tree, true);
    return !overlap.empty();
}

bool CSSE3dPolygon::CreateMergePolygon(const CSSE3dPolygon& a, const CSSE3dPolygon& b)
{
    if (a.m_nNumPoints < 3 || b.m_nNumPoints < 3)
        return false;
    const OutlineArrays first{a.m_pX, a.m_pY, a.m_pZ, a.m_nNumPoints};
    const OutlineArrays second{b.m_pX, b.m_pY, b.m_pZ, b.m_nNumPoints};
    qzsse::detail::ClipperFrame frame({first, second}, 0.0);
    ClipperLib::PolyTree tree;
    clipPair(frame, first, second, ClipperLib::ctUnion, tree);
    if (tree.ChildCount() != 1)
        return false;
    // Built aside first: a or b may be this polygon.
    CSSE3dPolygon merged;
    frame.ToPolygon(tree.Childs[0]->Contour, merged, true);
    swapPoints(merged);
    m_bBoundingBoxCalculated = false;
    return true;
}
