#pragma once

// Shared by the mesh tests: reading records as float quadruples compared bit for bit,
// writing hand-made meshes, and a plain scalar model of the scan-conversion sampling rule.

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <functional>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace qzsse::test {

using Quad = std::array<float, 4>;

inline Quad lanesOf(const SSEPoint& p)
{
    return {p.x, p.y, p.z, p.w};
}

// Corner k (0..2), vertex normal k (3..5) or the face normal (6) of record t.
inline Quad partOf(const CHTriangulation& mesh, int t, int part)
{
    const t_htriangle* r = mesh.GetTriangle(t);
    return lanesOf(part < 3 ? *r->pPoint[part] : part < 6 ? *r->pNormal[part - 3] : *r->pMainNormal);
}

// Equal bits in every lane, a NaN matching any NaN.
inline bool sameQuad(const Quad& a, const Quad& b)
{
    for (int i = 0; i < 4; ++i)
        if (std::memcmp(&a[i], &b[i], sizeof(float)) != 0 && !(std::isnan(a[i]) && std::isnan(b[i])))
            return false;
    return true;
}

inline bool isZeroRecord(const CHTriangulation& mesh, int t)
{
    for (int part = 0; part < 7; ++part)
        if (!sameQuad(partOf(mesh, t, part), Quad{0, 0, 0, 0}))
            return false;
    return true;
}

inline void setCorner(CHTriangulation& mesh, int t, int k, float x, float y, float z = 0.0f)
{
    mesh.GetTriangles()[t].pPoint[k]->m = _mm_setr_ps(x, y, z, 0.0f);
}

// W x H unit cells, each split along (x0,y0)-(x1,y1) into records 2 * (y * W + x) and the next.
inline void writeGrid(CHTriangulation& mesh, int w, int h)
{
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const int t = 2 * (y * w + x);
            const float x0 = float(x), x1 = float(x + 1), y0 = float(y), y1 = float(y + 1);
            setCorner(mesh, t, 0, x0, y0), setCorner(mesh, t, 1, x1, y1), setCorner(mesh, t, 2, x0, y1);
            setCorner(mesh, t + 1, 0, x0, y0), setCorner(mesh, t + 1, 1, x1, y0), setCorner(mesh, t + 1, 2, x1, y1);
        }
}

namespace scan {

struct Corner {
    float x, y, z;
};
using Tri = std::vector<Corner>; // three corners
using Image = std::vector<float>; // row-major w * h

inline constexpr float kUpperSentinel = -999999.875f;
inline constexpr float kLowerSentinel = 999999.875f;

// Records beyond tris stay zeroed (degenerate at the origin), as the full-resolution mesher
// leaves them.
inline void setTriangles(CHTriangulation& mesh, const std::vector<Tri>& tris, int extraZeroRecords = 0)
{
    mesh.CreateTriangulation(static_cast<int>(tris.size()) + extraZeroRecords);
    for (size_t i = 0; i < tris.size(); ++i)
        for (int k = 0; k < 3; ++k)
            setCorner(mesh, static_cast<int>(i), k, tris[i][k].x, tris[i][k].y, tris[i][k].z);
    mesh.CalcSTV();
    mesh.CalcBoundingBox();
}

struct Grid {
    float ox, oy, oz, resX, resY;
    int w, h;
};

// The sampling rule pixel by pixel: parameters advanced by float addition, five-pixel crosses
// on strict inner pixels, values within 1.0 of the sentinel cleared; accept filters by mesh y.
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
                for (const auto& o : {std::array{0, 0}, {-1, 0}, {1, 0}, {0, -1}, {0, 1}}) {
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

} // namespace scan
} // namespace qzsse::test
