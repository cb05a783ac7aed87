#include <utility>
#include <vector>

#include "qzsse/core/detail/ClampInto.h"
#include "qzsse/matrix/CSSEMatrix.h"

namespace {
constexpr float c_fFillTolerance = 0.002f;
}

// Scanline fill: each popped seed grows to the longest run of its row, then one seed per
// run of fillable pixels in the rows above and below (one column wider on each side when
// 8-connected). A visited map keeps written pixels out even when the new value still
// matches, and the seed belongs to the region whatever its value (NaN included).
int CSSEMatrix::FillArea(int seedX, int seedY, float value, bool eightConnected)
{
    if (m_Data == nullptr || m_SizeX < 1 || m_SizeY < 1)
        return 0;
    const int w = m_SizeX, h = m_SizeY;
    seedX = qzsse::detail::clampInto(seedX, 0, w - 1);
    seedY = qzsse::detail::clampInto(seedY, 0, h - 1);
    const float s = GetPointUnsafe(seedX, seedY);
    const float lo = s - c_fFillTolerance, hi = s + c_fFillTolerance;

    std::vector<unsigned char> visited(static_cast<size_t>(w) * static_cast<size_t>(h), 0);
    const auto fillable = [&](int x, int y) {
        if (visited[static_cast<size_t>(y) * w + x])
            return false;
        const float v = GetPointUnsafe(x, y);
        return lo <= v && v <= hi;
    };
    std::vector<std::pair<int, int>> seeds{{seedX, seedY}};
    int count = 0;
    while (!seeds.empty()) {
        const auto [x, y] = seeds.back();
        seeds.pop_back();
        unsigned char* row = visited.data() + static_cast<size_t>(y) * w;
        if (row[x])
            continue;
        int l = x, r = x;
        while (l > 0 && fillable(l - 1, y))
            --l;
        while (r < w - 1 && fillable(r + 1, y))
            ++r;
        float* p = GetPointAddressUnsafe(0, y);
        for (int i = l; i <= r; ++i) {
            row[i] = 1;
            p[4 * i] = value;
        }
        count += r - l + 1;
        const int from = eightConnected && l > 0 ? l - 1 : l;
        const int to = eightConnected && r < w - 1 ? r + 1 : r;
        for (const int ny : {y - 1, y + 1}) {
            if (ny < 0 || ny >= h)
                continue;
            bool inRun = false;
            for (int i = from; i <= to; ++i) {
                const bool f = fillable(i, ny);
                if (f && !inRun)
                    seeds.emplace_back(i, ny);
                inRun = f;
            }
        }
    }
    return count;
}
