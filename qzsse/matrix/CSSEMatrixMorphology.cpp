// Minimum filter and erosion, in place, one band at a time: each band is filtered along its
// row into a small ring of bands, and the vertical minimum over the ring is written back.
// Pixels outside the image take no part, which for a minimum is the same as clamped access.
// Every output vector is computed the same way whoever computes it, so splitting the bands
// over threads cannot change the result.

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
using qzsse::detail::VectorBuffer;

namespace {

// Beyond this radius the van Herk / Gil-Werman running minimum (three minima per vector
// whatever the radius) beats the direct window.
constexpr int c_iDirectRadiusLimit = 3;

inline __m128 infinity() { return _mm_set1_ps(std::numeric_limits<float>::infinity()); }

// out[x] = minimum of in[x - R .. x + R] within [0, w - 1].
template <int R>
void minimumOfRowDirect(const __m128* in, __m128* out, int w)
{
    auto edge = [&](int x) {
        __m128 m = in[x];
        for (int d = 1; d <= R; ++d) {
            if (x - d >= 0)
                m = nanMin(m, in[x - d]);
            if (x + d < w)
                m = nanMin(m, in[x + d]);
        }
        out[x] = m;
    };
    const int inner0 = std::min(R, w), inner1 = std::max(inner0, w - R);
    for (int x = 0; x < inner0; ++x)
        edge(x);
    for (int x = inner0; x < inner1; ++x) {
        __m128 m = in[x];
        for (int d = 1; d <= R; ++d)
            m = nanMin(nanMin(m, in[x - d]), in[x + d]);
        out[x] = m;
    }
    for (int x = inner1; x < w; ++x)
        edge(x);
}

// The same through running minima over blocks of 2r + 1 of the row extended by r vectors
// of +inf on each side: prefix minima g, suffix minima h, out[x] = min(h[x], g[x + 2r]).
void minimumOfRowRunning(const __m128* in, __m128* out, int w, int r, __m128* g, __m128* h)
{
    const int n = w + 2 * r;
    const int block = 2 * r + 1;
    auto extended = [&](int i) { return (i < r || i >= r + w) ? infinity() : in[i - r]; };
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

// Minimum over rows 4j - RY .. 4j + 3 + RY of one column, from the filtered bands j - 1 (a),
// j (b) and j + 1 (c).
template <int RY>
inline __m128 columnMinimum(__m128 a, __m128 b, __m128 c)
{
    __m128 m = b;
    if constexpr (RY >= 1)
        m = nanMin(nanMin(m, rowsFrom<3>(a, b)), rowsFrom<1>(b, c));
    if constexpr (RY >= 2)
        m = nanMin(nanMin(m, rowsFrom<2>(a, b)), rowsFrom<2>(b, c));
    if constexpr (RY >= 3)
        m = nanMin(nanMin(m, rowsFrom<1>(a, b)), rowsFrom<3>(b, c));
    if constexpr (RY >= 4)
        m = nanMin(nanMin(m, a), c);
    return m;
}

template <int RY>
void verticalNear(const __m128* a, const __m128* b, const __m128* c, __m128* out, int w)
{
    for (int x = 0; x < w; ++x)
        out[x] = columnMinimum<RY>(a[x], b[x], c[x]);
}

template <int S>
void foldRows(__m128* out, const __m128* a, const __m128* b, int w)
{
    for (int x = 0; x < w; ++x)
        out[x] = nanMin(out[x], rowsFrom<S>(a[x], b[x]));
}

class MinimumFilter {
public:
    MinimumFilter(CSSEMatrix& image, int rx, int ry)
        : m_image(image), m_rx(std::max(0, rx)), m_ry(std::max(0, ry)), m_w(image.GetSSESizeX()),
          m_bands(image.GetSSESizeY()), m_lo((-m_ry) >> 2), m_hi((3 + m_ry) >> 2),
          m_inf(static_cast<size_t>(m_w), infinity())
    {
    }

    // Bands of a part reach this far into the neighbouring parts.
    int reachAbove() const { return -m_lo; }
    int reachBelow() const { return m_hi; }

    // The filtered band k of the image as it is now.
    void filterRow(int k, __m128* out) const
    {
        const __m128* in = m_image.GetMatrixDataDirectly()[k];
        if (m_rx > c_iDirectRadiusLimit) {
            VectorBuffer g(static_cast<size_t>(m_w + 2 * m_rx)), h(g.size());
            minimumOfRowRunning(in, out, m_w, m_rx, g.data(), h.data());
        } else {
            switch (m_rx) {
            case 0: std::copy(in, in + m_w, out); break;
            case 1: minimumOfRowDirect<1>(in, out, m_w); break;
            case 2: minimumOfRowDirect<2>(in, out, m_w); break;
            default: minimumOfRowDirect<3>(in, out, m_w); break;
            }
        }
        if (k == m_bands - 1) { // padding rows must not count
            const __m128 real = qzsse::detail::realRowsMask(k, m_image.GetSizeY());
            for (int x = 0; x < m_w; ++x)
                out[x] = qzsse::detail::select(real, out[x], infinity());
        }
    }

    // Filters bands [b0, b1) in place. `halo` holds the filtered bands b0 - reachAbove() ..
    // b0 - 1 and b1 .. b1 + reachBelow() - 1 (those inside the image), taken before any part
    // wrote, since a neighbouring part may overwrite them.
    void run(int b0, int b1, const std::vector<VectorBuffer>& halo) const
    {
        const int ringSize = m_hi - m_lo + 1;
        std::vector<VectorBuffer> ring;
        for (int i = 0; i < ringSize; ++i)
            ring.emplace_back(static_cast<size_t>(m_w));
        auto slot = [&](int k) -> VectorBuffer& { return ring[static_cast<size_t>(((k % ringSize) + ringSize) % ringSize)]; };
        auto filtered = [&](int k) -> const __m128* {
            if (k < 0 || k >= m_bands)
                return m_inf.data();
            if (k < b0)
                return halo[static_cast<size_t>(k - (b0 - reachAbove()))].data();
            if (k >= b1)
                return halo[static_cast<size_t>(reachAbove() + k - b1)].data();
            return slot(k).data();
        };
        for (int k = std::max(b0, b0 + m_lo); k < std::min(b1, b0 + m_hi); ++k)
            filterRow(k, slot(k).data());
        for (int j = b0; j < b1; ++j) {
            if (j + m_hi < b1)
                filterRow(j + m_hi, slot(j + m_hi).data());
            __m128* out = m_image.GetMatrixDataDirectly()[j];
            if (m_ry <= 4) {
                const __m128* b = filtered(j);
                const __m128* a = m_lo < 0 ? filtered(j - 1) : b;
                const __m128* c = m_hi > 0 ? filtered(j + 1) : b;
                switch (m_ry) {
                case 0: verticalNear<0>(a, b, c, out, m_w); break;
                case 1: verticalNear<1>(a, b, c, out, m_w); break;
                case 2: verticalNear<2>(a, b, c, out, m_w); break;
                case 3: verticalNear<3>(a, b, c, out, m_w); break;
                default: verticalNear<4>(a, b, c, out, m_w); break;
                }
            } else {
                std::copy(filtered(j), filtered(j) + m_w, out);
                for (int d = -m_ry; d <= m_ry; ++d) {
                    if (d == 0)
                        continue;
                    const int top = 4 * j + d;
                    const __m128* a = filtered(top >> 2);
                    const __m128* b = (top & 3) != 0 ? filtered((top >> 2) + 1) : a; // unused at 0
                    switch (top & 3) {
                    case 0: foldRows<0>(out, a, b, m_w); break;
                    case 1: foldRows<1>(out, a, b, m_w); break;
                    case 2: foldRows<2>(out, a, b, m_w); break;
                    default: foldRows<3>(out, a, b, m_w); break;
                    }
                }
            }
            if (j == m_bands - 1) {
                const __m128 real = qzsse::detail::realRowsMask(j, m_image.GetSizeY());
                for (int x = 0; x < m_w; ++x)
                    out[x] = _mm_and_ps(out[x], real);
            }
        }
    }

    // The halo of part [b0, b1): filtered copies of the neighbouring bands it reads.
    std::vector<VectorBuffer> halo(int b0, int b1) const
    {
        std::vector<VectorBuffer> bands;
        for (int k = b0 - reachAbove(); k < b1 + reachBelow(); ++k) {
            if (k == b0)
                k = b1;
            bands.emplace_back(static_cast<size_t>(m_w));
            if (k >= 0 && k < m_bands)
                filterRow(k, bands.back().data());
        }
        return bands;
    }

    int bands() const { return m_bands; }

private:
    CSSEMatrix& m_image;
    int m_rx, m_ry, m_w, m_bands;
    int m_lo, m_hi; // band offsets of the first and last band a vertical window touches
    VectorBuffer m_inf;
};

void runAll(std::vector<std::unique_ptr<RbTask>>& tasks, RbThreadPool& pool)
{
    for (auto& task : tasks)
        pool.AddTask(task.get());
    // Every task is waited for before a failure is passed on: they use the caller's objects.
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
}

void minimumFilter(CSSEMatrix& m, int rx, int ry, RbThreadPool* pool)
{
    if (m.GetMatrixDataDirectly() == nullptr || m.GetSizeX() < 1 || m.GetSizeY() < 1)
        return;
    const MinimumFilter filter(m, rx, ry);
    const int bands = filter.bands();
    const int parts = pool == nullptr ? 1 : std::min(bands, pool->GetThreadCount());
    if (parts == 1) {
        filter.run(0, bands, {});
        return;
    }
    // First every part takes its halo, then all filter in place.
    std::vector<std::vector<VectorBuffer>> halos(static_cast<size_t>(parts));
    auto range = [&](int p, int& b0, int& b1) {
        b0 = bands * p / parts;
        b1 = bands * (p + 1) / parts;
    };
    std::vector<std::unique_ptr<RbTask>> tasks;
    for (int p = 0; p < parts; ++p)
        tasks.push_back(std::make_unique<RbTask>([&, p] {
            int b0, b1;
            range(p, b0, b1);
            halos[static_cast<size_t>(p)] = filter.halo(b0, b1);
        }));
    runAll(tasks, *pool);
    tasks.clear();
    for (int p = 0; p < parts; ++p)
        tasks.push_back(std::make_unique<RbTask>([&, p] {
            int b0, b1;
            range(p, b0, b1);
            filter.run(b0, b1, halos[static_cast<size_t>(p)]);
        }));
    runAll(tasks, *pool);
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
