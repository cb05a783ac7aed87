#pragma once

// Meshes for the mesh query tests, as corner lists and as CHTriangulation records.

#include <cmath>

#include "support/TriangleSoup.h"

namespace qzsse::test {

using support::MeshOf;
using support::Tri;

// Heights on the grid of 1/1024, so that scale 1024 snaps every corner exactly.
inline float OnGrid(float v)
{
    return std::round(v * 1024.0f) / 1024.0f;
}

inline float Bumps(float x, float y)
{
    return OnGrid(2.0f + std::sin(0.7f * x) * std::cos(0.45f * y));
}

} // namespace qzsse::test
