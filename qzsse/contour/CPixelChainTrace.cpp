#include "qzsse/contour/CPixelChain.h"

#include <bit>

#include <xmmintrin.h>

#include "qzsse/core/detail/ClampInto.h"
#include "qzsse/matrix/CSSEMatrix.h"

namespace qzsse::detail {
namespace {

// Direction n steps by (c_dirX[n], c_dirY[n]); y grows downwards.
constexpr int c_dirX[8] = {0, -1, -1, -1, 0, 1, 1, 1};
constexpr int c_dirY[8] = {-1, -1, 0, 1, 1, 1, 0, -1};

// The trace reads the matrix directly: a clamped read that is the matrix's GetPoint
// without the call, since the walk reads up to nine pixels per step.
struct BandReader {
    __m128** data;
    int width;
    int height;

    float at(long long x, long long y) const
    {
        const int cx = clampInto(x, 0, width - 1);
        const int cy = clampInto(y, 0, height - 1);
        return reinterpret_cast<const float*>(data[cy >> 2])[(cx << 2) + (cy & 3)];
    }
};

// Writes `level` into the first band, the last band (its padding rows too) and the three
// outermost columns on each side of every band, so that neither test of the walk accepts
// a frame pixel.
void markFrame(__m128** data, int sseSizeX, int sseSizeY, float level)
{
    const __m128 v = _mm_set1_ps(level);
    for (int x = 0; x < sseSizeX; ++x) {
        data[0][x] = v;
        data[sseSizeY - 1][x] = v;
    }
    const int columns[6] = {0, 1, 2, sseSizeX - 3, sseSizeX - 2, sseSizeX - 1};
    for (int band = 0; band < sseSizeY; ++band)
        for (int c : columns)
            if (c >= 0 && c < sseSizeX)
                data[band][c] = v;
}

// Bit n set when the neighbour in direction n passes the test. Inside the image all eight
// are read without clamping from three row bases; near or outside its edge (only the
// start can be there) the reads clamp like the matrix's GetPoint.
template <bool TraceAbove>
inline unsigned neighbourMask(const BandReader& m, long long x, long long y, float level)
{
    float v[8];
    if (x >= 1 && x <= m.width - 2 && y >= 1 && y <= m.height - 2) {
        const int xi = static_cast<int>(x), yi = static_cast<int>(y);
        const float* up = reinterpret_cast<const float*>(m.data[(yi - 1) >> 2]) + ((yi - 1) & 3);
        const float* mid = reinterpret_cast<const float*>(m.data[yi >> 2]) + (yi & 3);
        const float* down = reinterpret_cast<const float*>(m.data[(yi + 1) >> 2]) + ((yi + 1) & 3);
        const int left = (xi - 1) << 2, centre = xi << 2, right = (xi + 1) << 2;
        v[0] = up[centre];
        v[1] = up[left];
        v[2] = mid[left];
        v[3] = down[left];
        v[4] = down[centre];
        v[5] = down[right];
        v[6] = mid[right];
        v[7] = up[right];
    } else {
        for (int n = 0; n < 8; ++n)
            v[n] = m.at(x + c_dirX[n], y + c_dirY[n]);
    }
    unsigned mask = 0;
    for (int n = 0; n < 8; ++n) {
        const bool pass = TraceAbove ? (v[n] > level) : (v[n] < level);
        mask |= static_cast<unsigned>(pass) << n;
    }
    return mask;
}

template <bool TraceAbove>
int traceChain(const BandReader& m, pixel* out, float level, long long startX, long long startY,
               long long maxSteps, bool exactClose, long long minSteps)
{
    int count = 0;
    int dir = 4;
    long long x = startX;
    long long y = startY;
    long long steps = 0;
    const int maxX = m.width - 2;
    const int maxY = m.height - 2;
    for (;;) {
        if (count < CPixelChain::c_iMaxPoints) {
            pixel& p = out[count++];
            p.x = static_cast<int>(x);
            p.y = static_cast<int>(y);
            p.value = m.at(x, y);
        }

        // Of the neighbours tried in the order d+4, d+5, ..., d+3 the last that passes wins:
        // the walk turns as far as possible to one side, so it keeps the region on the same
        // hand, and going back comes last. Rotating the mask by d+4 puts that order on bits
        // 0..7, so the winner is the highest set bit.
        const unsigned mask = neighbourMask<TraceAbove>(m, x, y, level);
        if (mask != 0) {
            const unsigned shift = static_cast<unsigned>(dir + 4) & 7u;
            const unsigned rotated = ((mask >> shift) | (mask << (8u - shift))) & 0xFFu;
            dir = (std::bit_width(rotated) - 1 + dir + 4) & 7;
            x += c_dirX[dir];
            y += c_dirY[dir];
        }
        x = clampInto(x, 1, maxX);
        y = clampInto(y, 1, maxY);

        ++steps;
        if (steps > maxSteps)
            break;
        const bool atStart = (x == startX && y == startY);
        if (exactClose || steps <= minSteps) {
            if (atStart)
                break;
        } else {
            const long long dx = x - startX;
            const long long dy = y - startY;
            if (dx >= -1 && dx <= 1 && dy >= -1 && dy <= 1)
                break;
        }
    }
    return count;
}

} // namespace
} // namespace qzsse::detail

void CPixelChain::CreatePixelChain(CSSEMatrix* matrix, float level, long startX, long startY, long maxSteps,
                                   bool traceAbove, bool exactClose, int minSteps)
{
    using namespace qzsse::detail;
    m_iCount = 0;
    if (!matrix || !matrix->GetMatrixDataDirectly() || matrix->GetSizeX() <= 0 || matrix->GetSizeY() <= 0)
        return;
    __m128** data = matrix->GetMatrixDataDirectly();
    markFrame(data, matrix->GetSSESizeX(), matrix->GetSSESizeY(), level);

    const BandReader reader{data, matrix->GetSizeX(), matrix->GetSizeY()};
    m_iCount = traceAbove ? traceChain<true>(reader, m_pPixels, level, startX, startY, maxSteps, exactClose, minSteps)
                          : traceChain<false>(reader, m_pPixels, level, startX, startY, maxSteps, exactClose, minSteps);
}
