#pragma once

#include <cmath>

#include "qzsse/core/SSEPoint.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace qzsse::detail {

// Unit normal of the corner order (right hand) in single precision; zero without area.
inline SSEPoint UnitFaceNormal(const SSEPoint& a, const SSEPoint& b, const SSEPoint& c)
{
    const float sx = b.x - a.x, sy = b.y - a.y, sz = b.z - a.z;
    const float tx = c.x - a.x, ty = c.y - a.y, tz = c.z - a.z;
    SSEPoint n;
    n.x = sy * tz - sz * ty;
    n.y = sz * tx - sx * tz;
    n.z = sx * ty - sy * tx;
    n.w = 0.0f;
    const float length = std::sqrt(n.x * n.x + n.y * n.y + n.z * n.z);
    if (length > 0.0f) {
        n.x = n.x / length;
        n.y = n.y / length;
        n.z = n.z / length;
    }
    return n;
}

// For records without vertex adjacency: the face normal serves as every vertex normal.
inline void SetFaceNormalEverywhere(t_htriangle& t)
{
    const SSEPoint n = UnitFaceNormal(*t.pPoint[0], *t.pPoint[1], *t.pPoint[2]);
    *t.pMainNormal = n;
    for (int k = 0; k < 3; ++k)
        *t.pNormal[k] = n;
}

} // namespace qzsse::detail
