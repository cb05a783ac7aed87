#include "qzsse/geometry/QzRyTriangulationTo2DHull.h"

#include <algorithm>
#include <vector>

#include "qzsse/geometry/CHConvexHull2D.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

struct Corner {
    float x, y, z;
    long long order;   // triangle * 3 + corner
};

} // namespace

QzRyTriangulationTo2DHull::QzRyTriangulationTo2DHull(const CHTriangulation* mesh)
{
    const int n = mesh != nullptr ? std::max(0, mesh->GetNumTriangles()) : 0;
    std::vector<Corner> corners;
    corners.reserve(static_cast<size_t>(n) * 3);
    for (int t = 0; t < n; ++t)
        for (int k = 0; k < 3; ++k) {
            const SSEPoint& p = *mesh->GetTriangles()[t].pPoint[k];
            corners.push_back({p.x, p.y, p.z, static_cast<long long>(t) * 3 + k});
        }
    // Shared corners are the rule in a mesh; the scan needs each position once.
    std::sort(corners.begin(), corners.end(), [](const Corner& a, const Corner& b) {
        return a.x != b.x ? a.x < b.x : (a.y != b.y ? a.y < b.y : a.order < b.order);
    });
    const auto last = std::unique(corners.begin(), corners.end(),
                                  [](const Corner& a, const Corner& b) { return a.x == b.x && a.y == b.y; });
    corners.erase(last, corners.end());
    m_nCorners = static_cast<int>(corners.size());
    CSSE3dPolygon input;
    if (m_nCorners > 0)
        input.Create(m_nCorners);
    for (int i = 0; i < m_nCorners; ++i)
        input.SetPoint(i, corners[static_cast<size_t>(i)].x, corners[static_cast<size_t>(i)].y,
                       corners[static_cast<size_t>(i)].z);
    m_pHull = std::make_unique<CHConvexHull2D>(&input);
}

QzRyTriangulationTo2DHull::~QzRyTriangulationTo2DHull() = default;

void QzRyTriangulationTo2DHull::ObtainConvexHull2D(CSSE2dPolygon* polygon)
{
    m_pHull->ObtainConvexHull2D(polygon);
}

void QzRyTriangulationTo2DHull::ObtainConvexHull3D(CSSE3dPolygon* polygon)
{
    m_pHull->ObtainConvexHull3D(polygon);
}
