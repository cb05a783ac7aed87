// Minimum filter and erosion: a horizontal pass into a scratch matrix, then a vertical pass
// back. Pixels outside the image take no part, which for a minimum is the same as clamped
// access; every output vector is computed the same way whoever computes it, so splitting the
// bands over threads cannot change the result.

#include <algorithm>
#include <limits>
#include <memory>
#include <vector>

#include "qzsse/base/RbThreadPool.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandRows.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"

using qzsse::detail::nanMin;
using qzsse::detail::rowsFrom;

namespace {

// Beyond this radius the van Herk / Gil-Werman running minimum (three minima per vector
// whatever the radius) beats the direct window.
constexpr int c_iDirectRadiusLimit = 3;

// out[x] = minimum of in[x - r .. x + r] within [0, w - 1].
void minimumOfRowDirect(const __m128* in, __m128* out, int w, int r)
{
    for (int x = 0; x < w; ++x)
        out[x] = in[x];
    for (int d = 1; d <= r && d < w; ++d) {
        for (int x = d; x < w; ++x)
            out[x] = nanMin(out[x], in[x - d]);
        for (int x = 0; x + d < w; ++x)
            out[x] = nanMin(out[x], in[x + d]);
    }
}

// The same through running minima over blocks of 2r + 1 of the row extended by r vectors
// of +inf on each side: prefix minima g, suffix minima h, out[x] = min(h[x], g[x + 2r]).
void minimumOfRowRunning(const __m128* in, __m128* out, int w, int r, __m128* g, __m128* h)
{
    const int n = w + 2 * r;
    const int block = 2 * r + 1;
    const __m128 inf = _mm_set1_ps(std::numeric_limits<float>::infinity());
    auto extended = [&](int i) { return (i < r || i >= r + w) ? inf : in[i - r]; };
    for (int start = 0; start < n; start += block) {
        const int end = std::min(n, start + block);
        g[start] = extended(start);
        for (int i = start + 1; i < end; ++i)
            g[i] = nanMin(g[i - 1], extended(i));
        h[end - 1] = extended(end - 1);
        for (int i = end - 2; i >= start; --i)
            h[i] = nanMin(extended(i), h[i + 1]);
    }
    for (int x = 0; x < w; ++x)
        out[x] = nanMin(h[x], g[x + 2 * r]);
}

template <int S>
void foldRows(__m128* out, const __m128* a, const __m128* b, int w)
{
    for (int x = 0; x < w; ++x)
        out[x] = nanMin(out[x], rowsFrom<S>(a[x], b[x]));
}

// The two passes over bands [b0, b1) each; both write only their own bands.
struct MinimumFilterJob {
    CSSEMatrix& image;
    CSSEMatrix& scratch;
    int rx, ry;
    qzsse::detail::VectorBuffer infBand; // +inf: the rows above and below the image

    // Rows of this band in `image` filtered horizontally into `scratch`; padding rows of
    // the scratch become +inf so that the vertical pass ignores them.
    void horizontal(int b0, int b1) const
    {
        const int w = image.GetSSESizeX();
        const size_t running = rx > c_iDirectRadiusLimit ? static_cast<size_t>(w + 2 * rx) : 0;
        qzsse::detail::VectorBuffer g(running), h(running);
        const int last = scratch.GetSSESizeY() - 1;
        const __m128 real = qzsse::detail::realRowsMask(last, image.GetSizeY());
        const __m128 inf = _mm_set1_ps(std::numeric_limits<float>::infinity());
        for (int j = b0; j < b1; ++j) {
            const __m128* in = image.GetMatrixDataDirectly()[j];
            __m128* out = scratch.GetMatrixDataDirectly()[j];
            if (rx > c_iDirectRadiusLimit)
                minimumOfRowRunning(in, out, w, rx, g.data(), h.data());
            else
                minimumOfRowDirect(in, out, w, rx);
            if (j == last)
                for (int x = 0; x < w; ++x)
                    out[x] = qzsse::detail::select(real, out[x], inf);
        }
    }

    const __m128* scratchBand(int k) const
    {
        return (k < 0 || k >= scratch.GetSSESizeY()) ? infBand.data() : scratch.GetMatrixDataDirectly()[k];
    }

    void vertical(int b0, int b1) const
    {
        const int w = image.GetSSESizeX();
        const int last = image.GetSSESizeY() - 1;
        for (int j = b0; j < b1; ++j) {
            __m128* out = image.GetMatrixDataDirectly()[j];
            const __m128* own = scratch.GetMatrixDataDirectly()[j];
            for (int x = 0; x < w; ++x)
                out[x] = own[x];
            for (int d = -ry; d <= ry; ++d) {
                if (d == 0)
                    continue;
                const int top = 4 * j + d;
                const __m128* a = scratchBand(top >> 2);
                const __m128* b = scratchBand((top >> 2) + 1);
                switch (top & 3) {
                case 0: foldRows<0>(out, a, b, w); break;
                case 1: foldRows<1>(out, a, b, w); break;
                case 2: foldRows<2>(out, a, b, w); break;
                default: foldRows<3>(out, a, b, w); break;
                }
            }
            if (j == last) {
                const __m128 real = qzsse::detail::realRowsMask(last, image.GetSizeY());
                for (int x = 0; x < w; ++x)
                    out[x] = _mm_and_ps(out[x], real);
            }
        }
    }
};

void minimumFilter(CSSEMatrix& m, int rx, int ry, RbThreadPool* pool)
{
    if (m.GetMatrixDataDirectly() == nullptr || m.GetSizeX() < 1 || m.GetSizeY() < 1)
        return;
    CSSEMatrix scratch;
    scratch.CreateNoClear(m.GetSizeX(), m.GetSizeY());
    MinimumFilterJob job{m, scratch, std::max(0, rx), std::max(0, ry),
                         qzsse::detail::VectorBuffer(static_cast<size_t>(m.GetSSESizeX()),
                                                     _mm_set1_ps(std::numeric_limits<float>::infinity()))};
    const int bands = m.GetSSESizeY();
    if (pool == nullptr) {
        job.horizontal(0, bands);
        job.vertical(0, bands);
        return;
    }
    // A few parts per worker evens out the finishing times; results do not depend on it.
    const int parts = std::min(bands, 4 * pool->GetThreadCount());
    std::vector<std::unique_ptr<RbTask>> tasks;
    auto runPass = [&](bool horizontal) {
        tasks.clear();
        for (int p = 0; p < parts; ++p) {
            const int b0 = bands * p / parts, b1 = bands * (p + 1) / parts;
            tasks.push_back(std::make_unique<RbTask>([&job, horizontal, b0, b1] {
                if (horizontal)
                    job.horizontal(b0, b1);
                else
                    job.vertical(b0, b1);
            }));
            pool->AddTask(tasks.back().get());
        }
        // Every task is waited for before a failure is passed on: they use `job`.
        std::exception_ptr failure;
        for (auto& task : tasks) {
            try {
                task->WaitUntilTerminate();
            } catch (...) {
                failure = std::current_exception();
            }
        }
        if (failure)
            std::rethrow_exception(failure);
    };
    runPass(true);
    runPass(false);
}

} // namespace

void CSSEMatrix::SimpleMinimumFilter(int radius)
{
    minimumFilter(*this, radius, radius, nullptr);
}

void CSSEMatrix::Erode(int radiusX, int radiusY, RbThreadPool* pool)
{
    minimumFilter(*this, radiusX, radiusY, pool != nullptr ? pool : &RbThreadPool::GetGlobal());
}
