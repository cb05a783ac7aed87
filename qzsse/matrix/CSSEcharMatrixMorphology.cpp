#include <vector>

#include "qzsse/matrix/CSSEcharMatrix.h"
#include "qzsse/matrix/detail/ByteRows.h"

namespace {

struct Lanes { // a vector as an element of std::vector, which drops the alignment attribute
    __m128i v;
};

// One pass per band with three columns in registers. The vertical neighbours of a byte are
// its neighbours in the vector, the outer two taken from the band above (its unchanged
// contents kept in `above`) and below (not yet written). A missing neighbour is replaced by
// the pixel itself, which is neutral for both the minimum and the maximum, so the image
// border neither erodes nor dilates. Bytes are first reduced to 0 / 1 (unsigned minimum
// with 1), so AND and OR are the minimum and maximum and the result needs no rescaling.
template <bool Erode>
void morph3x3(CSSEcharMatrix& m, bool cross)
{
    using qzsse::detail::realByteRowsMask;
    __m128i** data = m.GetMatrixDataDirectly();
    const int w = m.GetSizeX(), h = m.GetSizeY(), bands = m.GetSSESizeY();
    if (data == nullptr || w < 1 || h < 1)
        return;
    const auto op = [](__m128i a, __m128i b) { return Erode ? _mm_and_si128(a, b) : _mm_or_si128(a, b); };
    const __m128i one = _mm_set1_epi8(1);
    const auto unit = [one](__m128i v) { return _mm_min_epu8(v, one); };
    std::vector<Lanes> aboveRow(static_cast<size_t>(w));
    Lanes* above = aboveRow.data();
    const __m128i firstByte = _mm_setr_epi8(1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    for (int j = 0; j < bands; ++j) {
        __m128i* d = data[j];
        const __m128i* below = j + 1 < bands ? data[j + 1] : nullptr;
        const bool first = j == 0;
        const bool lastReal = 16 * (j + 1) >= h; // a row of this band has no real row below
        const __m128i hasBelow = realByteRowsMask(j, h - 1);
        const __m128i keep = realByteRowsMask(j, h);
        // The vertical 3-tap result of column x, from its 0 / 1 centre c.
        const auto column = [&](int x, __m128i c) {
            const __m128i a = above[x].v;
            above[x].v = c;
            __m128i up = _mm_slli_si128(c, 1);
            up = first ? _mm_or_si128(up, _mm_and_si128(c, firstByte)) : _mm_or_si128(up, _mm_srli_si128(a, 15));
            __m128i down = _mm_srli_si128(c, 1);
            if (below != nullptr)
                down = _mm_or_si128(down, _mm_slli_si128(unit(below[x]), 15));
            if (lastReal)
                down = _mm_or_si128(_mm_and_si128(hasBelow, down), _mm_andnot_si128(hasBelow, c));
            return op(op(up, c), down);
        };
        __m128i cMid = unit(d[0]);
        __m128i vMid = column(0, cMid);
        __m128i sideLeft = cross ? cMid : vMid; // the left neighbour of column 0 is itself
        for (int x = 0; x < w; ++x) {
            __m128i sideRight, cNext = cMid, vNext = vMid;
            if (x + 1 < w) {
                cNext = unit(d[x + 1]);
                vNext = column(x + 1, cNext);
                sideRight = cross ? cNext : vNext;
            } else {
                sideRight = vMid;
            }
            __m128i r = op(op(sideLeft, vMid), sideRight);
            if (lastReal)
                r = _mm_and_si128(r, keep);
            d[x] = r;
            sideLeft = cross ? cMid : vMid;
            cMid = cNext;
            vMid = vNext;
        }
    }
}

} // namespace

void CSSEcharMatrix::Erode(bool cross)
{
    morph3x3<true>(*this, cross);
}

void CSSEcharMatrix::Dilate(bool cross)
{
    morph3x3<false>(*this, cross);
}
