// Distance transforms. Both work on a row-major copy of the image, where a row is contiguous
// and the scans along rows and down columns are plain loops.

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <limits>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/RowMask.h"

namespace {

const float c_fInf = std::numeric_limits<float>::infinity();

// Row-major copy with a one-pixel frame: `frame` around, 0 for empty pixels, `inside` for
// the rest.
std::vector<float> framedSources(const CSSEMatrix& m, float inside, float frame)
{
    const int w = m.GetSizeX(), h = m.GetSizeY();
    const size_t stride = static_cast<size_t>(w) + 2;
    std::vector<float> d(stride * (static_cast<size_t>(h) + 2), frame);
    for (int y = 0; y < h; ++y) {
        float* row = d.data() + (static_cast<size_t>(y) + 1) * stride + 1;
        for (int x = 0; x < w; ++x)
            row[x] = m.GetPointUnsafe(x, y) == 0.0f ? 0.0f : inside;
    }
    return d;
}

// Writes the real pixels back from the framed copy; padding rows become 0.
void storeFramed(CSSEMatrix& m, const std::vector<float>& d)
{
    const int w = m.GetSizeX(), h = m.GetSizeY();
    const size_t stride = static_cast<size_t>(w) + 2;
    const int last = m.GetSSESizeY() - 1;
    __m128* lastBand = m.GetMatrixDataDirectly()[last];
    const __m128 real = qzsse::detail::realRowsMask(last, h);
    for (int x = 0; x < w; ++x)
        lastBand[x] = _mm_and_ps(lastBand[x], real);
    for (int y = 0; y < h; ++y) {
        const float* row = d.data() + (static_cast<size_t>(y) + 1) * stride + 1;
        for (int x = 0; x < w; ++x)
            m.SetPointUnsafe(x, y, row[x]);
    }
}

bool hasPixels(const CSSEMatrix& m)
{
    return m.GetMatrixDataDirectly() != nullptr && m.GetSizeX() > 0 && m.GetSizeY() > 0;
}

} // namespace

void CSSEMatrix::Chamfer(float axial, float diagonal)
{
    if (!hasPixels(*this))
        return;
    const int w = m_SizeX, h = m_SizeY;
    const size_t stride = static_cast<size_t>(w) + 2;
    std::vector<float> d = framedSources(*this, c_fInf, c_fInf);
    std::vector<float> fromAbove(static_cast<size_t>(w));
    // Forward: the three neighbours in the row above (a packed pass), then the left one (a
    // running pass); backward the same from below and from the right.
    for (int y = 1; y <= h; ++y) {
        float* row = d.data() + static_cast<size_t>(y) * stride + 1;
        const float* up = row - stride;
        for (int x = 0; x < w; ++x)
            fromAbove[x] = std::min(std::min(up[x - 1] + diagonal, up[x] + axial), up[x + 1] + diagonal);
        for (int x = 0; x < w; ++x)
            if (row[x] != 0.0f)
                row[x] = std::min(row[x], std::min(fromAbove[x], row[x - 1] + axial));
    }
    for (int y = h; y >= 1; --y) {
        float* row = d.data() + static_cast<size_t>(y) * stride + 1;
        const float* down = row + stride;
        for (int x = 0; x < w; ++x)
            fromAbove[x] = std::min(std::min(down[x - 1] + diagonal, down[x] + axial), down[x + 1] + diagonal);
        for (int x = w - 1; x >= 0; --x)
            if (row[x] != 0.0f)
                row[x] = std::min(row[x], std::min(fromAbove[x], row[x + 1] + axial));
    }
    storeFramed(*this, d);
}

namespace {

// Squared distance along one line to the nearest source, from the lower envelope of the
// parabolas (q - v)^2 + f(v) of the finite samples (Felzenszwalb-Huttenlocher). Integer
// squared distances keep every envelope value exact; only the breakpoints are doubles.
void lowerEnvelope(const int64_t* f, int64_t* out, int n, std::vector<int>& v, std::vector<double>& z)
{
    constexpr int64_t none = std::numeric_limits<int64_t>::max();
    int k = -1;
    for (int q = 0; q < n; ++q) {
        if (f[q] == none)
            continue;
        const double fq = static_cast<double>(f[q]) + static_cast<double>(q) * q;
        double s = 0.0;
        while (k >= 0) {
            const int p = v[static_cast<size_t>(k)];
            s = (fq - (static_cast<double>(f[p]) + static_cast<double>(p) * p)) / (2.0 * (q - p));
            if (s > z[static_cast<size_t>(k)])
                break;
            --k;
        }
        ++k;
        v[static_cast<size_t>(k)] = q;
        z[static_cast<size_t>(k)] = k == 0 ? -std::numeric_limits<double>::infinity() : s;
    }
    if (k < 0) {
        std::fill(out, out + n, none);
        return;
    }
    const int count = k + 1;
    k = 0;
    for (int q = 0; q < n; ++q) {
        while (k + 1 < count && z[static_cast<size_t>(k) + 1] < q)
            ++k;
        const int64_t dq = q - v[static_cast<size_t>(k)];
        out[q] = dq * dq + f[v[static_cast<size_t>(k)]];
    }
}

} // namespace

void CSSEMatrix::DistanceTransform()
{
    if (!hasPixels(*this))
        return;
    const int w = m_SizeX, h = m_SizeY;
    const size_t sw = static_cast<size_t>(w);
    constexpr int64_t none = std::numeric_limits<int64_t>::max();
    // Down the columns: the distance to the nearest source in the same column, squared.
    std::vector<int64_t> g(sw * static_cast<size_t>(h));
    std::vector<int> run(sw, -1); // rows since the last source, -1 for none yet
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            int& r = run[static_cast<size_t>(x)];
            r = GetPointUnsafe(x, y) == 0.0f ? 0 : (r < 0 ? -1 : r + 1);
            g[static_cast<size_t>(y) * sw + x] = r < 0 ? none : int64_t{r} * r;
        }
    std::fill(run.begin(), run.end(), -1);
    for (int y = h - 1; y >= 0; --y)
        for (int x = 0; x < w; ++x) {
            int& r = run[static_cast<size_t>(x)];
            int64_t& cell = g[static_cast<size_t>(y) * sw + x];
            r = cell == 0 ? 0 : (r < 0 ? -1 : r + 1);
            if (r >= 0)
                cell = std::min(cell, int64_t{r} * r);
        }
    // Along the rows: the envelope of the column distances.
    std::vector<int64_t> line(sw);
    std::vector<int> v(sw);
    std::vector<double> z(sw);
    const int last = m_SSESizeY - 1;
    __m128* lastBand = m_Data[last];
    const __m128 real = qzsse::detail::realRowsMask(last, h);
    for (int x = 0; x < w; ++x)
        lastBand[x] = _mm_and_ps(lastBand[x], real);
    for (int y = 0; y < h; ++y) {
        lowerEnvelope(g.data() + static_cast<size_t>(y) * sw, line.data(), w, v, z);
        for (int x = 0; x < w; ++x) {
            const int64_t d2 = line[static_cast<size_t>(x)];
            SetPointUnsafe(x, y, d2 == none ? c_fInf : std::sqrt(static_cast<float>(d2)));
        }
    }
}
