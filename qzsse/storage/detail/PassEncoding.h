#pragma once

// The matrix stream writer's pass steps with the parameters of the pass given explicitly, so
// that a pass codes the matrix or the residual it is handed without a copy carrying them.

#include <cstddef>
#include <memory>
#include <optional>
#include <xmmintrin.h>

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

// A pass taken off the matrix as it is read: element - values[code] (code of row-major
// codes; 0 in the padding), for the residual of a first pass that need not be stored.
struct PassOffset {
    const unsigned char* codes;
    float values[256];
    explicit PassOffset(const unsigned char* c, const RyFloatingPointQuantization& q);
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
