#pragma once

#include "qzsse/matrix/CSSEMatrix.h"

namespace qzsse::detail {

// Largest |a - b| over the real pixels of two matrices of the same size. Equal values
// (infinities included) and NaN against NaN count 0; NaN against a number counts +inf, so a
// lost or invented NaN is never hidden.
float MaxAbsDifference(const CSSEMatrix& a, const CSSEMatrix& b);

// Copies the values of every band of src into dst (same size); the parameters stay.
void CopyMatrixValues(const CSSEMatrix& src, CSSEMatrix& dst);

// Sets every padding row (below the image, inside its bands) to the last real row, so that
// band-wise neighbour look-ups see a repeated edge there.
void RepeatLastRowIntoPadding(CSSEMatrix& m);

// True when both matrices have the same width and height.
inline bool SameSize(const CSSEMatrix& a, const CSSEMatrix& b)
{
    return a.GetSizeX() == b.GetSizeX() && a.GetSizeY() == b.GetSizeY();
}

} // namespace qzsse::detail
