// Zhang-Suen thinning on a byte copy of the mask with a background frame, so every pixel has
// eight neighbours. Each sub-iteration marks from the unchanged mask, then removes.

#include <array>
#include <cstdint>
#include <vector>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/RowMask.h"

namespace {

// Neighbour bits: 0 north, then clockwise to 7 north-west (p2 .. p9 of the usual naming).
// removable[step][bits]: 2 <= neighbours <= 6, exactly one background-to-foreground
// transition around the ring, and step 0: N*E*S = 0 and E*S*W = 0; step 1: N*E*W = 0 and
// N*S*W = 0.
std::array<std::array<bool, 256>, 2> removableTable()
{
    std::array<std::array<bool, 256>, 2> t{};
    for (int bits = 0; bits < 256; ++bits) {
        auto p = [bits](int i) { return (bits >> (i & 7)) & 1; };
        int count = 0, transitions = 0;
        for (int i = 0; i < 8; ++i) {
            count += p(i);
            transitions += (p(i) == 0 && p(i + 1) == 1) ? 1 : 0;
        }
        const bool shape = count >= 2 && count <= 6 && transitions == 1;
        const int n = p(0), e = p(2), s = p(4), w = p(6);
        t[0][static_cast<size_t>(bits)] = shape && n * e * s == 0 && e * s * w == 0;
        t[1][static_cast<size_t>(bits)] = shape && n * e * w == 0 && n * s * w == 0;
    }
    return t;
}

} // namespace

void CSSEMatrix::ZhangSuen()
{
    if (m_Data == nullptr || m_SizeX < 1 || m_SizeY < 1)
        return;
    static const std::array<std::array<bool, 256>, 2> removable = removableTable();
    const int w = m_SizeX, h = m_SizeY;
    const ptrdiff_t stride = w + 2;
    std::vector<uint8_t> mask(static_cast<size_t>(stride) * (static_cast<size_t>(h) + 2), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            mask[static_cast<size_t>((y + 1) * stride + x + 1)] = GetPointUnsafe(x, y) != 0.0f ? 1 : 0;
    const ptrdiff_t ring[8] = {-stride, -stride + 1, 1, stride + 1, stride, stride - 1, -1, -stride - 1};
    std::vector<ptrdiff_t> marked;
    // Rows that still hold foreground, narrowed as thinning proceeds.
    int top = 1, bottom = h;
    bool changed = true;
    while (changed) {
        changed = false;
        for (int step = 0; step < 2; ++step) {
            marked.clear();
            int firstRow = 0, lastRow = -1;
            for (int y = top; y <= bottom; ++y) {
                const uint8_t* row = mask.data() + y * stride;
                for (int x = 1; x <= w; ++x) {
                    if (row[x] == 0)
                        continue;
                    if (lastRow < 0)
                        firstRow = y;
                    lastRow = y;
                    unsigned bits = 0;
                    for (int i = 0; i < 8; ++i)
                        bits |= static_cast<unsigned>(row[x + ring[i]]) << i;
                    if (removable[static_cast<size_t>(step)][bits])
                        marked.push_back(y * stride + x);
                }
            }
            for (ptrdiff_t i : marked)
                mask[static_cast<size_t>(i)] = 0;
            changed = changed || !marked.empty();
            if (lastRow < 0)
                break;
            top = firstRow;
            bottom = lastRow;
        }
    }
    const int last = m_SSESizeY - 1;
    const __m128 real = qzsse::detail::realRowsMask(last, h);
    for (int x = 0; x < w; ++x)
        m_Data[last][x] = _mm_and_ps(m_Data[last][x], real);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            SetPointUnsafe(x, y, mask[static_cast<size_t>((y + 1) * stride + x + 1)] != 0 ? 1.0f : 0.0f);
}
