#include <algorithm>
#include <vector>

#include "qzsse/core/detail/ClampInto.h"
#include "qzsse/matrix/CSSEMatrix.h"

namespace {

constexpr float c_fFillTolerance = 0.002f;

// Span fill. An entry asks to explore columns e1..e2 of row y, next to the filled run
// parentL..parentR of row y - dy. Each fillable run met there is grown to both sides and
// filled while it is scanned, then explores the next row on (dy) and, beyond the parent
// run, the row back (-dy). So a pixel of the region is tested about once; one of the border,
// once per run next to it. With a visited map (Marked), written pixels stay out even when
// the new value still matches; without one, a written pixel fails the range by itself.
template <bool Marked>
int spanFill(CSSEMatrix& m, int seedX, int seedY, float lo, float hi, float value, bool eightConnected)
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
    struct Entry {
        int y, e1, e2, dy, parentL, parentR;
    };
    std::vector<Entry> stack;
    stack.reserve(256);
    const int reach = eightConnected ? 1 : 0;
    // Explores the rows above and below a run filled in row y (and the back row beyond the parent).
    const auto follow = [&](int y, int a, int b, int dy, int parentL, int parentR) {
        const int e1 = std::max(a - reach, 0), e2 = std::min(b + reach, w - 1);
        if (y + dy >= 0 && y + dy < h)
            stack.push_back({y + dy, e1, e2, dy, a, b});
        if (y - dy >= 0 && y - dy < h) {
            if (e1 < parentL)
                stack.push_back({y - dy, e1, std::min(parentL - 1, e2), -dy, a, b});
            if (e2 > parentR)
                stack.push_back({y - dy, std::max(parentR + 1, e1), e2, -dy, a, b});
        }
    };
    const auto fill = [&](float* p, unsigned char* mark, int a, int b) {
        for (int i = a; i <= b; ++i) {
            if (Marked)
                mark[i] = 1;
            p[4 * i] = value;
        }
        return b - a + 1;
    };

    // The seed belongs to the region whatever its value (NaN included); its run is the
    // first, with both neighbour rows to explore.
    float* p = rowOf(seedY);
    unsigned char* mark = marks(seedY);
    int a = seedX, b = seedX;
    while (a > 0 && fillable(p, mark, a - 1))
        --a;
    while (b < w - 1 && fillable(p, mark, b + 1))
        ++b;
    int count = fill(p, mark, a, b);
    for (const int dy : {1, -1})
        if (seedY + dy >= 0 && seedY + dy < h)
            stack.push_back({seedY + dy, std::max(a - reach, 0), std::min(b + reach, w - 1), dy, a, b});

    while (!stack.empty()) {
        const Entry t = stack.back();
        stack.pop_back();
        p = rowOf(t.y);
        mark = marks(t.y);
        int x = t.e1;
        while (x <= t.e2) {
            if (!fillable(p, mark, x)) {
                ++x;
                continue;
            }
            a = b = x;
            if (x == t.e1)
                while (a > 0 && fillable(p, mark, a - 1))
                    --a;
            while (b < w - 1 && fillable(p, mark, b + 1))
                ++b;
            count += fill(p, mark, a, b);
            follow(t.y, a, b, t.dy, t.parentL, t.parentR);
            x = b + 2; // b + 1 is not fillable
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
        return spanFill<true>(*this, seedX, seedY, lo, hi, value, eightConnected);
    return spanFill<false>(*this, seedX, seedY, lo, hi, value, eightConnected);
}
