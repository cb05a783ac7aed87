// Minimum filter and erosion, in place, one band at a time: each band is filtered along its
// rows into a small ring of bands, and the vertical minimum over the ring is written back.
// Pixels outside the image take no part, which for a minimum is the same as clamped access.
// Every output vector is computed the same way whoever computes it, so splitting the bands
// over threads cannot change the result. Bands whose boxes reach no NaN use plain minima.

#include <algorithm>
#include <limits>
#include <memory>
#include <vector>

#include "qzsse/base/RbThreadPool.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandRows.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"

using qzsse::detail::holdsNaN;
using qzsse::detail::minOf;
using qzsse::detail::rowsFrom;
using qzsse::detail::VectorBuffer;

namespace {

// Beyond this radius the van Herk / Gil-Werman running minimum (three minima per vector
// whatever the radius) beats the direct window.
constexpr int c_iDirectRadiusLimit = 3;

inline __m128 infinity() { return _mm_set1_ps(std::numeric_limits<float>::infinity()); }

// out[x] = minimum of in[x - R .. x + R] within [0, w - 1].
template <int R, bool NaN>
void minimumOfRowDirect(const __m128* in, __m128* out, int w)
{
    auto edge = [&](int x) {
        __m128 m = in[x];
        for (int d = 1; d <= R; ++d) {
            if (x - d >= 0)
                m = minOf<NaN>(m, in[x - d]);
            if (x + d < w)
                m = minOf<NaN>(m, in[x + d]);
        }
        out[x] = m;
    };
    const int inner0 = std::min(R, w), inner1 = std::max(inner0, w - R);
    for (int x = 0; x < inner0; ++x)
        edge(x);
    for (int x = inner0; x < inner1; ++x) {
        __m128 m = in[x];
        for (int d = 1; d <= R; ++d)
            m = minOf<NaN>(minOf<NaN>(m, in[x - d]), in[x + d]);
        out[x] = m;
    }
    for (int x = inner1; x < w; ++x)
        edge(x);
}

// The same through running minima over blocks of 2r + 1 columns: prefix minima g and suffix
// minima h inside each block. A full window spans the end of one block and the start of the
// next (or is one block), so it is min(h[x - r], g[x + r]); a window cut by the image edge
// that lies in one block is a prefix (from column 0) or a suffix (to column w - 1).
template <bool NaN>
void minimumOfRowRunning(const __m128* in, __m128* out, int w, int r, __m128* g, __m128* h)
{
    const int block = 2 * r + 1;
    for (int start = 0; start < w; start += block) {
        const int end = std::min(w, start + block);
        g[start] = in[start];
        for (int i = start + 1; i < end; ++i)
            g[i] = minOf<NaN>(g[i - 1], in[i]);
        h[end - 1] = in[end - 1];
        for (int i = end - 2; i >= start; --i)
            h[i] = minOf<NaN>(in[i], h[i + 1]);
    }
    auto edge = [&](int x) {
        const int a = std::max(0, x - r), b = std::min(w - 1, x + r);
        if (a / block != b / block)
            out[x] = minOf<NaN>(h[a], g[b]);
        else
            out[x] = a % block == 0 ? g[b] : h[a];
    };
    const int inner0 = std::min(r, w), inner1 = std::max(inner0, w - r);
    for (int x = 0; x < inner0; ++x)
        edge(x);
    for (int x = inner0; x < inner1; ++x)
        out[x] = minOf<NaN>(h[x - r], g[x + r]);
    for (int x = inner1; x < w; ++x)
        edge(x);
}

// Minimum over rows 4j - RY .. 4j + 3 + RY of one column, from the filtered bands j - 1 (a),
// j (b) and j + 1 (c).
template <int RY, bool NaN>
inline __m128 columnMinimum(__m128 a, __m128 b, __m128 c)
{
    __m128 m = b;
    if constexpr (RY >= 1)
        m = minOf<NaN>(minOf<NaN>(m, rowsFrom<3>(a, b)), rowsFrom<1>(b, c));
    if constexpr (RY >= 2)
        m = minOf<NaN>(minOf<NaN>(m, rowsFrom<2>(a, b)), rowsFrom<2>(b, c));
    if constexpr (RY >= 3)
        m = minOf<NaN>(minOf<NaN>(m, rowsFrom<1>(a, b)), rowsFrom<3>(b, c));
    if constexpr (RY >= 4)
        m = minOf<NaN>(minOf<NaN>(m, a), c);
    return m;
}

template <int RY, bool NaN>
void verticalNear(const __m128* a, const __m128* b, const __m128* c, __m128* out, int w)
{
    for (int x = 0; x < w; ++x)
        out[x] = columnMinimum<RY, NaN>(a[x], b[x], c[x]);
}

// Rows 4j + d for d = 4q + s: for a fixed s, the minimum over q of the rows shifted by s is
// the shift of the minima over q of whole bands (a lane selection commutes with a lane-wise
// minimum). So phase s takes the minimum over a run of bands and over the same run one band
// lower, then one shift; the phases share most runs, so each distinct run is taken once.
struct Runs {
    int count = 0;
    int first[7], last[7]; // distinct runs of bands, as offsets into the window
    int lanes[4], below[4]; // per phase: the run for lanes s..3 and the one for lanes 0..s-1

    int add(int f, int l)
    {
        for (int i = 0; i < count; ++i)
            if (first[i] == f && last[i] == l)
                return i;
        first[count] = f;
        last[count] = l;
        return count++;
    }
};

inline int floorDiv4(int v) { return v >> 2; }
inline int ceilDiv4(int v) { return -((-v) >> 2); }

struct FilteredBand {
    const __m128* data;
    bool nan;
};

// window[k] is the filtered band j + lo + k. Columns go in chunks small enough for the
// run minima of a chunk to stay in the first-level cache.
template <bool NaN>
void verticalFar(const FilteredBand* window, const Runs& runs, __m128* out, int w)
{
    constexpr int chunk = 128;
    alignas(16) __m128 run[7][chunk];
    alignas(16) __m128 core[chunk];
    // The bands every run holds are taken once.
    const int coreFirst = *std::max_element(runs.first, runs.first + runs.count);
    const int coreLast = *std::min_element(runs.last, runs.last + runs.count);
    for (int x0 = 0; x0 < w; x0 += chunk) {
        const int n = std::min(chunk, w - x0);
        auto fold = [&](__m128* r, int k) {
            const __m128* band = window[k].data + x0;
            for (int x = 0; x < n; ++x)
                r[x] = minOf<NaN>(r[x], band[x]);
        };
        std::fill(core, core + n, infinity());
        for (int k = coreFirst; k <= coreLast; ++k)
            fold(core, k);
        for (int i = 0; i < runs.count; ++i) {
            __m128* r = run[i];
            std::copy(core, core + n, r);
            for (int k = runs.first[i]; k <= runs.last[i]; ++k)
                if (k < coreFirst || k > coreLast)
                    fold(r, k);
        }
        const __m128 *l0 = run[runs.lanes[0]], *l1 = run[runs.lanes[1]], *l2 = run[runs.lanes[2]],
                     *l3 = run[runs.lanes[3]], *b1 = run[runs.below[1]], *b2 = run[runs.below[2]],
                     *b3 = run[runs.below[3]];
        for (int x = 0; x < n; ++x) {
            __m128 m = minOf<NaN>(l0[x], rowsFrom<1>(l1[x], b1[x]));
            m = minOf<NaN>(m, rowsFrom<2>(l2[x], b2[x]));
            out[x0 + x] = minOf<NaN>(m, rowsFrom<3>(l3[x], b3[x]));
        }
    }
}

// Scratch rows of one thread for the running minimum.
struct RowScratch {
    VectorBuffer g, h;
    explicit RowScratch(size_t n) : g(n), h(n) {}
};

class MinimumFilter {
public:
    MinimumFilter(CSSEMatrix& image, int rx, int ry)
        : m_image(image), m_rx(std::max(0, rx)), m_ry(std::max(0, ry)), m_w(image.GetSSESizeX()),
          m_bands(image.GetSSESizeY()), m_lo(floorDiv4(-m_ry)), m_hi(floorDiv4(3 + m_ry)),
          m_inf(static_cast<size_t>(m_w), infinity())
    {
        for (int s = 0; s < 4; ++s) { // rows d = 4q + s with -ry <= d <= ry, as offsets from m_lo
            const int first = ceilDiv4(-m_ry - s) - m_lo, last = floorDiv4(m_ry - s) - m_lo;
            m_runs.lanes[s] = m_runs.add(first, last);
            m_runs.below[s] = s == 0 ? m_runs.lanes[s] : m_runs.add(first + 1, last + 1);
        }
    }

    int reachAbove() const { return -m_lo; }
    int reachBelow() const { return m_hi; }
    int bands() const { return m_bands; }

    // The filtered band k of the image as it is now; true when it holds a NaN.
    bool filterRow(int k, __m128* out, RowScratch& scratch) const
    {
        const __m128* in = m_image.GetMatrixDataDirectly()[k];
        const bool nan = holdsNaN(in, m_w);
        nan ? filterRow<true>(in, out, scratch) : filterRow<false>(in, out, scratch);
        if (k == m_bands - 1) { // padding rows must not count
            const __m128 real = qzsse::detail::realRowsMask(k, m_image.GetSizeY());
            for (int x = 0; x < m_w; ++x)
                out[x] = qzsse::detail::select(real, out[x], infinity());
        }
        return nan;
    }

    // Filters bands [b0, b1) in place. `halo` holds the filtered bands b0 - reachAbove() ..
    // b0 - 1 and b1 .. b1 + reachBelow() - 1 (those inside the image), taken before any part
    // wrote, since a neighbouring part may overwrite them.
    void run(int b0, int b1, const std::vector<VectorBuffer>& halo, const std::vector<char>& haloNaN) const
    {
        const int ringSize = m_hi - m_lo + 1;
        std::vector<VectorBuffer> ring;
        std::vector<char> ringNaN(static_cast<size_t>(ringSize), 0);
        for (int i = 0; i < ringSize; ++i)
            ring.emplace_back(static_cast<size_t>(m_w));
        auto slot = [&](int k) { return static_cast<size_t>(((k % ringSize) + ringSize) % ringSize); };
        auto filtered = [&](int k) -> FilteredBand {
            if (k < 0 || k >= m_bands)
                return {m_inf.data(), false};
            if (k < b0 || k >= b1) {
                const size_t i = static_cast<size_t>(k < b0 ? k - (b0 - reachAbove()) : reachAbove() + k - b1);
                return {halo[i].data(), haloNaN[i] != 0};
            }
            return {ring[slot(k)].data(), ringNaN[slot(k)] != 0};
        };
        RowScratch scratch(scratchSize());
        auto fill = [&](int k) { ringNaN[slot(k)] = filterRow(k, ring[slot(k)].data(), scratch); };
        for (int k = std::max(b0, b0 + m_lo); k < std::min(b1, b0 + m_hi); ++k)
            fill(k);
        std::vector<FilteredBand> window(static_cast<size_t>(ringSize));
        for (int j = b0; j < b1; ++j) {
            if (j + m_hi < b1)
                fill(j + m_hi);
            bool nan = false;
            for (int k = m_lo; k <= m_hi; ++k) {
                window[static_cast<size_t>(k - m_lo)] = filtered(j + k);
                nan = nan || window[static_cast<size_t>(k - m_lo)].nan;
            }
            __m128* out = m_image.GetMatrixDataDirectly()[j];
            nan ? vertical<true>(window.data(), out) : vertical<false>(window.data(), out);
            if (j == m_bands - 1) {
                const __m128 real = qzsse::detail::realRowsMask(j, m_image.GetSizeY());
                for (int x = 0; x < m_w; ++x)
                    out[x] = _mm_and_ps(out[x], real);
            }
        }
    }

    // The halo of part [b0, b1): filtered copies of the neighbouring bands it reads, and
    // whether each holds a NaN.
    std::vector<VectorBuffer> halo(int b0, int b1, std::vector<char>& nan) const
    {
        std::vector<VectorBuffer> bands;
        RowScratch scratch(scratchSize());
        nan.clear();
        auto take = [&](int k) {
            bands.emplace_back(static_cast<size_t>(m_w));
            nan.push_back(k >= 0 && k < m_bands ? filterRow(k, bands.back().data(), scratch) : 0);
        };
        for (int k = b0 - reachAbove(); k < b0; ++k)
            take(k);
        for (int k = b1; k < b1 + reachBelow(); ++k)
            take(k);
        return bands;
    }

private:
    size_t scratchSize() const { return m_rx > c_iDirectRadiusLimit ? static_cast<size_t>(m_w) : 0; }

    template <bool NaN>
    void filterRow(const __m128* in, __m128* out, RowScratch& scratch) const
    {
        if (m_rx > c_iDirectRadiusLimit) {
            minimumOfRowRunning<NaN>(in, out, m_w, m_rx, scratch.g.data(), scratch.h.data());
            return;
        }
        switch (m_rx) {
        case 0: std::copy(in, in + m_w, out); break;
        case 1: minimumOfRowDirect<1, NaN>(in, out, m_w); break;
        case 2: minimumOfRowDirect<2, NaN>(in, out, m_w); break;
        default: minimumOfRowDirect<3, NaN>(in, out, m_w); break;
        }
    }

    // window[k] is the filtered band j + m_lo + k.
    template <bool NaN>
    void vertical(const FilteredBand* window, __m128* out) const
    {
        if (m_ry > 4) {
            verticalFar<NaN>(window, m_runs, out, m_w);
            return;
        }
        const __m128* b = window[-m_lo].data;
        const __m128* a = m_lo < 0 ? window[-m_lo - 1].data : b;
        const __m128* c = m_hi > 0 ? window[-m_lo + 1].data : b;
        switch (m_ry) {
        case 0: verticalNear<0, NaN>(a, b, c, out, m_w); break;
        case 1: verticalNear<1, NaN>(a, b, c, out, m_w); break;
        case 2: verticalNear<2, NaN>(a, b, c, out, m_w); break;
        case 3: verticalNear<3, NaN>(a, b, c, out, m_w); break;
        default: verticalNear<4, NaN>(a, b, c, out, m_w); break;
        }
    }

    CSSEMatrix& m_image;
    int m_rx, m_ry, m_w, m_bands;
    int m_lo, m_hi; // band offsets of the first and last band a vertical window touches
    Runs m_runs;
    VectorBuffer m_inf;
};

void runAll(std::vector<std::unique_ptr<RbTask>>& tasks, RbThreadPool& pool)
{
    // Every task added is waited for before a failure is passed on: they use the caller's
    // objects.
    std::exception_ptr failure;
    size_t added = 0;
    try {
        for (; added < tasks.size(); ++added)
            pool.AddTask(tasks[added].get());
    } catch (...) {
        failure = std::current_exception();
    }
    tasks.resize(added);
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
    // A few parts per worker even out the finishing times when the workers share the machine.
    const int parts = pool == nullptr ? 1 : std::min(bands, 4 * pool->GetThreadCount());
    if (parts == 1) {
        filter.run(0, bands, {}, {});
        return;
    }
    // First every part takes its halo, then all filter in place.
    std::vector<std::vector<VectorBuffer>> halos(static_cast<size_t>(parts));
    std::vector<std::vector<char>> haloNaN(static_cast<size_t>(parts));
    auto range = [&](int p, int& b0, int& b1) {
        b0 = bands * p / parts;
        b1 = bands * (p + 1) / parts;
    };
    std::vector<std::unique_ptr<RbTask>> tasks;
    for (int p = 0; p < parts; ++p)
        tasks.push_back(std::make_unique<RbTask>([&, p] {
            int b0, b1;
            range(p, b0, b1);
            halos[static_cast<size_t>(p)] = filter.halo(b0, b1, haloNaN[static_cast<size_t>(p)]);
        }));
    runAll(tasks, *pool);
    tasks.clear();
    for (int p = 0; p < parts; ++p)
        tasks.push_back(std::make_unique<RbTask>([&, p] {
            int b0, b1;
            range(p, b0, b1);
            filter.run(b0, b1, halos[static_cast<size_t>(p)], haloNaN[static_cast<size_t>(p)]);
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
