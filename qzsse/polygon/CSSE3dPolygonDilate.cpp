#include <cmath>
#include <vector>

#include "qzsse/polygon/CSSE3dPolygon.h"
#include "qzsse/polygon/detail/ClipperConversion.h"

namespace {

// Largest gap between a round join's chords and the true arc, relative to the distance.
constexpr double c_dRoundJoinTolerance = 0.001;
// The offset spaces a join's points by the angle whose chord misses the arc by the tolerance
// it is given, but its last step can be up to 1.5 of those angles: 2.25 times the gap.
constexpr double c_dClipperArcTolerance = c_dRoundJoinTolerance / 2.25;

} // namespace

std::vector<CSSE3dPolygon> CSSE3dPolygon::DilateExact(float distance) const
{
    if (m_nNumPoints < 3)
        return {};
    const std::vector<qzsse::detail::OutlineArrays> source{{m_pX, m_pY, m_pZ, m_nNumPoints}};
    qzsse::detail::ClipperFrame frame(source, distance);
    const double delta = static_cast<double>(distance) * frame.Scale();

    ClipperLib::PolyTree tree;
    const ClipperLib::Path path = frame.ToPath(source[0]);
    if (distance == 0.0f) {
        ClipperLib::Clipper clipper;
        clipper.AddPath(path, ClipperLib::ptSubject, true);
        clipper.Execute(ClipperLib::ctUnion, tree, ClipperLib::pftNonZero, ClipperLib::pftNonZero);
    } else {
        // The offset first resolves the outline's own overlaps (non-zero winding) and grows
        // the region; its orientation does not matter.
        ClipperLib::ClipperOffset offset(2.0, std::fabs(delta) * c_dClipperArcTolerance);
        offset.AddPath(path, ClipperLib::jtRound, ClipperLib::etClosedPolygon);
        offset.Execute(tree, delta);
    }
    return frame.ToPolygons(tree, distance == 0.0f);
}
