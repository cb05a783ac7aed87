#pragma once

// The matrix stream writer's pass steps with the parameters of the pass given explicitly, so
// that a pass codes the matrix or the residual it is handed without a copy carrying them.

#include <cstddef>
#include <memory>
#include <optional>
#include <cstring>
#include <emmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"

class RbStreamWriteBinary;
class RyFloatingPointQuantization;

namespace qzsse::detail {

struct ValueRange {
    float min;
    float max;
};

// Lane extremes of the real elements of a matrix (NaN never taken), from +/- the largest
// float: what the quantiser's range scan and the reported error are derived from.
struct LaneExtremes {
    __m128 min;
    __m128 max;
};

// The values a quantiser gives its codes back as: the table of Unmap, and for the library's
// own quantisers their Unmap four columns at a time (min + code / factor, the invalid value
// for the invalid code), the same values.
struct PassValues {
    float values[256];
    bool uniform = false;
    bool withInvalid = false;
    float min = 0.0f, factor = 1.0f, invalid = 0.0f;
    explicit PassValues(const RyFloatingPointQuantization& q);
};

// The four column vectors (rows r .. r + 3) of columns x .. x + 3 of row-major codes, row
// pointing at row r (rows of stride bytes).
[[gnu::always_inline]] inline void ColumnValues4(const unsigned char* row, size_t stride, size_t x,
                                                 const PassValues& v, __m128 out[4])
{
    if (!v.uniform) {
        for (int c = 0; c < 4; ++c)
            out[c] = _mm_setr_ps(v.values[row[x + c]], v.values[row[stride + x + c]], v.values[row[2 * stride + x + c]],
                                 v.values[row[3 * stride + x + c]]);
        return;
    }
    const auto four = [&](size_t r) {
        int bytes;
        std::memcpy(&bytes, row + r * stride + x, 4);
        return _mm_cvtsi32_si128(bytes);
    };
    const __m128i zero = _mm_setzero_si128();
    // Byte 4c + r: column x + c, row r.
    const __m128i columns = _mm_unpacklo_epi16(_mm_unpacklo_epi8(four(0), four(1)), _mm_unpacklo_epi8(four(2), four(3)));
    const __m128i low = _mm_unpacklo_epi8(columns, zero);
    const __m128i high = _mm_unpackhi_epi8(columns, zero);
    const __m128i codes[4] = {_mm_unpacklo_epi16(low, zero), _mm_unpackhi_epi16(low, zero),
                              _mm_unpacklo_epi16(high, zero), _mm_unpackhi_epi16(high, zero)};
    const __m128 min = _mm_set1_ps(v.min);
    const __m128 factor = _mm_set1_ps(v.factor);
    for (int c = 0; c < 4; ++c) {
        out[c] = _mm_add_ps(min, _mm_div_ps(_mm_cvtepi32_ps(codes[c]), factor));
        if (v.withInvalid) {
            const __m128 invalidCode = _mm_castsi128_ps(_mm_cmpeq_epi32(codes[c], _mm_set1_epi32(255)));
            out[c] = _mm_or_ps(_mm_and_ps(invalidCode, _mm_set1_ps(v.invalid)), _mm_andnot_ps(invalidCode, out[c]));
        }
    }
}

// A pass taken off the matrix as it is read: element - its value (row-major codes; 0 in the
// padding), for the residual of a first pass that need not be stored.
struct PassOffset {
    const unsigned char* codes;
    PassValues values;
    PassOffset(const unsigned char* c, const RyFloatingPointQuantization& q) : codes(c), values(q) {}
};

// createAndEncodeQuantizer's choice for m under p; `scanned`, when given, is the answer of
// the range scan over m (without skipping an invalid value), which is then not repeated.
std::unique_ptr<RyFloatingPointQuantization> WritePassQuantizer(const CSSEMatrix& m,
                                                                const CSSEMatrix::QzSCompressionParameters& p,
                                                                bool withInvalid, const ValueRange* scanned,
                                                                RbStreamWriteBinary& stream);

// quantize's codes for m (minus `offset` when given) under p (the fixed-range clamp),
// width x height bytes into out.
void QuantizePassCodes(const CSSEMatrix& m, const RyFloatingPointQuantization& q,
                       const CSSEMatrix::QzSCompressionParameters& p, unsigned char* out,
                       const PassOffset* offset = nullptr);

// The range scan's answer (no invalid value skipped) from the extremes of m's real elements.
// A zero end needs m itself (its sign is that of the first zero met): none when m is null.
std::optional<ValueRange> RangeFromExtremes(const CSSEMatrix* m, const LaneExtremes& e);

// The error the writer reports for a residual with these extremes: max(|min|, |max|) as
// CalcMinMaxValues gives them.
float ErrorFromExtremes(const LaneExtremes& e);

// One writer pass of src's size given by its codes (rows of width bytes; the quantiser's
// values), as the residual coding applies it: where not settled, element - pass value; then
// elements where the pass holds the invalid value (hasInvalid) become settled. The result
// goes to dst (src itself, or a matrix of src's size whose contents are not read; null: not
// stored). Returns the extremes of the result's real elements.
// With `offset`, src stands for src minus that pass.
LaneExtremes SubtractPassCodes(const CSSEMatrix& src, CSSEMatrix* dst, CSSEMatrix* settled,
                               const unsigned char* codes, const RyFloatingPointQuantization& q, bool hasInvalid,
                               float invalid, const PassOffset* offset = nullptr);

} // namespace qzsse::detail
