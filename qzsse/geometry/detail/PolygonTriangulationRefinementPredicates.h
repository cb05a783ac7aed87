#pragma once

namespace qzsse::detail {

// Exact signs on float coordinates, for every finite input. A double evaluation decides when
// its proven error bound allows; otherwise the coordinates are written as integers on the
// finest binary grid they share and the sign is taken in wide integer arithmetic.

// Sign of (b - a) x (c - a): +1 when a, b, c turn counter-clockwise.
int RefinementOrientation(float ax, float ay, float bx, float by, float cx, float cy);

// +1 when d lies strictly inside the circle through a, b, c (taken counter-clockwise), -1
// when strictly outside, 0 when on it; the sign flips for a clockwise a, b, c.
int RefinementInCircle(float ax, float ay, float bx, float by, float cx, float cy, float dx, float dy);

}  // namespace qzsse::detail
