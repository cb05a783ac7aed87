// Step 3: contour, polygon, ear-clipping triangulation, convex hull and polygon fill.

#include <algorithm>
#include <cmath>
#include <vector>

#include "demo/DemoSteps.h"
#include "demo/Stopwatch.h"
#include "demo/Text.h"
#include "qzsse/contour/CPixelChain.h"
#include "qzsse/geometry/CHConvexHull2D.h"
#include "qzsse/geometry/CHPolygonTriangulator.h"

namespace qzsse::demo {
namespace {

struct Region {
    int pixels = 0;
    int startX = -1;   // its first pixel in row-major order: nothing of it lies above
    int startY = -1;
};

// Largest 8-connected region of `above` pixels inside [x0, x1] x [y0, y1]; `label` marks
// its pixels with 1 on return.
Region largestRegion(const std::vector<unsigned char>& above, int width, int x0, int y0, int x1, int y1,
                     std::vector<unsigned char>& label)
{
    std::vector<int> component(above.size(), -1);
    std::vector<int> stack;
    Region best;
    int bestId = -1, id = 0;
    for (int y = y0; y <= y1; ++y)
        for (int x = x0; x <= x1; ++x) {
            const size_t seed = static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x);
            if (!above[seed] || component[seed] >= 0)
                continue;
            int size = 0;
            component[seed] = id;
            stack.assign(1, static_cast<int>(seed));
            while (!stack.empty()) {
                const int p = stack.back();
                stack.pop_back();
                ++size;
                const int px = p % width, py = p / width;
                for (int dy = -1; dy <= 1; ++dy)
                    for (int dx = -1; dx <= 1; ++dx) {
                        const int nx = px + dx, ny = py + dy;
                        if (nx < x0 || nx > x1 || ny < y0 || ny > y1)
                            continue;
                        const int n = ny * width + nx;
                        if (above[static_cast<size_t>(n)] && component[static_cast<size_t>(n)] < 0) {
                            component[static_cast<size_t>(n)] = id;
                            stack.push_back(n);
                        }
                    }
            }
            if (size > best.pixels) {
                best = {size, x, y};
                bestId = id;
            }
            ++id;
        }
    label.assign(above.size(), 0);
    for (size_t i = 0; i < component.size(); ++i)
        label[i] = component[i] == bestId && bestId >= 0;
    return best;
}

double cross(double ax, double ay, double bx, double by, double cx, double cy)
{
    return (bx - ax) * (cy - ay) - (by - ay) * (cx - ax);
}

} // namespace

void DemoSteps::TraceContour()
{
    Stopwatch watch;
    const int w = m_input.width, h = m_input.height;
    m_mask.Create(w, h);

    // The trace keeps to [1, w-2] x [1, h-2] and marks a frame at the level (three columns
    // each side, the first band and the last, which is all padding when h is a multiple of
    // four). The region is looked for inside both, and the traced copy holds the level
    // everywhere outside, so the walk cannot reach rows it would be clamped away from.
    const int x0 = 3, y0 = 4, x1 = w - 4, y1 = std::min(4 * (h >> 2) - 1, h - 3);
    std::vector<unsigned char> above(m_input.values.size());
    for (size_t i = 0; i < above.size(); ++i)
        above[i] = m_input.values[i] > m_level;
    const Region region = largestRegion(above, w, x0, y0, x1, y1, m_region);
    if (region.pixels == 0) {
        printStep(3, "contour", "no region above the level inside the frame; nothing traced", watch.Milliseconds());
        return;
    }

    CSSEMatrix traced(m_heights);   // the trace writes its frame into the matrix
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            if (x < x0 || x > x1 || y < y0 || y > y1)
                traced.SetPointUnsafe(x, y, m_level);
    CPixelChain chain;
    chain.CreatePixelChain(&traced, m_level, region.startX, region.startY, CPixelChain::c_iMaxPoints - 1, true, true, 0);
    const int last = chain.GetCount() - 1;
    const bool closed = std::abs(chain[last].x - chain[0].x) <= 1 && std::abs(chain[last].y - chain[0].y) <= 1;

    m_contour = CSSE3dPolygon(chain, 1);
    for (int i = 0; i < chain.GetCount(); ++i)
        m_contour.SetPointZ(i, chain[i].value);
    m_contour.DrawInMatrixAndFillFine(1.0f, &m_mask, false, 0.0f, static_cast<float>(h));
    const int filled = m_mask.NumValuesAbove(0.5f);
    int overlap = 0;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            overlap += m_mask.GetPointUnsafe(x, y) > 0.5f && m_region[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)];

    // The ear clipper is cubic in the worst case: at most 400 corners, counter-clockwise.
    CSSE3dPolygon corners(m_contour);
    corners.Subsample((corners.GetNumPoints() + 399) / 400, false);
    corners.RemoveEqualPointsXY();
    if (corners.CalcXYArea() < 0.0f) {
        const CSSE3dPolygon forward(corners);
        const int n = forward.GetNumPoints();
        for (int i = 0; i < n; ++i) {
            float x, y, z;
            forward.GetPoint(n - 1 - i, x, y, z);
            corners.SetPoint(i, x, y, z);
        }
    }
    const CHPolygonTriangulator triangulator(&corners, 1, 1.0f, 1.0f, 1.0f, false);
    double triangleArea = 0.0;
    for (int t = 0; t < triangulator.GetNumTriangles(); ++t) {
        int a, b, c;
        triangulator.GetTriangle(t, a, b, c);
        float ax, ay, bx, by, cx, cy;
        corners.GetPointXY(a, ax, ay);
        corners.GetPointXY(b, bx, by);
        corners.GetPointXY(c, cx, cy);
        triangleArea += std::fabs(cross(ax, ay, bx, by, cx, cy)) * 0.5;
    }
    const double polygonArea = std::fabs(static_cast<double>(corners.CalcXYArea())) * 0.5;

    CHConvexHull2D hullBuilder(&m_contour);
    CSSE2dPolygon hull;
    hullBuilder.ObtainConvexHull2D(&hull);
    const double milliseconds = watch.Milliseconds();

    // Every contour point must lie inside or on the hull (clockwise: right of each edge).
    const int hn = hull.GetNumPoints();
    for (int i = 0; hn >= 3 && i < m_contour.GetNumPoints(); ++i) {
        float px, py;
        m_contour.GetPointXY(i, px, py);
        for (int e = 0; e < hn; ++e) {
            float ax, ay, bx, by;
            hull.GetPoint(e, ax, ay);
            hull.GetPoint((e + 1) % hn, bx, by);
            if (cross(ax, ay, bx, by, px, py) > 0.01)
                throw CheckFailed(Sprintf("contour point (%g, %g) lies outside the convex hull", px, py));
        }
    }

    printStep(3, "contour traced",
              Sprintf("level %.2f region %d px from (%d, %d): chain %d points (%s); polygon fill %d px, %.1f %% on the "
                      "region; %d-corner subsample -> %d of %d ear triangles (%.1f %% of its area); hull %d points",
                      m_level, region.pixels, region.startX, region.startY, chain.GetCount(), closed ? "closed" : "open",
                      filled, filled ? 100.0 * overlap / filled : 0.0, corners.GetNumPoints(),
                      triangulator.GetNumTriangles(), std::max(0, corners.GetNumPoints() - 2),
                      polygonArea > 0 ? 100.0 * triangleArea / polygonArea : 0.0, hn),
              milliseconds);

    // contour.png: ear triangles (white), contour (red), hull (yellow), start (black dot).
    Picture picture = *m_shaded;
    for (int t = 0; t < triangulator.GetNumTriangles(); ++t) {
        int abc[3];
        triangulator.GetTriangle(t, abc[0], abc[1], abc[2]);
        for (int k = 0; k < 3; ++k) {
            float ax, ay, bx, by;
            corners.GetPointXY(abc[k], ax, ay);
            corners.GetPointXY(abc[(k + 1) % 3], bx, by);
            picture.DrawLine(ax, ay, bx, by, Rgb{255, 255, 255}, 1.0f, 0.6f);
        }
    }
    for (int i = 0; i < m_contour.GetNumPoints(); ++i) {
        float ax, ay, bx, by;
        m_contour.GetPointXY(i, ax, ay);
        m_contour.GetPointXY((i + 1) % m_contour.GetNumPoints(), bx, by);
        picture.DrawLine(ax, ay, bx, by, Rgb{220, 30, 30}, 2.0f);
    }
    for (int e = 0; e < hn; ++e) {
        float ax, ay, bx, by;
        hull.GetPoint(e, ax, ay);
        hull.GetPoint((e + 1) % hn, bx, by);
        picture.DrawLine(ax, ay, bx, by, Rgb{255, 220, 0}, 2.5f);
    }
    picture.DrawDot(static_cast<float>(region.startX), static_cast<float>(region.startY), Rgb{0, 0, 0}, 4.0f);
    m_output.WriteFile("contour.png", [&](const std::filesystem::path& p) { picture.WritePng(p); });

    // mask.png: filled polygon on the region (white), region left out of the fill (blue),
    // fill outside the region (orange: holes and the outline's own pixels).
    Picture mask(w, h, PictureZoom(w, h), Rgb{24, 24, 32});
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool inFill = m_mask.GetPointUnsafe(x, y) > 0.5f;
            const bool inRegion = m_region[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)];
            if (inFill && inRegion)
                mask.SetImagePixel(x, y, Rgb{235, 235, 235});
            else if (inRegion)
                mask.SetImagePixel(x, y, Rgb{60, 110, 230});
            else if (inFill)
                mask.SetImagePixel(x, y, Rgb{240, 140, 30});
        }
    m_output.WriteFile("mask.png", [&](const std::filesystem::path& p) { mask.WritePng(p); });
}

} // namespace qzsse::demo
