#include "qzsse/mesh/CHTriangulation.h"

#include <algorithm>
#include <climits>
#include <cstddef>
#include <emmintrin.h>
#include <utility>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace qzsse::detail {
namespace {

// The arrays a cell writes into; records already point at their slots.
struct MeshArrays {
    SSEPoint* corners;
    SSEPoint* normals;
    SSEPoint* faces;
};

// Which triangles a cell yields, named by its masks (left, right).
enum class CellShape { None, Full, Left3Right2, Left3Right1, Left1Right3, Left2Right3 };

inline CellShape cellShape(int maskLeft, int maskRight, bool fill)
{
    if (fill) {
        if (maskRight == 1 || maskRight == 2)
            maskRight = 3;
        if (maskLeft == 1 || maskLeft == 2)
            maskLeft = 3;
    }
    if (maskLeft == 3) {
        if (maskRight == 3)
            return CellShape::Full;
        if (maskRight == 2)
            return CellShape::Left3Right2;
        if (maskRight == 1)
            return CellShape::Left3Right1;
    } else if (maskRight == 3) {
        if (maskLeft == 1)
            return CellShape::Left1Right3;
        if (maskLeft == 2)
            return CellShape::Left2Right3;
    }
    return CellShape::None;
}

inline __m128 xyzLanes()
{
    return _mm_castsi128_ps(_mm_setr_epi32(-1, -1, -1, 0));
}

// v divided by its four-lane length, the squares summed as (v0 + v3) + (v1 + v2) like every
// CSSEFns length. Lane w is forced to 0 so NaN heights cannot leak into it.
inline __m128 unitVector(__m128 v)
{
    const __m128 sq = _mm_mul_ps(v, v);
    const __m128 pairs = _mm_add_ps(sq, _mm_shuffle_ps(sq, sq, _MM_SHUFFLE(0, 1, 2, 3)));
    const __m128 sum = _mm_add_ss(pairs, _mm_shuffle_ps(pairs, pairs, _MM_SHUFFLE(1, 1, 1, 1)));
    const __m128 len = _mm_sqrt_ss(sum);
    return _mm_and_ps(_mm_div_ps(v, _mm_shuffle_ps(len, len, 0)), xyzLanes());
}

// Subtracting from +0 rather than flipping the sign bit keeps zero lanes (w above all) +0.
inline __m128 negated(__m128 v)
{
    return _mm_sub_ps(_mm_setzero_ps(), v);
}

inline void putTriangle(const MeshArrays& a, int index, __m128 c0, __m128 c1, __m128 c2, __m128 n0, __m128 n1,
                        __m128 n2)
{
    const std::ptrdiff_t k = 3 * static_cast<std::ptrdiff_t>(index);
    a.corners[k].m = c0;
    a.corners[k + 1].m = c1;
    a.corners[k + 2].m = c2;
    a.normals[k].m = n0;
    a.normals[k + 1].m = n1;
    a.normals[k + 2].m = n2;
    a.faces[index].m = unitVector(_mm_add_ps(_mm_add_ps(n0, n1), n2));
}

// The body of AppendTriangle, inline so the matrix walks need no call per cell. The four
// corner normals are computed side by side, one corner per lane, with the same operations
// and order a per-corner computation would use, so the bits are identical.
inline void writeCell(const MeshArrays& a, int maskLeft, int maskRight, float x0, float x1, float y0, float y1,
                      float z00, float z01, float z10, float z11, int& index, bool invert, bool fill)
{
    const CellShape shape = cellShape(maskLeft, maskRight, fill);
    if (shape == CellShape::None)
        return;

    // Lanes: corners (x0,y0), (x0,y1), (x1,y0), (x1,y1).
    const __m128 nx = _mm_sub_ps(_mm_setr_ps(z00, z01, z00, z01), _mm_setr_ps(z10, z11, z10, z11));
    const __m128 ny = _mm_sub_ps(_mm_setr_ps(z00, z00, z10, z10), _mm_setr_ps(z01, z01, z11, z11));
    const __m128 one = _mm_set1_ps(1.0f);
    // (x*x + w*w) + (y*y + z*z) with w = 0 and z = 1; x*x + 0 is x*x for every x.
    const __m128 len =
        _mm_sqrt_ps(_mm_add_ps(_mm_mul_ps(nx, nx), _mm_add_ps(_mm_mul_ps(ny, ny), _mm_mul_ps(one, one))));
    __m128 n00 = _mm_div_ps(nx, len);
    __m128 n01 = _mm_div_ps(ny, len);
    __m128 n10 = _mm_div_ps(one, len);
    __m128 n11 = _mm_setzero_ps();
    _MM_TRANSPOSE4_PS(n00, n01, n10, n11);

    const __m128 p00 = _mm_setr_ps(x0, y0, z00, 0.0f);
    const __m128 p01 = _mm_setr_ps(x0, y1, z01, 0.0f);
    const __m128 p10 = _mm_setr_ps(x1, y0, z10, 0.0f);
    const __m128 p11 = _mm_setr_ps(x1, y1, z11, 0.0f);

    if (invert && shape != CellShape::Left3Right2) {
        n00 = negated(n00);
        n01 = negated(n01);
        n10 = negated(n10);
        n11 = negated(n11);
    }

    switch (shape) {
    case CellShape::Full:
        putTriangle(a, index++, p00, p11, p01, n00, n11, n01);
        putTriangle(a, index++, p00, p10, p11, n00, n10, n11);
        break;
    case CellShape::Left3Right2:
        if (invert) {
            // Corners 1 and 2 take the negation of corner 0's already negated normal.
            const __m128 first = negated(n00);
            const __m128 rest = negated(first);
            putTriangle(a, index++, p00, p11, p01, first, rest, rest);
        } else {
            putTriangle(a, index++, p00, p11, p01, n00, n11, n01);
        }
        break;
    case CellShape::Left3Right1:
        putTriangle(a, index++, p00, p10, p01, n00, n10, n01);
        break;
    case CellShape::Left1Right3:
        putTriangle(a, index++, p00, p10, p11, n00, n10, n11);
        break;
    case CellShape::Left2Right3:
        putTriangle(a, index++, p10, p11, p01, n10, n11, n01);
        break;
    case CellShape::None:
        break;
    }
}

inline MeshArrays arraysOf(const CHTriangulation& mesh)
{
    return {mesh.GetEdgeArray(), mesh.GetNormalArray(), mesh.GetMainNormalArray()};
}

// Lane mask of the samples of v that are inside: above the threshold (top) or below it.
inline int insideLanes(__m128 v, __m128 threshold, bool top)
{
    return _mm_movemask_ps(top ? _mm_cmplt_ps(threshold, v) : _mm_cmplt_ps(v, threshold));
}

// True when some row of the band has both corners of a column inside, which every
// triangle needs on one side; bits 0..4 are rows 4b .. 4b+4.
inline bool bandMayHaveTriangles(int left, int right)
{
    return ((left & (left >> 1)) | (right & (right >> 1))) & 0xF;
}

inline float sampleAt(__m128** data, int x, int y)
{
    return reinterpret_cast<const float*>(data[y >> 2])[(static_cast<std::ptrdiff_t>(x) << 2) + (y & 3)];
}

// A subsampled walk: cell corners at columns xLo, xLo + stepX, ... and rows yLo, yLo + stepY,
// ..., every corner within [xLo, xHi] x [yLo, yHi].
struct Lattice {
    int xLo, yLo, xHi, yHi, stepX, stepY;

    int cellColumns() const { return xHi - xLo >= stepX ? (xHi - xLo) / stepX : 0; }
    int cellRows() const { return yHi - yLo >= stepY ? (yHi - yLo) / stepY : 0; }
};

Lattice wholeMatrix(const CSSEMatrix& m, int stepX, int stepY)
{
    return {0, 0, m.GetSizeX() - 1, m.GetSizeY() - 1, stepX, stepY};
}

Lattice clippedRectangle(const CSSEMatrix& m, int stepX, int stepY, int minX, int minY, int maxX, int maxY)
{
    return {std::max(minX, 0), std::max(minY, 0), std::min(maxX, m.GetSizeX() - 1), std::min(maxY, m.GetSizeY() - 1),
            stepX, stepY};
}

// Meshes the lattice cells of `heights` into `mesh` and returns the number of triangles
// written. The arrays get at least `capacity` records, and two per inside corner when that
// is more: a sampling grid that happens to meet more inside samples than the matrix average
// would otherwise write past the end. inside(x, y, z) decides a corner.
template <class Inside>
int meshLattice(CHTriangulation& mesh, const CSSEMatrix& heights, int capacity, const Lattice& lattice,
                bool invert, bool fill, Inside inside)
{
    const int cols = lattice.cellColumns();
    const int rows = lattice.cellRows();
    if (cols == 0 || rows == 0) {
        mesh.CreateTriangulation(capacity);
        return 0;
    }
    __m128** data = heights.GetMatrixDataDirectly();
    const std::size_t stride = static_cast<std::size_t>(rows) + 1;
    // One flag per corner, column by column, so each corner is tested once.
    std::vector<unsigned char> flags(static_cast<std::size_t>(cols + 1) * stride);
    long long insideCorners = 0;
    for (int i = 0; i <= cols; ++i) {
        const int x = lattice.xLo + i * lattice.stepX;
        for (int j = 0; j <= rows; ++j) {
            const int y = lattice.yLo + j * lattice.stepY;
            const bool in = inside(x, y, sampleAt(data, x, y));
            flags[i * stride + j] = in ? 1 : 0;
            insideCorners += in ? 1 : 0;
        }
    }
    mesh.CreateTriangulation(static_cast<int>(std::min<long long>(std::max<long long>(capacity, 2 * insideCorners),
                                                                  INT_MAX)));
    const MeshArrays arrays = arraysOf(mesh);
    const float scaleX = mesh.GetScaleX(), scaleY = mesh.GetScaleY();
    const float spanX = scaleX * static_cast<float>(lattice.stepX);
    const float spanY = scaleY * static_cast<float>(lattice.stepY);
    int index = 0;
    for (int i = 0; i < cols; ++i) {
        const int xa = lattice.xLo + i * lattice.stepX, xb = xa + lattice.stepX;
        const unsigned char* left = &flags[i * stride];
        const unsigned char* right = left + stride;
        const float x0 = scaleX * static_cast<float>(xa);
        const float x1 = x0 + spanX;
        for (int j = 0; j < rows; ++j) {
            const int maskLeft = left[j] | left[j + 1] << 1;
            const int maskRight = right[j] | right[j + 1] << 1;
            if (maskLeft == 0 || maskRight == 0)
                continue;
            const int ya = lattice.yLo + j * lattice.stepY, yb = ya + lattice.stepY;
            const float y0 = scaleY * static_cast<float>(ya);
            const float y1 = y0 + spanY;
            writeCell(arrays, maskLeft, maskRight, x0, x1, y0, y1, sampleAt(data, xa, ya), sampleAt(data, xa, yb),
                      sampleAt(data, xb, ya), sampleAt(data, xb, yb), index, invert, fill);
        }
    }
    return index;
}

// 2N / (stepX * stepY) in 32-bit arithmetic, as the subsampled meshes reserve.
int subsampledCapacity(int insideSamples, int stepX, int stepY)
{
    return (2 * insideSamples) / (stepX * stepY);
}

int countInside(CSSEMatrix& m, float threshold, bool top)
{
    return top ? m.NumValuesAbove(threshold) : m.NumValuesBelow(threshold);
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

// --- constructors ----------------------------------------------------------------------------

// Every matrix constructor ends with the bounding box and the per-triangle differences,
// unless the matrix gave no record.
void CHTriangulation::FinishMatrixMesh()
{
    if (m_iNumTriangles > 0) {
        CalcBoundingBox();
        CalcSTV();
    }
}

CHTriangulation::CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY,
                                 float scaleZ)
    : CHTriangulation()
{
    BaseInitialization(scaleX, scaleY, scaleZ);
    CreateTriangulationFromSSEField(matrix, threshold, top);
    FinishMatrixMesh();
}

CHTriangulation::CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY,
                                 float scaleZ, int stepX, int stepY)
    : CHTriangulation()
{
    BaseInitialization(scaleX, scaleY, scaleZ);
    CreateTriangulationFromSSEFieldSubSampled(matrix, threshold, top, stepX, stepY);
    FinishMatrixMesh();
}

CHTriangulation::CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY,
                                 float scaleZ, int stepX, int stepY, CSSE3dPolygon* polygon)
    : CHTriangulation()
{
    BaseInitialization(scaleX, scaleY, scaleZ);
    CreateTriangulationFromSSEFieldSubSampled(matrix, threshold, top, stepX, stepY, polygon);
    FinishMatrixMesh();
}

CHTriangulation::CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY,
                                 float scaleZ, int stepX, int stepY, int minX, int minY, int maxX, int maxY,
                                 bool fill)
    : CHTriangulation()
{
    BaseInitialization(scaleX, scaleY, scaleZ);
    CreateTriangulationFromSSEFieldSubSampled(matrix, threshold, top, stepX, stepY, minX, minY, maxX, maxY, fill);
    FinishMatrixMesh();
}

CHTriangulation::CHTriangulation(CSSEMatrix* upper, CSSEMatrix* lower, bool top, float scaleX, float scaleY,
                                 float scaleZ, int stepX, int stepY)
    : CHTriangulation()
{
    BaseInitialization(scaleX, scaleY, scaleZ);
    CreateTriangulationFromSSEFieldSubSampledTwoFields(upper, lower, top, stepX, stepY);
    FinishMatrixMesh();
}

CHTriangulation::CHTriangulation(CSSEMatrix* upper, CSSEMatrix* lower, bool top, float scaleX, float scaleY,
                                 float scaleZ, int stepX, int stepY, int minX, int minY, int maxX, int maxY)
    : CHTriangulation()
{
    BaseInitialization(scaleX, scaleY, scaleZ);
    CreateTriangulationFromSSEFieldSubSampledTwoFields(upper, lower, top, stepX, stepY, minX, minY, maxX, maxY);
    FinishMatrixMesh();
}

// --- cell emitter ------------------------------------------------------------------------------

void CHTriangulation::AppendTriangle(int maskLeft, int maskRight, float x0, float x1, float y0, float y1, float z00,
                                     float z01, float z10, float z11, int& index, bool invert, bool fill)
{
    writeCell(arraysOf(*this), maskLeft, maskRight, x0, x1, y0, y1, z00, z01, z10, z11, index, invert, fill);
}

// --- full resolution -----------------------------------------------------------------------------

// Walks column by column and, within a column, band by band, so a band's four rows are
// decided by one comparison per column vector. Each column's lane masks are computed once
// for all bands and reused as the left column of the next step.
void CHTriangulation::CreateTriangulationFromSSEField(CSSEMatrix* matrix, float threshold, bool top)
{
    const int n = countInside(*matrix, threshold, top);
    if (2 * n < 1)
        return;
    CreateTriangulation(2 * n);

    const int width = matrix->GetSizeX();
    const int bands = matrix->GetSSESizeY();
    if (width < 2 || bands < 2)
        return;
    __m128** data = matrix->GetMatrixDataDirectly();
    const __m128 t = _mm_set1_ps(threshold);
    std::vector<int> leftLanes(bands), rightLanes(bands);
    for (int b = 0; b < bands; ++b)
        leftLanes[b] = insideLanes(data[b][0], t, top);

    const MeshArrays arrays = arraysOf(*this);
    const bool invert = !top;
    const float scaleX = m_fScaleX, scaleY = m_fScaleY;
    int index = 0;
    for (int x = 0; x + 1 < width; ++x) {
        for (int b = 0; b < bands; ++b)
            rightLanes[b] = insideLanes(data[b][x + 1], t, top);
        const float x0 = scaleX * static_cast<float>(x);
        const float x1 = x0 + scaleX;
        for (int b = 0; b + 1 < bands; ++b) {
            // Bit r: row 4b + r; bit 4 is the next band's first row.
            const int left = leftLanes[b] | (leftLanes[b + 1] & 1) << 4;
            const int right = rightLanes[b] | (rightLanes[b + 1] & 1) << 4;
            if (!bandMayHaveTriangles(left, right))
                continue;
            const float* l = reinterpret_cast<const float*>(&data[b][x]);
            const float* r = reinterpret_cast<const float*>(&data[b][x + 1]);
            const float zl[5] = {l[0], l[1], l[2], l[3], reinterpret_cast<const float*>(&data[b + 1][x])[0]};
            const float zr[5] = {r[0], r[1], r[2], r[3], reinterpret_cast<const float*>(&data[b + 1][x + 1])[0]};
            for (int row = 0; row < 4; ++row) {
                const int maskLeft = (left >> row) & 3;
                const int maskRight = (right >> row) & 3;
                if (maskLeft != 3 && maskRight != 3)
                    continue;
                const float y0 = scaleY * static_cast<float>(4 * b + row);
                const float y1 = y0 + scaleY;
                writeCell(arrays, maskLeft, maskRight, x0, x1, y0, y1, zl[row], zl[row + 1], zr[row], zr[row + 1],
                          index, invert, false);
            }
        }
        std::swap(leftLanes, rightLanes);
    }
    // The count stays at 2N: the records behind the last written one remain zeroed.
}

// --- subsampled variants ---------------------------------------------------------------------------

void CHTriangulation::CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top,
                                                                int stepX, int stepY)
{
    const int capacity = subsampledCapacity(countInside(*matrix, threshold, top), stepX, stepY);
    if (capacity < 1) {
        m_iNumTriangles = 0;
        return;
    }
    auto inside = [threshold, top](int, int, float z) { return top ? z > threshold : z < threshold; };
    m_iNumTriangles =
        meshLattice(*this, *matrix, capacity, wholeMatrix(*matrix, stepX, stepY), !top, false, inside);
}

void CHTriangulation::CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top,
                                                                int stepX, int stepY, CSSE3dPolygon* polygon)
{
    const int capacity = subsampledCapacity(countInside(*matrix, threshold, top), stepX, stepY);
    if (capacity < 1) {
        m_iNumTriangles = 0;
        return;
    }
    auto inside = [threshold, top, polygon](int x, int y, float z) {
        return (top ? z > threshold : z < threshold) &&
               polygon->PointInLineInnerArea(static_cast<float>(x), static_cast<float>(y), 4);
    };
    m_iNumTriangles =
        meshLattice(*this, *matrix, capacity, wholeMatrix(*matrix, stepX, stepY), !top, false, inside);
}

void CHTriangulation::CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top,
                                                                int stepX, int stepY, int minX, int minY, int maxX,
                                                                int maxY, bool fill)
{
    const int capacity = subsampledCapacity(countInside(*matrix, threshold, top), stepX, stepY);
    if (capacity < 1) {
        m_iNumTriangles = 0;
        return;
    }
    auto inside = [threshold, top](int, int, float z) { return top ? z > threshold : z < threshold; };
    m_iNumTriangles = meshLattice(*this, *matrix, capacity,
                                  clippedRectangle(*matrix, stepX, stepY, minX, minY, maxX, maxY), !top, fill, inside);
}

void CHTriangulation::CreateTriangulationFromSSEFieldSubSampledTwoFields(CSSEMatrix* upper, CSSEMatrix* lower,
                                                                         bool top, int stepX, int stepY)
{
    CreateTriangulationFromSSEFieldSubSampledTwoFields(upper, lower, top, stepX, stepY, 0, 0, upper->GetSizeX() - 1,
                                                       upper->GetSizeY() - 1);
}

void CHTriangulation::CreateTriangulationFromSSEFieldSubSampledTwoFields(CSSEMatrix* upper, CSSEMatrix* lower,
                                                                         bool top, int stepX, int stepY, int minX,
                                                                         int minY, int maxX, int maxY)
{
    const int n = top ? upper->NumValuesAbove(lower) : upper->NumValuesBelow(lower);
    const int capacity = subsampledCapacity(n, stepX, stepY);
    if (capacity < 1) {
        m_iNumTriangles = 0;
        return;
    }
    __m128** other = lower->GetMatrixDataDirectly();
    auto inside = [other, top](int x, int y, float z) {
        const float o = sampleAt(other, x, y);
        return top ? z > o : z < o;
    };
    m_iNumTriangles = meshLattice(*this, *upper, capacity,
                                  clippedRectangle(*upper, stepX, stepY, minX, minY, maxX, maxY), !top, false, inside);
}
