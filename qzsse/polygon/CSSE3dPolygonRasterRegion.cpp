// Whole-matrix region work of CSSE3dPolygon on the polygon itself (no prepared copy): the
// outside pixels, the distance transform of the interior, and the seed fill. All of them
// classify the real pixels of the matrix with PointInLineInnerArea(x, y, 1).

#include "qzsse/polygon/CSSE3dPolygon.h"

#include <cmath>
#include <cstdint>
#include <limits>
#include <utility>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/polygon/detail/BandMaskFill.h"
#include "qzsse/polygon/detail/RasterCommon.h"

namespace qzsse::detail {
namespace {

// Inside flags of every real pixel, row-major.
std::vector<std::uint8_t> insideMask(const OutlineXY& outline, int width, int height)
{
    std::vector<std::uint8_t> mask(static_cast<size_t>(width) * static_cast<size_t>(height), 0);
    RowInsideScanner scanner(outline);
    std::vector<InsideRun> runs;
    for (int y = 0; y < height; ++y) {
        scanner.scanRow(y, 0, width - 1, runs);
        std::uint8_t* row = mask.data() + static_cast<size_t>(y) * width;
        for (const InsideRun& run : runs)
            for (int x = run.first; x <= run.last; ++x)
                row[x] = 1;
    }
    return mask;
}

// Exact 1-D squared distance transform of f (n samples at a stride, written back in place):
// the lower envelope of the parabolas rooted at the finite samples. Inputs are integers, so
// every intersection is a correctly rounded quotient and ties resolve exactly. v, z and d
// are scratch of n, n + 1 and n entries.
void squaredDistance1D(double* f, int n, size_t stride, std::vector<int>& v, std::vector<double>& z,
                       std::vector<double>& d)
{
    const double inf = std::numeric_limits<double>::infinity();
    const auto sample = [&](int q) { return f[static_cast<size_t>(q) * stride]; };
    int k = -1;
    for (int q = 0; q < n; ++q) {
        const double fq = sample(q);
        if (fq == inf)
            continue;
        if (k < 0) {
            k = 0;
            v[0] = q;
            z[0] = -inf;
            z[1] = inf;
            continue;
        }
        double s;
        for (;;) {
            const int p = v[static_cast<size_t>(k)];
            s = ((fq + static_cast<double>(q) * q) - (sample(p) + static_cast<double>(p) * p)) / (2.0 * (q - p));
            if (s > z[static_cast<size_t>(k)])
                break;
            --k; // z[0] is -inf, so this stops at 0
        }
        ++k;
        v[static_cast<size_t>(k)] = q;
        z[static_cast<size_t>(k)] = s;
        z[static_cast<size_t>(k) + 1] = inf;
    }
    if (k < 0)
        return; // nothing finite: everything stays infinite
    k = 0;
    for (int q = 0; q < n; ++q) {
        while (z[static_cast<size_t>(k) + 1] < q)
            ++k;
        const int p = v[static_cast<size_t>(k)];
        d[static_cast<size_t>(q)] = static_cast<double>(q - p) * (q - p) + sample(p);
    }
    for (int q = 0; q < n; ++q)
        f[static_cast<size_t>(q) * stride] = d[static_cast<size_t>(q)];
}

} // namespace
} // namespace qzsse::detail

void CSSE3dPolygon::DrawOutsidePixels(float value, CSSEMatrix* matrix)
{
    if (!qzsse::detail::hasStorage(matrix))
        return;
    const int width = matrix->GetSizeX();
    const int height = matrix->GetSizeY();
    qzsse::detail::RowInsideScanner scanner(rasterOutline());
    const qzsse::detail::StoreValue store{_mm_set1_ps(value)};
    qzsse::detail::BandMaskFolder<qzsse::detail::FloatBands, decltype(store)> folder(matrix->GetMatrixDataDirectly(),
                                                                                     width, height, store);
    std::vector<qzsse::detail::InsideRun> inside, outside;
    for (int y = 0; y < height; ++y) {
        scanner.scanRow(y, 0, width - 1, inside);
        outside.clear();
        int from = 0;
        for (const qzsse::detail::InsideRun& run : inside) {
            if (run.first > from)
                outside.push_back({from, run.first - 1});
            from = run.last + 1;
        }
        if (from <= width - 1)
            outside.push_back({from, width - 1});
        folder.addRuns(y, outside);
    }
    folder.finish();
}

// Separable exact Euclidean transform (columns, then rows) on the mask framed by one ring of
// outside positions, so the matrix border is as far as any distance reaches.
void CSSE3dPolygon::InternalAreaDistanceTransform(CSSEMatrix* matrix)
{
    if (!qzsse::detail::hasStorage(matrix))
        return;
    const int width = matrix->GetSizeX();
    const int height = matrix->GetSizeY();
    const std::vector<std::uint8_t> mask = qzsse::detail::insideMask(rasterOutline(), width, height);

    const int fw = width + 2, fh = height + 2;
    const double inf = std::numeric_limits<double>::infinity();
    std::vector<double> f(static_cast<size_t>(fw) * fh, 0.0);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            if (mask[static_cast<size_t>(y) * width + x])
                f[static_cast<size_t>(y + 1) * fw + (x + 1)] = inf;

    const int longest = fw > fh ? fw : fh;
    std::vector<int> v(static_cast<size_t>(longest));
    std::vector<double> z(static_cast<size_t>(longest) + 1), d(static_cast<size_t>(longest));
    for (int x = 1; x <= width; ++x)
        qzsse::detail::squaredDistance1D(f.data() + x, fh, static_cast<size_t>(fw), v, z, d);
    for (int y = 1; y <= height; ++y)
        qzsse::detail::squaredDistance1D(f.data() + static_cast<size_t>(y) * fw, fw, 1, v, z, d);

    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x) {
            const double squared = f[static_cast<size_t>(y + 1) * fw + (x + 1)];
            matrix->SetPointUnsafe(x, y, squared > 0.0 ? std::sqrt(static_cast<float>(squared)) : 0.0f);
        }
}

void CSSE3dPolygon::fillFromPoint(float value, CSSEMatrix* matrix, int x, int y)
{
    using qzsse::detail::clampInto;
    if (!qzsse::detail::hasStorage(matrix))
        return;
    const int width = matrix->GetSizeX();
    const int height = matrix->GetSizeY();
    x = clampInto(x, 0, width - 1);
    y = clampInto(y, 0, height - 1);
    std::vector<std::uint8_t> open = qzsse::detail::insideMask(rasterOutline(), width, height);
    const auto at = [&](int px, int py) -> std::uint8_t& { return open[static_cast<size_t>(py) * width + px]; };
    if (!at(x, y))
        return;

    // Span fill: each popped seed fills its whole run of open pixels and seeds the runs
    // touching it in the rows above and below; filled pixels are closed as they go.
    std::vector<std::pair<int, int>> seeds{{x, y}};
    while (!seeds.empty()) {
        const auto [sx, sy] = seeds.back();
        seeds.pop_back();
        if (!at(sx, sy))
            continue;
        int left = sx, right = sx;
        while (left > 0 && at(left - 1, sy))
            --left;
        while (right < width - 1 && at(right + 1, sy))
            ++right;
        for (int px = left; px <= right; ++px) {
            at(px, sy) = 0;
            matrix->SetPointUnsafe(px, sy, value);
        }
        for (int ny : {sy - 1, sy + 1}) {
            if (ny < 0 || ny >= height)
                continue;
            for (int px = left; px <= right; ++px)
                if (at(px, ny) && (px == left || !at(px - 1, ny)))
                    seeds.emplace_back(px, ny);
        }
    }
}
