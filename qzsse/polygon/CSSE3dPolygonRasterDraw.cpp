// Outline drawing of CSSE3dPolygon: vertex plots, the run-marking fill over plotted
// vertices, and the open polyline with z interpolated along its edges.

#include "qzsse/polygon/CSSE3dPolygon.h"

#include <cmath>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/polygon/detail/RasterCommon.h"

namespace qzsse::detail {
namespace {

constexpr float c_fRunMarkerOffset = 5.0f;
constexpr float c_fBoundaryTolerance = 1.0f;
constexpr float c_fDownwardColumnTolerance = 0.1f;

// One straight line of cells through the matrix: a row (cells vary in x) or a column.
struct CellLine {
    CSSEMatrix& matrix;
    bool alongRow;
    int fixed;   // the row of a row, the column of a column (clamped by the accessors)
    long long length;

    float read(long long p) const
    {
        const int q = static_cast<int>(p < 0 ? -1 : (p >= length ? length : p));
        return alongRow ? matrix.GetPoint(q, fixed) : matrix.GetPoint(fixed, q);
    }
    void write(long long p, float v) const
    {
        const int q = static_cast<int>(p < 0 ? -1 : (p >= length ? length : p));
        if (alongRow)
            matrix.SetPoint(q, fixed, v);
        else
            matrix.SetPoint(fixed, q, v);
    }
};

// Searches from p0 + dir in steps of dir for a boundary cell (|cell - value| < tolerance)
// and marks the cells strictly between p0 and the hit with value + 5. Searching down it gives
// up when p0 < 1 or a tested position below 1 is no hit; searching up, when p0 >= length - 1
// or a tested position at or beyond length - 1 is no hit. Positions beyond the matrix all
// read the same clamped cell, so the walk over them is skipped: one test stands for all.
void markRun(const CellLine& line, long long p0, int dir, float value, float tolerance)
{
    const long long last = line.length - 1;
    const auto isBoundary = [&](long long p) { return std::fabs(line.read(p) - value) < tolerance; };
    long long p = p0 + dir;
    long long hit;
    if (dir < 0) {
        if (p0 < 1)
            return;
        if (p > last) {
            if (isBoundary(p))
                return; // the hit is p0 - 1 itself: nothing lies between
            p = last;
        }
        for (;;) {
            if (isBoundary(p)) {
                hit = p;
                break;
            }
            if (p < 1)
                return;
            --p;
        }
        for (long long q = (p0 - 1 < last ? p0 - 1 : last); q > hit; --q)
            line.write(q, value + c_fRunMarkerOffset);
    } else {
        if (p0 >= last)
            return;
        if (p < 0) {
            if (isBoundary(p))
                return;
            p = 0;
        }
        for (;;) {
            if (isBoundary(p)) {
                hit = p;
                break;
            }
            if (p >= last)
                return;
            ++p;
        }
        for (long long q = (p0 + 1 > 0 ? p0 + 1 : 0); q < hit; ++q)
            line.write(q, value + c_fRunMarkerOffset);
    }
}

// Open polyline with z interpolated; `write(x, y, z)` decides how a sample combines.
template <class Write>
void drawFineZ(const float* xs, const float* ys, const float* zs, int n, Write write)
{
    for (int i = 0; i + 1 < n; ++i) {
        const float x0 = xs[i], y0 = ys[i], z0 = zs[i];
        const float x1 = xs[i + 1], y1 = ys[i + 1], z1 = zs[i + 1];
        write(roundToInt(x0), roundToInt(y0), z0);
        write(roundToInt(x1), roundToInt(y1), z1);
        const float dx = x1 - x0;
        const float dy = y1 - y0;
        const float length = std::sqrt(dx * dx + dy * dy);
        if (!(length >= 0.5f))
            continue;
        const int k = truncToInt(2.0f * length + 0.5f);
        const float stepX = dx / static_cast<float>(k);
        const float stepY = dy / static_cast<float>(k);
        const float stepZ = (z1 - z0) / static_cast<float>(k);
        for (int t = 0; t < k; ++t) {
            const float ft = static_cast<float>(t);
            write(roundToInt(x0 + ft * stepX), roundToInt(y0 + ft * stepY), z0 + ft * stepZ);
        }
    }
}

} // namespace
} // namespace qzsse::detail

using qzsse::detail::roundToInt;
using qzsse::detail::truncToInt;

void CSSE3dPolygon::DrawInMatrix(float value, CSSEMatrix* matrix, bool drawZY, float offsetX, float offsetY,
                                 bool drawXZ)
{
    if (!qzsse::detail::hasStorage(matrix))
        return;
    for (int i = 0; i < m_nNumPoints; ++i) {
        if (drawXZ)
            matrix->Set3x3BoxPoint(truncToInt(offsetX + 0.5f + m_pX[i]), truncToInt(offsetY + 0.5f + m_pZ[i]), value);
        else if (drawZY)
            matrix->SetPoint(roundToInt(m_pZ[i]), roundToInt(m_pY[i]), value);
        else
            matrix->Set3x3BoxPoint(truncToInt(offsetX + 0.5f + m_pX[i]), truncToInt(offsetY + 0.5f + m_pY[i]), value);
    }
}

void CSSE3dPolygon::DrawInMatrixAndFill(float value, CSSEMatrix* matrix)
{
    using qzsse::detail::CellLine;
    const int used = 4 * (m_nNumPoints / 4);
    if (used == 0 || !qzsse::detail::hasStorage(matrix))
        return;
    for (int i = 0; i < used; ++i)
        matrix->SetPoint(roundToInt(m_pX[i]), roundToInt(m_pY[i]), value);

    const long long width = matrix->GetSizeX();
    const long long height = matrix->GetSizeY();
    for (int i = 0; i < used; ++i) {
        const int next = (i + 1 < used) ? i + 1 : 0;
        const int xi = roundToInt(m_pX[i]);
        const int yi = roundToInt(m_pY[i]);
        const float dx = m_pX[next] - m_pX[i];
        const float dy = m_pY[next] - m_pY[i];
        if (std::fabs(dx) <= std::fabs(dy)) {
            const CellLine row{*matrix, true, yi, width};
            qzsse::detail::markRun(row, xi, dy >= 0.0f ? -1 : 1, value, qzsse::detail::c_fBoundaryTolerance);
        } else {
            const CellLine column{*matrix, false, xi, height};
            if (dx >= 0.0f)
                qzsse::detail::markRun(column, yi, 1, value, qzsse::detail::c_fDownwardColumnTolerance);
            else
                qzsse::detail::markRun(column, yi, -1, value, qzsse::detail::c_fBoundaryTolerance);
        }
    }
}

void CSSE3dPolygon::DrawInMatrixFineZ(CSSEMatrix* matrix)
{
    if (!qzsse::detail::hasStorage(matrix))
        return;
    qzsse::detail::drawFineZ(m_pX, m_pY, m_pZ, m_nNumPoints,
                             [matrix](int x, int y, float z) { matrix->SetPoint(x, y, z); });
}

// SetPointMax stores (cell > z) ? cell : z, which is writing z wherever the cell is not
// greater; SetPointMin likewise writes wherever the cell is not smaller.
void CSSE3dPolygon::DrawInMatrixFineZMax(CSSEMatrix* matrix)
{
    if (!qzsse::detail::hasStorage(matrix))
        return;
    qzsse::detail::drawFineZ(m_pX, m_pY, m_pZ, m_nNumPoints,
                             [matrix](int x, int y, float z) { matrix->SetPointMax(x, y, z); });
}

void CSSE3dPolygon::DrawInMatrixFineZMin(CSSEMatrix* matrix)
{
    if (!qzsse::detail::hasStorage(matrix))
        return;
    qzsse::detail::drawFineZ(m_pX, m_pY, m_pZ, m_nNumPoints,
                             [matrix](int x, int y, float z) { matrix->SetPointMin(x, y, z); });
}
