#pragma once

// Helpers of the scan-conversion tests: hand-made meshes and a plain scalar model of the
// sampling rule (parameters advanced by float addition, five-pixel crosses, strict inner
// pixels, values within 1.0 of the sentinel cleared), written without the library's loops.

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace qzsse::test::scan {

struct Corner {
    float x, y, z;
};
using Tri = std::vector<Corner>; // three corners

inline constexpr float kUpperSentinel = -999999.875f;
inline constexpr float kLowerSentinel = 999999.875f;

// Records are written corner by corner; records beyond tris stay zeroed (degenerate at the
// origin), as the full-resolution mesher leaves them.
inline void setTriangles(CHTriangulation& mesh, const std::vector<Tri>& tris, int extraZeroRecords = 0)
{
    mesh.CreateTriangulation(static_cast<int>(tris.size()) + extraZeroRecords);
    for (size_t i = 0; i < tris.size(); ++i)
        for (int k = 0; k < 3; ++k) {
            SSEPoint& p = *mesh.GetTriangle(static_cast<int>(i))->pPoint[k];
            p.x = tris[i][k].x;
            p.y = tris[i][k].y;
            p.z = tris[i][k].z;
            p.w = 0.0f;
        }
    mesh.CalcSTV();
    mesh.CalcBoundingBox();
}

struct Grid {
    float ox, oy, oz, resX, resY;
    int w, h;
};

using Image = std::vector<float>; // row-major w * h

// The sampling rule of the envelope, pixel by pixel; accept filters samples by mesh y.
inline Image modelEnvelope(const std::vector<Tri>& tris, const Grid& g, float refine, float offset, bool upper,
                    const std::function<bool(float)>& accept = [](float) { return true; })
{
    const float sentinel = upper ? kUpperSentinel : kLowerSentinel;
    Image img(static_cast<size_t>(g.w) * g.h, sentinel);
    const float diag = std::sqrt(g.resX * g.resX + g.resY * g.resY);
    for (const Tri& t : tris) {
        const Corner c = t[0];
        const float sx = t[1].x - c.x, sy = t[1].y - c.y, sz = t[1].z - c.z;
        const float tx = t[2].x - c.x, ty = t[2].y - c.y, tz = t[2].z - c.z;
        const float lenS = std::sqrt(sx * sx + (sy * sy + sz * sz));
        const float lenT = std::sqrt(tx * tx + (ty * ty + tz * tz));
        const float d = (diag / std::max(lenS, lenT)) / refine;
        for (float b = 0.0f; b < 1.0f; b += d)
            for (float a = 0.0f; a < 1.0f - b; a += d) {
                const float x = c.x + a * tx + b * sx, y = c.y + a * ty + b * sy, z = c.z + a * tz + b * sz;
                const int px = static_cast<int>((x - g.ox) / g.resX + 0.5f);
                const int py = static_cast<int>((y - g.oy) / g.resY + 0.5f);
                if (px <= 0 || px >= g.w - 1 || py <= 0 || py >= g.h - 1 || !accept(y))
                    continue;
                const float v = (z - g.oz) + offset;
                const int cross[5][2] = {{0, 0}, {-1, 0}, {1, 0}, {0, -1}, {0, 1}};
                for (const auto& o : cross) {
                    float& p = img[static_cast<size_t>(py + o[1]) * g.w + (px + o[0])];
                    p = upper ? std::max(p, v) : std::min(p, v);
                }
            }
    }
    for (float& p : img)
        if (std::fabs(sentinel - p) < 1.0f)
            p = 0.0f;
    return img;
}

inline Image imageOf(const CSSEMatrix& m)
{
    Image img;
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            img.push_back(m.GetPoint(x, y));
    return img;
}

inline Grid gridOf(const CHTriangulation& mesh, float res)
{
    const SSEPoint lo = mesh.GetMinPoint(), hi = mesh.GetMaxPoint();
    return Grid{lo.x, lo.y, lo.z, res, res, static_cast<int>((hi.x - lo.x) / res + 0.5f),
                static_cast<int>((hi.y - lo.y) / res + 0.5f)};
}

inline int countNonZero(const Image& img)
{
    return static_cast<int>(std::count_if(img.begin(), img.end(), [](float v) { return v != 0.0f; }));
}

} // namespace qzsse::test::scan
