#pragma once

// What the matrix stream's writer and reader share: the format's bounds, the raw float
// payload and the rule by which a pass changes the matrix, so that both follow it exactly.

#include <cmath>
#include <cstddef>
#include <vector>
#include <xmmintrin.h>

#include "qzsse/base/CString.h"
#include "qzsse/base/RbArray.h"
#include "qzsse/base/RyFloatingPointQuantization.h"
#include "qzsse/matrix/CSSEMatrix.h"

class RbStreamReadBinary;
class RbStreamWriteBinary;

namespace qzsse::detail {

// The field table bounds the height a matrix can hold.
inline constexpr int kMaxStreamHeight = 4 * CSSEMatrix::c_iMaxFields * CSSEMatrix::c_iLinesPerField - 1;
// The pass index of the format is an 8-bit counter.
inline constexpr unsigned int kMaxPasses = 255;

// Blocks of four rows the raw payload holds: ceil(height / 4), never the extra band of
// padding rows below a height that is a multiple of four.
inline int rawBlockCount(int height) { return (height + 3) / 4; }

inline unsigned long long rawFloatBytes(int width, int height)
{
    return static_cast<unsigned long long>(width) * static_cast<unsigned long long>(rawBlockCount(height)) * 16u;
}

// Column by column, and within a column block by block, as the format orders the floats.
void writeRawFloats(const CSSEMatrix& m, RbStreamWriteBinary& stream);

void readRawFloats(CSSEMatrix& m, RbStreamReadBinary& stream);

// Lanes where t is the invalid value; a NaN invalid value matches every NaN.
inline __m128 equalsInvalid(__m128 t, __m128 invalid, __m128 invalidIsNaN)
{
    return _mm_or_ps(_mm_cmpeq_ps(t, invalid), _mm_and_ps(_mm_cmpunord_ps(t, t), invalidIsNaN));
}

inline bool equalsInvalid(float t, float invalid) { return std::isnan(invalid) ? std::isnan(t) : t == invalid; }

// Columns of each row already settled by failed passes: the union of their regions, all
// anchored at (0, 0), is a staircase. Repeated failed passes then cost only their rows.
using SettledStairs = std::vector<int>;

// One pass of the residual coding, shared by writer and reader so that both follow the
// same rule: where the element is not yet settled, the pass image is subtracted (writer,
// from the residual) or added (reader, to the result); then every element where the pass
// image holds the invalid value is settled. `image` null stands for a pass image of
// imageWidth x imageHeight zeros (a payload the codecs could not decode); an image of
// another size than acc only reaches their common part.
void applyPass(CSSEMatrix& acc, CSSEMatrix& settled, const CSSEMatrix* image, unsigned imageWidth,
               unsigned imageHeight, bool hasInvalid, float invalid, bool subtract, SettledStairs& stairs);

// The 256 values a quantiser gives back (Unmap depends on the code alone).
struct CodeValues {
    float values[256];
    explicit CodeValues(const RyFloatingPointQuantization& q)
    {
        for (unsigned long c = 0; c < 256; ++c)
            values[c] = q.Unmap(c);
    }
};

// applyPass for a pass image of acc's size given by its codes (rows of width bytes), without
// forming the image. settled null: nothing is settled and this pass settles nothing. fresh: acc
// is all zeros whatever its storage holds.
void applyPassCodes(CSSEMatrix& acc, CSSEMatrix* settled, const unsigned char* codes, const CodeValues& table,
                    bool hasInvalid, float invalid, bool subtract, bool fresh);

// The codes of a pass's payload, which is released.
std::vector<unsigned char> decodePassCodes(CString& file, unsigned int& width, unsigned int& height);

// Sizes the matrix for a decoded pass image. False when the codes do not fill an image of
// that size (a failed decode): de-quantizing would leave the image at zero then, which
// applyPass reproduces without allocating it.
bool preparePassImage(const RbArray<unsigned char>& codes, unsigned width, unsigned height, CSSEMatrix& image);

} // namespace qzsse::detail
