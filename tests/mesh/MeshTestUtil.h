#pragma once

// Reading a mesh's triangles as plain float quadruples, and comparing them bit for bit.

#include <array>
#include <cmath>
#include <cstring>

#include "qzsse/mesh/CHTriangulation.h"

namespace qzsse::test {

using Quad = std::array<float, 4>;

inline Quad lanesOf(const SSEPoint& p)
{
    return {p.x, p.y, p.z, p.w};
}

inline Quad cornerOf(const CHTriangulation& mesh, int t, int k)
{
    return lanesOf(*mesh.GetTriangle(t)->pPoint[k]);
}

inline Quad vertexNormalOf(const CHTriangulation& mesh, int t, int k)
{
    return lanesOf(*mesh.GetTriangle(t)->pNormal[k]);
}

inline Quad faceNormalOf(const CHTriangulation& mesh, int t)
{
    return lanesOf(*mesh.GetTriangle(t)->pMainNormal);
}

// Equal bits in every lane, a NaN matching any NaN.
inline bool sameQuad(const Quad& a, const Quad& b)
{
    for (int i = 0; i < 4; ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(float)) != 0 && !(std::isnan(a[i]) && std::isnan(b[i])))
            return false;
    return true;
}

// All corners, vertex normals and the face normal of record t are +0 bits.
inline bool isZeroRecord(const CHTriangulation& mesh, int t)
{
    const Quad zero{0.0f, 0.0f, 0.0f, 0.0f};
    for (int k = 0; k < 3; ++k)
        if (!sameQuad(cornerOf(mesh, t, k), zero) || !sameQuad(vertexNormalOf(mesh, t, k), zero))
            return false;
    return sameQuad(faceNormalOf(mesh, t), zero);
}

} // namespace qzsse::test
