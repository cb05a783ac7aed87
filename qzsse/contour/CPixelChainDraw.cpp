#include "qzsse/contour/CPixelChain.h"

#include "qzsse/matrix/CSSEMatrix.h"

namespace qzsse::detail {
namespace {

inline bool hasStorage(const CSSEMatrix* matrix)
{
    return matrix && matrix->GetMatrixDataDirectly() && matrix->GetSizeX() > 0 && matrix->GetSizeY() > 0;
}

// Bresenham from a to b, b excluded: b is drawn as the start of the next segment, so a
// closed chain sets every pixel of its outline exactly once per segment it lies on.
void drawSegment(CSSEMatrix& matrix, const pixel& a, const pixel& b)
{
    long long x = a.x;
    long long y = a.y;
    const long long dx = (b.x > a.x) ? static_cast<long long>(b.x) - a.x : static_cast<long long>(a.x) - b.x;
    const long long dy = (b.y > a.y) ? static_cast<long long>(b.y) - a.y : static_cast<long long>(a.y) - b.y;
    const int sx = (b.x > a.x) ? 1 : -1;
    const int sy = (b.y > a.y) ? 1 : -1;
    long long err = dx - dy;
    while (x != b.x || y != b.y) {
        matrix.SetPoint(static_cast<int>(x), static_cast<int>(y), a.value);
        const long long e2 = 2 * err;
        if (e2 > -dy) {
            err -= dy;
            x += sx;
        }
        if (e2 < dx) {
            err += dx;
            y += sy;
        }
    }
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

void CPixelChain::Insert(CSSEMatrix* matrix)
{
    if (!hasStorage(matrix) || m_iCount <= 0)
        return;
    if (m_iCount == 1) {
        matrix->SetPoint(m_pPixels[0].x, m_pPixels[0].y, m_pPixels[0].value);
        return;
    }
    for (int i = 0; i < m_iCount; ++i) {
        const pixel& a = m_pPixels[i];
        const pixel& b = m_pPixels[(i + 1 == m_iCount) ? 0 : i + 1];
        if (a.x == b.x && a.y == b.y)
            matrix->SetPoint(a.x, a.y, a.value);
        else
            drawSegment(*matrix, a, b);
    }
}

void CPixelChain::InsertSingle(CSSEMatrix* matrix)
{
    if (!hasStorage(matrix))
        return;
    for (int i = 0; i < m_iCount; ++i)
        matrix->SetPoint(m_pPixels[i].x, m_pPixels[i].y, m_pPixels[i].value);
}

void CPixelChain::InsertSingle(CSSEMatrix* matrix, bool keepHigher, float value)
{
    if (!hasStorage(matrix))
        return;
    for (int i = 0; i < m_iCount; ++i) {
        if (keepHigher)
            matrix->SetPointMax(m_pPixels[i].x, m_pPixels[i].y, value);
        else
            matrix->SetPointMin(m_pPixels[i].x, m_pPixels[i].y, value);
    }
}
