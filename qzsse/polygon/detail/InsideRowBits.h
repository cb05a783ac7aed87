#pragma once

#include <cstdint>
#include <vector>

#include "qzsse/polygon/detail/PolygonCrossing.h"

namespace qzsse::detail {

// The pixels the per-pixel rule (box test, then the crossing parity with step 1) finds
// inside, as one bit per column, for rows taken from the top down. Only the edges that meet
// the row are evaluated; the others cost nothing per row:
// - an edge wholly below the row never passes above one of its pixels;
// - for a fixed column the edge's comparison is monotone in the row (the right-hand side
//   only grows with y), so once an edge passes above every pixel of its column range in
//   one row it does so in every lower row, and its range is folded once into a running
//   parity row;
// - within a row the comparison is monotone in x, so an edge the row meets toggles one
//   interval of its column range, whose end is found by evaluating that same predicate.
// A row is the running parity with those intervals flipped.
class InsideRowBits {
public:
    // Columns x0 .. x1 with x0 >= base; column c is bit c - base of a row.
    InsideRowBits(const OutlineXY& outline, int x0, int x1, int base);

    // False where the scan cannot stand in for the rule: coordinates that are not finite or
    // beyond +-1e18 (products could overflow), or columns beyond +-2^24 (not exact as floats).
    bool exact() const { return m_exact; }

    // Words firstWord() .. lastWord() of a row hold every column that can be inside.
    int firstWord() const { return m_firstWord; }
    int lastWord() const { return m_lastWord; }

    // ORs words firstWord() .. lastWord() of row y into row (indexed from word 0) and says
    // whether the row can hold inside pixels at all (false: nothing changed). Rows are taken
    // in decreasing order; a higher row than the last starts the scan over.
    bool scanRow(int y, std::uint64_t* row);

private:
    struct Edge {
        float ax, ay, dx, dy; // a is the end with the smaller x; d = b - a as the rule has it
        int first, last;      // columns of the half-open x-range, clipped to the scan
        float maxY;
    };
    void restart();
    void meet(const Edge& e);
    void forget(size_t k);
    // Flips columns from .. to of a row held from word firstWord() on.
    void flip(std::uint64_t* words, int from, int to) const;
    // Flips the running parity from a column to the end of the row.
    void flipToEnd(int from);
    // The end of met edge k's interval that stays put while the row crosses the edge: the
    // column after its range where the comparison holds on a suffix (dy > 0), else its first
    // column. Its toggle is kept in the running parity from meeting to leaving, so each row
    // toggles only the other, moving end.
    int fixedEnd(size_t k) const { return m_dy[k] > 0.0f ? m_mLast[k] + 1 : m_mFirst[k]; }
    // Flips bit b (a column minus m_origin, never negative) of the current row's toggles.
    void toggle(int b)
    {
        m_toggles[static_cast<unsigned>(b) >> 6] ^= std::uint64_t(1) << (b & 63);
    }
    int boundary(size_t k, float fy) const;

    OutlineXY m_outline;
    bool m_exact = false;
    int m_base = 0;
    int m_first = 0, m_last = -1; // columns the box test lets through
    int m_firstWord = 0, m_lastWord = -1;
    int m_origin = 0; // the column of bit 0 of word m_firstWord
    std::vector<Edge> m_edges; // by decreasing maxY
    size_t m_next = 0;         // first edge not yet met
    // The edges met and not yet wholly above the row, as structure of arrays padded to a
    // multiple of four; slope is dx / dy, for a first guess at where an edge crosses a row.
    std::vector<float> m_ax, m_ay, m_dx, m_dy, m_slope;
    std::vector<int> m_mFirst, m_mLast;
    size_t m_met = 0;
    std::vector<size_t> m_gone; // met edges found wholly above in the current row
    // Parity of the edges wholly above and of the fixed ends of the met ones, from m_firstWord.
    std::vector<std::uint64_t> m_above;
    std::vector<std::uint64_t> m_toggles; // the current row's flips, as their start columns
    float m_lastRow = 0.0f;
};

} // namespace qzsse::detail
