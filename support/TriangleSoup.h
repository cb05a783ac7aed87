#pragma once

// Triangle soups for the mesh query tests and benchmarks: corner lists, the solids made from
// a height function, and their CHTriangulation records.

#include <array>
#include <functional>
#include <memory>
#include <vector>

#include <emmintrin.h>

#include "qzsse/mesh/CHTriangulation.h"

namespace qzsse::support {

using Tri = std::array<float, 9>;

inline std::unique_ptr<CHTriangulation> MeshOf(const std::vector<Tri>& tris)
{
    auto mesh = std::make_unique<CHTriangulation>(static_cast<int>(tris.size()), 1.0f, 1.0f, 1.0f);
    for (size_t t = 0; t < tris.size(); ++t)
        for (int k = 0; k < 3; ++k)
            mesh->GetTriangles()[t].pPoint[k]->m =
                _mm_setr_ps(tris[t][3 * k], tris[t][3 * k + 1], tris[t][3 * k + 2], 0.0f);
    return mesh;
}

// Both triangles of the quad a b c d (in order), facing by its winding.
inline void AddQuad(std::vector<Tri>& out, const float a[3], const float b[3], const float c[3], const float d[3])
{
    out.push_back({a[0], a[1], a[2], b[0], b[1], b[2], c[0], c[1], c[2]});
    out.push_back({a[0], a[1], a[2], c[0], c[1], c[2], d[0], d[1], d[2]});
}

// The surface z = top(x, y) over the n x n cells of [0, n * step]^2, facing up; closed adds
// the flat bottom z = bottom and four walls, making an outward-facing solid.
inline std::vector<Tri> Slab(int n, float step, float bottom, const std::function<float(float, float)>& top,
                             bool closed = true)
{
    std::vector<Tri> out;
    const auto at = [&](int i, int j, bool upper, float p[3]) {
        p[0] = static_cast<float>(i) * step;
        p[1] = static_cast<float>(j) * step;
        p[2] = upper ? top(p[0], p[1]) : bottom;
    };
    float a[3], b[3], c[3], d[3];
    for (int j = 0; j < n; ++j)
        for (int i = 0; i < n; ++i) {
            at(i, j, true, a), at(i + 1, j, true, b), at(i + 1, j + 1, true, c), at(i, j + 1, true, d);
            AddQuad(out, a, b, c, d);
            if (closed) {
                at(i, j, false, a), at(i, j + 1, false, b), at(i + 1, j + 1, false, c), at(i + 1, j, false, d);
                AddQuad(out, a, b, c, d);
            }
        }
    if (closed)
        for (int k = 0; k < n; ++k) {
            // Walls y = 0, x = n, y = n, x = 0, each quad from its lower edge up.
            at(k, 0, false, a), at(k + 1, 0, false, b), at(k + 1, 0, true, c), at(k, 0, true, d);
            AddQuad(out, a, b, c, d);
            at(n, k, false, a), at(n, k + 1, false, b), at(n, k + 1, true, c), at(n, k, true, d);
            AddQuad(out, a, b, c, d);
            at(k + 1, n, false, a), at(k, n, false, b), at(k, n, true, c), at(k + 1, n, true, d);
            AddQuad(out, a, b, c, d);
            at(0, k + 1, false, a), at(0, k, false, b), at(0, k, true, c), at(0, k + 1, true, d);
            AddQuad(out, a, b, c, d);
        }
    return out;
}

} // namespace qzsse::support
