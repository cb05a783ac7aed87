#include <utility>
#include <vector>

#include "qzsse/core/detail/ClampInto.h"
#include "qzsse/matrix/CSSEMatrix.h"

namespace {
constexpr float c_fFillTolerance = 0.002f;
}

namespace {

// Scanline fill: each popped seed grows to the longest run of its row, then one seed per
// run of fillable pixels in the rows above and below (one column wider on each side when
// 8-connected). With a visited map (Marked), written pixels stay out even when the new
// value still matches; without one, a written pixel fails the range by itself.
template <bool Marked>
int scanlineFill(CSSEMatrix& m, int seedX, int seedY, float lo, float hi, float value, bool eightConnected)
{
    const int w = m.GetSizeX(), h = m.GetSizeY();
    std::vector<unsigned char> visited(Marked ? static_cast<size_t>(w) * static_cast<size_t>(h) : 0, 0);
    const auto rowOf = [&](int y) { return m.GetPointAddressUnsafe(0, y); }; // stride 4
    const auto marks = [&](int y) { return Marked ? visited.data() + static_cast<size_t>(y) * w : nullptr; };
    const auto fillable = [&](const float* p, const unsigned char* mark, int x) {
        if (Marked && mark[x])
            return false;
        const float v = p[4 * x];
        return lo <= v && v <= hi;
    };
    std::vector<std::pair<int, int>> seeds{{seedX, seedY}};
    bool seed = true; // the seed belongs to the region whatever its value
    int count = 0;
    while (!seeds.empty()) {
        const auto [x, y] = seeds.back();
        seeds.pop_back();
        float* p = rowOf(y);
        unsigned char* mark = marks(y);
        if (!seed && !fillable(p, mark, x))
            continue; // filled since it was pushed
        seed = false;
        int l = x, r = x;
        while (l > 0 && fillable(p, mark, l - 1))
            --l;
        while (r < w - 1 && fillable(p, mark, r + 1))
            ++r;
        for (int i = l; i <= r; ++i) {
            if (Marked)
                mark[i] = 1;
            p[4 * i] = value;
        }
        count += r - l + 1;
        const int from = eightConnected && l > 0 ? l - 1 : l;
        const int to = eightConnected && r < w - 1 ? r + 1 : r;
        for (const int ny : {y - 1, y + 1}) {
            if (ny < 0 || ny >= h)
                continue;
            const float* np = rowOf(ny);
            const unsigned char* nmark = marks(ny);
            bool inRun = false;
            for (int i = from; i <= to; ++i) {
                const bool f = fillable(np, nmark, i);
                if (f && !inRun)
                    seeds.emplace_back(i, ny);
                inRun = f;
            }
        }
    }
    return count;
}

} // namespace

int CSSEMatrix::FillArea(int seedX, int seedY, float value, bool eightConnected)
{
    if (m_Data == nullptr || m_SizeX < 1 || m_SizeY < 1)
        return 0;
    seedX = qzsse::detail::clampInto(seedX, 0, m_SizeX - 1);
    seedY = qzsse::detail::clampInto(seedY, 0, m_SizeY - 1);
    const float s = GetPointUnsafe(seedX, seedY);
    const float lo = s - c_fFillTolerance, hi = s + c_fFillTolerance;
    // A new value outside the range marks written pixels by itself.
    if (lo <= value && value <= hi)
        return scanlineFill<true>(*this, seedX, seedY, lo, hi, value, eightConnected);
    return scanlineFill<false>(*this, seedX, seedY, lo, hi, value, eightConnected);
}
