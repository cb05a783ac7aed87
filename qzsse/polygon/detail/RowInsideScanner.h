#pragma once

#include <vector>

#include "qzsse/polygon/detail/PolygonCrossing.h"

namespace qzsse::detail {

// A run of inside pixels of one row, both ends included.
struct InsideRun {
    int first;
    int last;
};

// Gives, row by row, exactly the pixels that the per-pixel rule (box test, then the
// crossing parity with step 1) finds inside, without testing every pixel against every
// edge. For a fixed row the product an edge compares is a monotone function of x (every
// step is a monotone rounding), so each edge toggles one contiguous interval of its
// half-open x-range, whose end is found by evaluating that same float predicate; the
// parity of the toggles is then a prefix xor. Edges that lie wholly below the row can
// never pass above a pixel of it and are dropped by a cursor over edges sorted by their
// larger y (rows are usually asked for in increasing order).
// Coordinates that are not finite or beyond +-1e18 (where products could overflow), and
// pixel coordinates beyond +-2^24 (not exact as floats), fall back to the per-pixel rule.
class RowInsideScanner {
public:
    explicit RowInsideScanner(const OutlineXY& outline);

    // Inside runs of row y over the columns x0 .. x1, in increasing order.
    void scanRow(int y, int x0, int x1, std::vector<InsideRun>& runs);

private:
    void scanRowDirect(float fy, int x0, int x1, std::vector<InsideRun>& runs) const;

    OutlineXY m_outline;
    // Edges sorted by their larger y, as structure of arrays padded to a multiple of four
    // (padding edges have an empty column range). a is the end with the smaller x; dx, dy
    // are b - a as the rule computes them; firstX .. lastX are the integer x with
    // ax < x <= bx, held within +-2^30.
    std::vector<float> m_ax, m_ay, m_dx, m_dy, m_maxY;
    std::vector<int> m_firstX, m_lastX;
    size_t m_edgeCount = 0;
    std::vector<unsigned char> m_toggles;
    size_t m_firstActive = 0;
    float m_lastRow = 0.0f;
    bool m_direct = false;
};

} // namespace qzsse::detail
