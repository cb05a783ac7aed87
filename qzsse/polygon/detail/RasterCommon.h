#pragma once

#include <xmmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"

namespace qzsse::detail {

// Float to int toward zero without undefined behaviour: NaN and values beyond the int
// range give INT_MIN, as the hardware conversion does, and are then clamped like any other
// far-away coordinate.
inline int truncToInt(float v)
{
    return _mm_cvttss_si32(_mm_set_ss(v));
}

// truncate(v + 0.5): half up for non-negative v only.
inline int roundToInt(float v)
{
    return truncToInt(v + 0.5f);
}

// A float or char matrix with cells to draw into.
template <class Matrix>
bool hasStorage(const Matrix* m)
{
    return m != nullptr && m->GetMatrixDataDirectly() != nullptr && m->GetSizeX() > 0 && m->GetSizeY() > 0;
}

} // namespace qzsse::detail
