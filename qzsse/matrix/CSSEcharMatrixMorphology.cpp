#include <vector>

#include "qzsse/matrix/CSSEcharMatrix.h"
#include "qzsse/matrix/detail/ByteRows.h"

namespace {

struct Lanes { // a vector as an element of std::vector, which drops the alignment attribute
    __m128i v;
};

// Band by band: the vertical neighbours of a byte are its neighbours in the vector, the
// outer two taken from the bands above (kept unchanged in `above`) and below (not yet
// written). A missing neighbour is replaced by the pixel itself, which is neutral for both
// the minimum and the maximum, so the image border neither erodes nor dilates.
template <bool Erode>
void morph3x3(CSSEcharMatrix& m, bool cross)
{
    using qzsse::detail::realByteRowsMask;
    using qzsse::detail::setBytes;
    __m128i** data = m.GetMatrixDataDirectly();
    const int w = m.GetSizeX(), h = m.GetSizeY();
    if (data == nullptr || w < 1 || h < 1)
        return;
    const auto op = [](__m128i a, __m128i b) { return Erode ? _mm_and_si128(a, b) : _mm_or_si128(a, b); };
    std::vector<Lanes> aboveRow(static_cast<size_t>(w)), centreRow(static_cast<size_t>(w)), columnRow(static_cast<size_t>(w));
    const __m128i one = _mm_set1_epi8(1);
    const __m128i firstByte = _mm_setr_epi8(-1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0);
    const int bands = m.GetSSESizeY();
    for (int j = 0; j < bands; ++j) {
        __m128i* d = data[j];
        const __m128i* below = j + 1 < bands ? data[j + 1] : nullptr;
        // Bytes whose row below is a real row; the others use themselves.
        const __m128i hasBelow = realByteRowsMask(j, h - 1);
        Lanes* above = aboveRow.data();
        Lanes* centre = centreRow.data();
        Lanes* column = columnRow.data();
        for (int x = 0; x < w; ++x)
            centre[x].v = setBytes(d[x]);
        for (int x = 0; x < w; ++x) {
            const __m128i c = centre[x].v;
            const __m128i up = j > 0 ? _mm_or_si128(_mm_slli_si128(c, 1), _mm_srli_si128(above[x].v, 15))
                                     : _mm_or_si128(_mm_slli_si128(c, 1), _mm_and_si128(c, firstByte));
            __m128i down = _mm_srli_si128(c, 1);
            if (below != nullptr)
                down = _mm_or_si128(down, _mm_slli_si128(setBytes(below[x]), 15));
            down = _mm_or_si128(_mm_and_si128(hasBelow, down), _mm_andnot_si128(hasBelow, c));
            column[x].v = op(op(up, c), down);
        }
        const __m128i keep = _mm_and_si128(realByteRowsMask(j, h), one);
        const Lanes* sides = cross ? centre : column;
        for (int x = 0; x < w; ++x) {
            const __m128i left = x > 0 ? sides[x - 1].v : column[x].v;
            const __m128i right = x + 1 < w ? sides[x + 1].v : column[x].v;
            d[x] = _mm_and_si128(op(op(left, column[x].v), right), keep);
        }
        aboveRow.swap(centreRow);
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
