#pragma once

// Sequential sums over the coordinate arrays of a polygon. The per-edge terms are formed
// four at a time; the terms are then added one by one in index order, so the result is
// the plain scalar loop's to the bit.

namespace qzsse::detail {

// Sum over i = 0 .. edges - 1 of the 3-D distance from point i to point i + 1. The arrays
// hold at least edges + 1 points and are 16-byte aligned and padded to four.
float SumOfEdgeLengths(const float* x, const float* y, const float* z, int edges);

// Shoelace sum of (a_i b_(i+1) - a_(i+1) b_i) over the closed polygon of n points, the
// closing term last: twice the signed area. 0 for n < 2.
float ShoelaceSum(const float* a, const float* b, int n);

} // namespace qzsse::detail
