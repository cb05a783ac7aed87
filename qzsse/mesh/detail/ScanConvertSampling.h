#pragma once

#include <cmath>

#include "qzsse/core/CSSEFns.h"
#include "qzsse/core/SSEPoint.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"

// The sampling and rasterising loops shared by every scan-conversion member of
// CHTriangulation: each member only decides the grid, the envelope and what happens to the
// target before and after.
namespace qzsse::detail {

// Pixels no sample reached; far outside any height a mesh of this library carries, and
// removed by replacing everything within 1.0 of them with 0.0.
constexpr float c_fScanConvUpperSentinel = -999999.875f;
constexpr float c_fScanConvLowerSentinel = 999999.875f;
constexpr float c_fScanConvSentinelTolerance = 1.0f;

// A target pixel grid laid onto mesh coordinates: pixel (px, py) collects the points with
// trunc((x - origin.x) / resX + 0.5) == px, the same in y. Heights are measured from origin.z.
struct ScanGrid {
    float originX, originY, originZ;
    float resX, resY;
    int width, height;
};

// Pixels a box covers along one axis, truncated toward zero.
inline int scanConvExtent(float lo, float hi, float res)
{
    return static_cast<int>((hi - lo) / res + 0.5f);
}

inline ScanGrid makeScanGrid(const SSEPoint& minPoint, const SSEPoint& maxPoint, float resX, float resY)
{
    return ScanGrid{minPoint.x,
                    minPoint.y,
                    minPoint.z,
                    resX,
                    resY,
                    scanConvExtent(minPoint.x, maxPoint.x, resX),
                    scanConvExtent(minPoint.y, maxPoint.y, resY)};
}

// Samples every record on a parameter lattice of about one point per pixel diagonal (divided
// by refine) along its longer edge and paints each accepted sample as a five-pixel cross into
// target, by maximum (upper) or minimum. The parameters advance by repeated float addition,
// so the sample set is exactly the one that accumulation yields. Only pixels strictly inside
// the grid's outer ring are drawn; accept(x, y) may reject samples by their mesh position.
template <bool Upper, class Accept>
void sampleTriangles(const t_htriangle* triangles, int count, float diagonal, float refine, const ScanGrid& grid,
                     float offset, CSSEMatrix& target, Accept accept)
{
    for (int i = 0; i < count; ++i) {
        const t_htriangle& t = triangles[i];
        const SSEPoint c0 = *t.pPoint[0];
        const SSEPoint s = *t.pS;
        const SSEPoint tv = *t.pT;
        const float lenS = CSSEFns::vectorlen(s.m);
        const float lenT = CSSEFns::vectorlen(tv.m);
        const float longer = (lenS <= lenT) ? lenT : lenS;
        const float step = (diagonal / longer) / refine;
        for (float b = 0.0f; b < 1.0f; b += step) {
            for (float a = 0.0f; a < 1.0f - b; a += step) {
                const float x = c0.x + a * tv.x + b * s.x;
                const float y = c0.y + a * tv.y + b * s.y;
                const float z = c0.z + a * tv.z + b * s.z;
                const int px = static_cast<int>((x - grid.originX) / grid.resX + 0.5f);
                const int py = static_cast<int>((y - grid.originY) / grid.resY + 0.5f);
                if (px > 0 && px < grid.width - 1 && py > 0 && py < grid.height - 1 && accept(x, y)) {
                    const float value = (z - grid.originZ) + offset;
                    if constexpr (Upper)
                        target.SetCrossMax(px, py, value);
                    else
                        target.SetCrossMin(px, py, value);
                }
            }
        }
    }
}

// Whole-number floor and ceiling without the library calls (pixel indices fit an int).
inline int floorToInt(float v)
{
    const int i = static_cast<int>(v);
    return (v < static_cast<float>(i)) ? i - 1 : i;
}

inline int ceilToInt(float v)
{
    const int i = static_cast<int>(v);
    return (v > static_cast<float>(i)) ? i + 1 : i;
}

struct AcceptAll {
    bool operator()(float, float) const { return true; }
};

// The counterpart of sampleTriangles that visits pixels instead of parameters: every pixel of
// the inner grid whose centre lies in a record's xy projection (edges included, with a
// barycentric tolerance so shared edges leave no gap) gets the height interpolated there,
// combined into its one pixel by maximum or minimum. Records whose projection has no area
// draw nothing.
template <bool Upper>
void rasteriseTriangles(const t_htriangle* triangles, int count, const ScanGrid& grid, float offset,
                        CSSEMatrix& target)
{
    constexpr float edgeTolerance = 1e-5f;
    const int lastX = grid.width - 2;
    const int lastY = grid.height - 2;
    for (int i = 0; i < count; ++i) {
        const t_htriangle& t = triangles[i];
        const SSEPoint c0 = *t.pPoint[0];
        const SSEPoint c1 = *t.pPoint[1];
        const SSEPoint c2 = *t.pPoint[2];
        // Corners in pixel units, where pixel centres fall on whole numbers.
        const float u0 = (c0.x - grid.originX) / grid.resX, v0 = (c0.y - grid.originY) / grid.resY;
        const float u1 = (c1.x - grid.originX) / grid.resX, v1 = (c1.y - grid.originY) / grid.resY;
        const float u2 = (c2.x - grid.originX) / grid.resX, v2 = (c2.y - grid.originY) / grid.resY;
        const float su = u1 - u0, sv = v1 - v0, tu = u2 - u0, tvv = v2 - v0;
        const float area = su * tvv - tu * sv;
        if (!(std::fabs(area) > 0.0f) || !std::isfinite(area))
            continue;
        const float sz = c1.z - c0.z, tz = c2.z - c0.z;
        const float inverseArea = 1.0f / area;
        // Pixel centres on the box's edge are kept against rounding of the corners; the
        // coverage test below decides.
        constexpr float boxSlack = 1e-3f;
        int x0 = ceilToInt(std::fmin(u0, std::fmin(u1, u2)) - boxSlack);
        int x1 = floorToInt(std::fmax(u0, std::fmax(u1, u2)) + boxSlack);
        int y0 = ceilToInt(std::fmin(v0, std::fmin(v1, v2)) - boxSlack);
        int y1 = floorToInt(std::fmax(v0, std::fmax(v1, v2)) + boxSlack);
        x0 = x0 < 1 ? 1 : x0;
        y0 = y0 < 1 ? 1 : y0;
        x1 = x1 > lastX ? lastX : x1;
        y1 = y1 > lastY ? lastY : y1;
        for (int py = y0; py <= y1; ++py) {
            const float dv = static_cast<float>(py) - v0;
            for (int px = x0; px <= x1; ++px) {
                const float du = static_cast<float>(px) - u0;
                const float l1 = (du * tvv - tu * dv) * inverseArea;
                const float l2 = (su * dv - du * sv) * inverseArea;
                const float l0 = 1.0f - l1 - l2;
                if (l1 < -edgeTolerance || l2 < -edgeTolerance || l0 < -edgeTolerance)
                    continue;
                const float value = ((c0.z + l1 * sz + l2 * tz) - grid.originZ) + offset;
                float* p = target.GetPointAddressUnsafe(px, py);
                if constexpr (Upper)
                    *p = (*p > value) ? *p : value;
                else
                    *p = (value > *p) ? *p : value;
            }
        }
    }
}

// The envelope over a box (the mesh's bounding box or one given by the caller), into a
// target re-created at the box's size. The target is only touched once the box covers at
// least one pixel each way and there is a record to draw; returns whether it was.
template <bool Upper>
bool scanConvertEnvelope(const t_htriangle* triangles, int count, const SSEPoint& minPoint,
                         const SSEPoint& maxPoint, float resX, float resY, float diagonal, float refine,
                         CSSEMatrix* target, float offset)
{
    const ScanGrid grid = makeScanGrid(minPoint, maxPoint, resX, resY);
    if (grid.width <= 0 || grid.height <= 0 || count <= 0)
        return false;
    const float sentinel = Upper ? c_fScanConvUpperSentinel : c_fScanConvLowerSentinel;
    target->CreateNoClear(grid.width, grid.height);
    target->Fill(sentinel);
    sampleTriangles<Upper>(triangles, count, diagonal, refine, grid, offset, *target, AcceptAll{});
    target->ReplaceValueWithValue(sentinel, 0.0f, c_fScanConvSentinelTolerance);
    return true;
}

} // namespace qzsse::detail
