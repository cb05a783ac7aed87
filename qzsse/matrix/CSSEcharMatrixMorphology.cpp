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
// Edge says whether the band is the first or holds the last real row (the cases that need
// the replacement), so the bands in between run without it.
template <bool Erode, bool Cross, bool Edge>
void morphBand(__m128i* d, const __m128i* below, Lanes* above, int w, bool first, __m128i hasBelow, __m128i keep)
{
    const auto op = [](__m128i a, __m128i b) { return Erode ? _mm_and_si128(a, b) : _mm_or_si128(a, b); };
    const __m128i one = _mm_set1_epi8(1);
    const __m128i firstByte = _mm_setr_epi8(1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    // The vertical 3-tap result of column x, from its 0 / 1 centre c.
    const auto column = [&](int x, __m128i c) {
        const __m128i a = above[x].v;
        above[x].v = c;
        __m128i up = _mm_slli_si128(c, 1);
        up = Edge && first ? _mm_or_si128(up, _mm_and_si128(c, firstByte)) : _mm_or_si128(up, _mm_srli_si128(a, 15));
        __m128i down = _mm_srli_si128(c, 1);
        if (!Edge || below != nullptr)
            down = _mm_or_si128(down, _mm_slli_si128(_mm_min_epu8(below[x], one), 15));
        if (Edge)
            down = _mm_or_si128(_mm_and_si128(hasBelow, down), _mm_andnot_si128(hasBelow, c));
        return op(op(up, c), down);
    };
    __m128i cMid = _mm_min_epu8(d[0], one);
    __m128i vMid = column(0, cMid);
    __m128i sideLeft = Cross ? cMid : vMid; // the left neighbour of column 0 is itself
    for (int x = 0; x + 1 < w; ++x) {
        const __m128i cNext = _mm_min_epu8(d[x + 1], one);
        const __m128i vNext = column(x + 1, cNext);
        const __m128i r = op(op(sideLeft, vMid), Cross ? cNext : vNext);
        d[x] = Edge ? _mm_and_si128(r, keep) : r;
        sideLeft = Cross ? cMid : vMid;
        cMid = cNext;
        vMid = vNext;
    }
    const __m128i r = op(sideLeft, vMid); // the right neighbour of the last column is itself
    d[w - 1] = Edge ? _mm_and_si128(r, keep) : r;
}

template <bool Erode, bool Cross>
void morph3x3(CSSEcharMatrix& m)
{
    using qzsse::detail::realByteRowsMask;
    __m128i** data = m.GetMatrixDataDirectly();
    const int w = m.GetSizeX(), h = m.GetSizeY(), bands = m.GetSSESizeY();
    if (data == nullptr || w < 1 || h < 1)
        return;
    std::vector<Lanes> aboveRow(static_cast<size_t>(w));
    for (int j = 0; j < bands; ++j) {
        const __m128i* below = j + 1 < bands ? data[j + 1] : nullptr;
        const bool edge = j == 0 || 16 * (j + 1) >= h; // a row of this band has no real row below
        if (edge)
            morphBand<Erode, Cross, true>(data[j], below, aboveRow.data(), w, j == 0, realByteRowsMask(j, h - 1),
                                          realByteRowsMask(j, h));
        else
            morphBand<Erode, Cross, false>(data[j], below, aboveRow.data(), w, false, _mm_setzero_si128(),
                                           _mm_setzero_si128());
    }
}

} // namespace

void CSSEcharMatrix::Erode(bool cross)
{
    cross ? morph3x3<true, true>(*this) : morph3x3<true, false>(*this);
}

void CSSEcharMatrix::Dilate(bool cross)
{
    cross ? morph3x3<false, true>(*this) : morph3x3<false, false>(*this);
}
