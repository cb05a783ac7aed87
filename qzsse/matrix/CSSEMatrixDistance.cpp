// Distance transforms. Both leave the band layout: the chamfer scans run along rows of a
// row-major copy, and the exact transform runs down columns (four at a time) and then along
// rows.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/RowMask.h"

namespace {

const float c_fInf = std::numeric_limits<float>::infinity();

bool hasPixels(const CSSEMatrix& m)
{
    return m.GetMatrixDataDirectly() != nullptr && m.GetSizeX() > 0 && m.GetSizeY() > 0;
}

// Calls f(x, y, rows) for every group of four columns x..x+3 of every band, rows holding the
// transposed block (rows[l] = row 4j + l over the four columns), then g(x, y) for the pixels
// left over at the right edge.
template <class Block, class Pixel>
void forEachBlock(const CSSEMatrix& m, Block f, Pixel g)
{
    const int w = m.GetSizeX(), h = m.GetSizeY();
    for (int j = 0; 4 * j < h; ++j) {
        const __m128* band = m.GetMatrixDataDirectly()[j];
        int x = 0;
        for (; x + 4 <= w; x += 4) {
            __m128 r0 = band[x], r1 = band[x + 1], r2 = band[x + 2], r3 = band[x + 3];
            _MM_TRANSPOSE4_PS(r0, r1, r2, r3);
            const __m128 rows[4] = {r0, r1, r2, r3};
            f(x, 4 * j, rows);
        }
        for (; x < w; ++x)
            for (int y = 4 * j; y < std::min(h, 4 * j + 4); ++y)
                g(x, y);
    }
}

// Writes band j from a row-major buffer holding its rows (row 4j + l at src + l * stride);
// padding rows become 0.
void storeBand(CSSEMatrix& m, int j, const float* src, size_t stride)
{
    const int w = m.GetSizeX(), h = m.GetSizeY();
    __m128* band = m.GetMatrixDataDirectly()[j];
    const int rows = std::max(0, std::min(4, h - 4 * j));
    int x = 0;
    for (; x + 4 <= w && rows == 4; x += 4) {
        const float* p = src + x;
        __m128 c0 = _mm_loadu_ps(p), c1 = _mm_loadu_ps(p + stride), c2 = _mm_loadu_ps(p + 2 * stride),
               c3 = _mm_loadu_ps(p + 3 * stride);
        _MM_TRANSPOSE4_PS(c0, c1, c2, c3);
        band[x] = c0;
        band[x + 1] = c1;
        band[x + 2] = c2;
        band[x + 3] = c3;
    }
    for (; x < w; ++x) {
        alignas(16) float lanes[4] = {0.0f, 0.0f, 0.0f, 0.0f};
        for (int l = 0; l < rows; ++l)
            lanes[l] = src[static_cast<size_t>(l) * stride + x];
        band[x] = _mm_load_ps(lanes);
    }
}

// Every band from a row-major buffer of the whole image (pixel (x, y) at src[y * stride + x]).
void storeRowMajor(CSSEMatrix& m, const float* src, size_t stride)
{
    for (int j = 0; j < m.GetSSESizeY(); ++j)
        storeBand(m, j, src + static_cast<size_t>(4 * j) * stride, stride);
}

// One step of a chamfer scan at c: the three neighbours in the row scanned before (n), the
// one before in this row (prev), and the pixel itself.
inline void chamferStep(float* row, const float* n, int c, float& prev, float axial, float diagonal)
{
    const float v = std::min(std::min(row[c], n[c] + axial), std::min(n[c - 1] + diagonal, n[c + 1] + diagonal));
    prev = std::min(v, prev + axial);
    row[c] = prev;
}

} // namespace

void CSSEMatrix::Chamfer(float axial, float diagonal)
{
    if (!hasPixels(*this))
        return;
    const int w = m_SizeX, h = m_SizeY;
    // Framed by +inf: row y, column x of the image at d[(y + 1) * stride + x + 1].
    const size_t stride = static_cast<size_t>(w) + 2;
    std::vector<float> d(stride * (static_cast<size_t>(h) + 2), c_fInf);
    float* image = d.data() + stride + 1;
    forEachBlock(
        *this,
        [&](int x, int y, const __m128* rows) {
            for (int l = 0; l < 4 && y + l < h; ++l) {
                const __m128 empty = _mm_cmpeq_ps(rows[l], _mm_setzero_ps());
                _mm_storeu_ps(image + static_cast<size_t>(y + l) * stride + x,
                              _mm_andnot_ps(empty, _mm_set1_ps(c_fInf)));
            }
        },
        [&](int x, int y) { image[static_cast<size_t>(y) * stride + x] = GetPointUnsafe(x, y) == 0.0f ? 0.0f : c_fInf; });
    // Each scan takes four rows at once, each row two columns behind the one before, so that
    // the four running minima along the rows proceed side by side; a row still only reads the
    // previous row where that one is final.
    const ptrdiff_t s = static_cast<ptrdiff_t>(stride);
    for (int y0 = 0; y0 < h; y0 += 4) {
        const int n = std::min(4, h - y0);
        float prev[4] = {c_fInf, c_fInf, c_fInf, c_fInf};
        for (int t = 0; t < w + 2 * (n - 1); ++t)
            for (int l = 0; l < n; ++l) {
                const int c = t - 2 * l;
                if (c >= 0 && c < w) {
                    float* row = image + (y0 + l) * s;
                    chamferStep(row, row - s, c, prev[l], axial, diagonal);
                }
            }
    }
    for (int y0 = h - 1; y0 >= 0; y0 -= 4) {
        const int n = std::min(4, y0 + 1);
        float prev[4] = {c_fInf, c_fInf, c_fInf, c_fInf};
        for (int t = 0; t < w + 2 * (n - 1); ++t)
            for (int l = 0; l < n; ++l) {
                const int c = w - 1 - (t - 2 * l);
                if (c >= 0 && c < w) {
                    float* row = image + (y0 - l) * s;
                    chamferStep(row, row + s, c, prev[l], axial, diagonal);
                }
            }
    }
    storeRowMajor(*this, image, stride);
}

namespace {

constexpr int32_t c_iNone = std::numeric_limits<int32_t>::max();

// Squared distance along one row to the nearest source, from the lower envelope of the
// parabolas (q - v)^2 + f(v) of the finite samples (Felzenszwalb-Huttenlocher). The
// breakpoints are kept as exact fractions num / den, so every comparison is exact.
void lowerEnvelope(const int32_t* f, float* out, int n, std::vector<int>& v, std::vector<int64_t>& num,
                   std::vector<int64_t>& den)
{
    int k = -1;
    for (int q = 0; q < n; ++q) {
        if (f[q] == c_iNone)
            continue;
        const int64_t fq = int64_t{f[q]} + int64_t{q} * q;
        int64_t sn = 0, sd = 1;
        while (k >= 0) {
            const int p = v[static_cast<size_t>(k)];
            sn = fq - (int64_t{f[p]} + int64_t{p} * p);
            sd = 2 * int64_t{q - p};
            // keep parabola p while the new breakpoint lies right of p's own
            if (k == 0 || sn * den[static_cast<size_t>(k)] > num[static_cast<size_t>(k)] * sd)
                break;
            --k;
        }
        ++k;
        v[static_cast<size_t>(k)] = q;
        num[static_cast<size_t>(k)] = sn;
        den[static_cast<size_t>(k)] = sd;
    }
    if (k < 0) {
        std::fill(out, out + n, c_fInf);
        return;
    }
    const int count = k + 1;
    k = 0;
    for (int q = 0; q < n; ++q) {
        while (k + 1 < count && num[static_cast<size_t>(k) + 1] < int64_t{q} * den[static_cast<size_t>(k) + 1])
            ++k;
        const int64_t dq = q - v[static_cast<size_t>(k)];
        out[q] = std::sqrt(static_cast<float>(dq * dq + f[v[static_cast<size_t>(k)]]));
    }
}

} // namespace

void CSSEMatrix::DistanceTransform()
{
    if (!hasPixels(*this))
        return;
    const int w = m_SizeX, h = m_SizeY;
    const size_t sw = static_cast<size_t>(w);
    // Down the columns, four at a time: rows since the last source above (c_iNone for none),
    // then, from the bottom, the squared distance to the nearest source in the column.
    std::vector<int32_t> g(sw * static_cast<size_t>(h));
    {
        std::vector<int32_t> run(sw, c_iNone);
        auto advance = [](int32_t r) { return r == c_iNone ? c_iNone : r + 1; };
        forEachBlock(
            *this,
            [&](int x, int y, const __m128* rows) {
                for (int l = 0; l < 4 && y + l < h; ++l) {
                    alignas(16) float v[4];
                    _mm_store_ps(v, rows[l]);
                    int32_t* cell = g.data() + static_cast<size_t>(y + l) * sw + x;
                    for (int i = 0; i < 4; ++i) {
                        int32_t& r = run[static_cast<size_t>(x + i)];
                        r = v[i] == 0.0f ? 0 : advance(r);
                        cell[i] = r;
                    }
                }
            },
            [&](int x, int y) {
                int32_t& r = run[static_cast<size_t>(x)];
                r = GetPointUnsafe(x, y) == 0.0f ? 0 : advance(r);
                g[static_cast<size_t>(y) * sw + x] = r;
            });
        std::fill(run.begin(), run.end(), c_iNone);
        for (int y = h - 1; y >= 0; --y) {
            int32_t* cell = g.data() + static_cast<size_t>(y) * sw;
            for (size_t x = 0; x < sw; ++x) {
                const int32_t r = cell[x] == 0 ? 0 : advance(run[x]);
                run[x] = r;
                const int32_t nearest = std::min(cell[x], r);
                cell[x] = nearest == c_iNone ? c_iNone : nearest * nearest;
            }
        }
    }
    // Along the rows: the envelope of the column distances, four rows and then one band at a
    // time.
    std::vector<int> v(sw);
    std::vector<int64_t> num(sw), den(sw);
    std::vector<float> lines(4 * sw);
    for (int j = 0; j < m_SSESizeY; ++j) {
        for (int l = 0; l < 4 && 4 * j + l < h; ++l)
            lowerEnvelope(g.data() + static_cast<size_t>(4 * j + l) * sw, lines.data() + static_cast<size_t>(l) * sw,
                          w, v, num, den);
        storeBand(*this, j, lines.data(), sw);
    }
}
