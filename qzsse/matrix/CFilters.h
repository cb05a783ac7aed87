#pragma once

class CSSEMatrix;

// Rank filters on float matrices.
class CFilters {
public:
    // dst (re-created when its size differs; it may be src) gets the median of the 3 x 3 or
    // 5 x 5 box around every real pixel of src. Pixels outside the image are read clamped to
    // the nearest edge pixel (edge replication); a box holding a NaN gives NaN; padding rows
    // of dst are 0. A source without storage or pixels leaves dst untouched.
    static void Median3x3(const CSSEMatrix& src, CSSEMatrix& dst);
    static void Median5x5(const CSSEMatrix& src, CSSEMatrix& dst);
};
