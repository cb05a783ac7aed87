#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/core/detail/ClampInto.h"
#include "qzsse/polygon/detail/BandMaskFill.h"
#include "qzsse/polygon/detail/InsideRowBits.h"

namespace qzsse::detail {

// Collects bit rows (column c is bit c + 64, so columns -64 .. width + 63 can be handed in)
// into the lanes of one band of a banded matrix at a time, clamping rows and columns into
// the matrix as the per-pixel rule's writes are clamped, and then updates the band's cells
// straight from the bits: 64 columns at a time where no lane is set, runs of cells whose
// lanes are all set without a select, and a lane select only for the columns in between.
// As with BandMaskFolder, every update used is idempotent, so cells reached from several
// clamped positions end as if reached once.
template <class Bands, class Update>
class BandBitFolder {
public:
    using Vector = typename Bands::Vector;
    static constexpr int c_iBase = -64;

    BandBitFolder(Vector** bands, int width, int height, Update update)
        : m_bands(bands), m_width(width), m_height(height), m_words((width + 191) >> 6), m_update(update),
          m_lanes(static_cast<size_t>(m_words) * Bands::c_iLanes, 0)
    {
    }

    // The bit row that scan row y (any row: it is clamped here) is to be ORed into, words
    // w0 .. w1 of it.
    std::uint64_t* rowFor(int y, int w0, int w1)
    {
        const int clamped = clampInto(y, 0, m_height - 1);
        const int band = clamped >> Bands::c_iShift;
        if (band != m_band) {
            flush();
            m_band = band;
        }
        m_lo = std::min(m_lo, w0);
        m_hi = std::max(m_hi, w1);
        return laneBits(clamped & (Bands::c_iLanes - 1));
    }

    void finish() { flush(); }

private:
    std::uint64_t* laneBits(int lane) { return m_lanes.data() + static_cast<size_t>(lane) * m_words; }

    // Columns left of the matrix land on column 0, those right of it on column width - 1.
    void clampColumns(std::uint64_t* lane)
    {
        if (m_lo == 0 && lane[0] != 0) {
            lane[0] = 0;
            lane[1] |= 1;
        }
        const int outBit = m_width + 64;
        const int outWord = outBit >> 6;
        if (m_hi < outWord)
            return;
        const std::uint64_t keep = (std::uint64_t(1) << (outBit & 63)) - 1;
        std::uint64_t beyond = lane[outWord] & ~keep;
        lane[outWord] &= keep;
        for (int w = outWord + 1; w <= m_hi; ++w) {
            beyond |= lane[w];
            lane[w] = 0;
        }
        if (beyond != 0) {
            const int lastBit = m_width + 63;
            lane[lastBit >> 6] |= std::uint64_t(1) << (lastBit & 63);
        }
    }

    void flush()
    {
        if (m_band < 0 || m_lo > m_hi)
            return;
        constexpr int lanes = Bands::c_iLanes;
        std::uint64_t* bits[lanes];
        for (int l = 0; l < lanes; ++l) {
            bits[l] = laneBits(l);
            clampColumns(bits[l]);
        }
        m_hi = std::max(m_hi, 1); // column 0 may have been reached from the left
        Vector* cells = m_bands[m_band];
        const int lastWord = std::min(m_hi, (m_width + 63) >> 6);
        // Two words at a time for the lane summaries; the lanes are cleared as they are read
        // (clampColumns has cleared every word of m_lo .. m_hi outside this range).
        const int firstWord = std::max(m_lo, 1);
        for (int w = firstWord; w <= lastWord; w += 2) {
            __m128i anyPair = _mm_setzero_si128(), allPair = _mm_set1_epi32(-1);
            for (int l = 0; l < lanes; ++l) {
                const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(bits[l] + w));
                anyPair = _mm_or_si128(anyPair, b);
                allPair = _mm_and_si128(allPair, b);
            }
            if (_mm_movemask_epi8(_mm_cmpeq_epi32(anyPair, _mm_setzero_si128())) == 0xffff)
                continue;
            alignas(16) std::uint64_t anyWords[2], allWords[2];
            _mm_store_si128(reinterpret_cast<__m128i*>(anyWords), anyPair);
            _mm_store_si128(reinterpret_cast<__m128i*>(allWords), allPair);
            for (int h = 0; h < 2 && w + h <= lastWord; ++h)
                if (anyWords[h] != 0)
                    writeWord(cells, bits, w + h, anyWords[h], allWords[h]);
            for (int l = 0; l < lanes; ++l)
                _mm_storeu_si128(reinterpret_cast<__m128i*>(bits[l] + w), _mm_setzero_si128());
        }
        m_lo = m_words;
        m_hi = -1;
    }

    // Updates the 64 cells of word w from the lane bits (any: some lane set, all: every one).
    void writeWord(Vector* cells, std::uint64_t* const* bits, int w, std::uint64_t any, std::uint64_t all)
    {
        Vector* base = cells + (static_cast<ptrdiff_t>(w) << 6) - 64;
        // Runs of cells with every lane set.
        for (std::uint64_t a = all; a != 0;) {
            const int from = __builtin_ctzll(a);
            const std::uint64_t rest = ~(a >> from);
            const int length = rest == 0 ? 64 - from : __builtin_ctzll(rest);
            Vector* c = base + from;
            Vector* const end = c + length;
            for (; end - c >= 4; c += 4) {
                c[0] = m_update(c[0]);
                c[1] = m_update(c[1]);
                c[2] = m_update(c[2]);
                c[3] = m_update(c[3]);
            }
            for (; c != end; ++c)
                *c = m_update(*c);
            a = (length + from >= 64) ? 0 : a & (~std::uint64_t(0) << (from + length));
        }
        // Columns with some lanes set.
        if (any != all) {
            const std::uint64_t* words[Bands::c_iLanes];
            for (int l = 0; l < Bands::c_iLanes; ++l)
                words[l] = bits[l] + w;
            Bands::selectColumns(base, words, any & ~all, m_update);
        }
    }

    Vector** m_bands;
    int m_width;
    int m_height;
    int m_words;
    Update m_update;
    std::vector<std::uint64_t> m_lanes; // c_iLanes bit rows of m_words words
    int m_band = -1;
    int m_lo = 0x7fffffff;
    int m_hi = -1;
};

// As foldInsideRows, for the pixels inside outline and not inside hole (both tested as the
// per-pixel rule tests them). False, with nothing changed, where either outline needs the
// per-pixel path.
template <class Bands, class Update>
bool foldInsideRowsExcept(const OutlineXY& outline, const OutlineXY& hole, int x0, int x1, int y0, int y1,
                          typename Bands::Vector** bands, int width, int height, Update update)
{
    using Folder = BandBitFolder<Bands, Update>;
    if (outline.n < 3 || x0 > x1 || y0 > y1)
        return true;
    if (x0 < Folder::c_iBase || x1 > width + 63)
        return false;
    InsideRowBits outer(outline, x0, x1, Folder::c_iBase);
    InsideRowBits inner(hole, x0, x1, Folder::c_iBase);
    const bool noHole = hole.n < 3; // nothing is inside it
    if (!outer.exact() || !(inner.exact() || noHole))
        return false;
    Folder folder(bands, width, height, update);
    const int w0 = outer.firstWord(), w1 = outer.lastWord();
    if (w0 <= w1) {
        const size_t words = static_cast<size_t>(std::max(w1, inner.lastWord())) + 1;
        std::vector<std::uint64_t> inside(words, 0), holeBits(words, 0);
        for (long long y = y1; y >= y0; --y) {
            if (!outer.scanRow(static_cast<int>(y), inside.data()))
                continue;
            const bool holed = !noHole && inner.scanRow(static_cast<int>(y), holeBits.data());
            std::uint64_t* lane = folder.rowFor(static_cast<int>(y), w0, w1);
            for (int w = w0; w <= w1; ++w) {
                lane[w] |= inside[static_cast<size_t>(w)] & ~holeBits[static_cast<size_t>(w)];
                inside[static_cast<size_t>(w)] = 0;
            }
            if (holed)
                std::fill(holeBits.begin() + inner.firstWord(), holeBits.begin() + inner.lastWord() + 1, 0);
        }
    }
    folder.finish();
    return true;
}

// Scans rows y0 .. y1 over columns x0 .. x1 and folds their inside pixels into the matrix.
template <class Bands, class Update>
void foldInsideRows(const OutlineXY& outline, int x0, int x1, int y0, int y1, typename Bands::Vector** bands,
                    int width, int height, Update update)
{
    if (outline.n < 3 || x0 > x1 || y0 > y1)
        return;
    using Folder = BandBitFolder<Bands, Update>;
    if (x0 >= Folder::c_iBase && x1 <= width + 63) {
        InsideRowBits scan(outline, x0, x1, Folder::c_iBase);
        if (scan.exact()) {
            Folder folder(bands, width, height, update);
            if (scan.firstWord() <= scan.lastWord())
                for (long long y = y1; y >= y0; --y)
                    scan.scanRow(static_cast<int>(y), folder.rowFor(static_cast<int>(y), scan.firstWord(), scan.lastWord()));
            folder.finish();
            return;
        }
    }
    RowInsideScanner scanner(outline);
    BandMaskFolder<Bands, Update> folder(bands, width, height, update);
    std::vector<InsideRun> runs;
    for (long long y = y0; y <= y1; ++y) {
        scanner.scanRow(static_cast<int>(y), x0, x1, runs);
        folder.addRuns(static_cast<int>(y), runs);
    }
    folder.finish();
}

} // namespace qzsse::detail
