// Interior fills of CSSE3dPolygon into float and char matrices. Every fill is defined pixel
// by pixel (PointInLineInnerArea on a prepared copy, coordinates clamped into the matrix)
// and computed row by row with InsideRowBits, or with RowInsideScanner where a bit row
// cannot stand in for the rule; both find exactly the same pixels.

#include "qzsse/polygon/CSSE3dPolygon.h"

#include <algorithm>
#include <climits>
#include <exception>
#include <thread>
#include <type_traits>
#include <vector>

#include "qzsse/base/RbThreadPool.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/CSSEcharMatrix.h"
#include "qzsse/matrix/detail/RowMask.h"
#include "qzsse/polygon/detail/BandBitFill.h"
#include "qzsse/polygon/detail/BandMaskFill.h"
#include "qzsse/polygon/detail/RasterCommon.h"

namespace qzsse::detail {
namespace {

constexpr int c_iFineMarginBefore = 5;
constexpr int c_iFineMarginAfter = 4;
constexpr int c_iCoarseStep = 3;
constexpr int c_iCoarseMargin = 9;
constexpr int c_iCoarseChunkColumns = 3 * 4096;
constexpr int c_iMinBandsPerThread = 16;

// Scan window, both ends included.
struct ScanWindow {
    int x0, x1, y0, y1;
};

// The window of the fine fills: the box rows limited by yMin / yMax (yHi uses yLo before
// yLo is clamped), both clamped into the matrix, the box columns clamped, and the margins.
ScanWindow fineWindow(CSSE3dPolygon& polygon, int width, int height, float yMin, float yMax)
{
    polygon.CalcBoundingBox();
    float minX, minY, minZ, maxX, maxY, maxZ;
    polygon.GetBoundingBox3D(minX, minY, minZ, maxX, maxY, maxZ);
    const int top = truncToInt(maxY);
    int yLo = std::min(std::max(truncToInt(minY), truncToInt(yMin)), top);
    int yHi = std::max(yLo, std::min(top, truncToInt(yMax)));
    yHi = clampInto(yHi, 0, height - 1);
    yLo = clampInto(yLo, 0, height - 1);
    const int xLo = clampInto(truncToInt(minX), 0, width - 1);
    const int xHi = clampInto(truncToInt(maxX), 0, width - 1);
    return {xLo - c_iFineMarginBefore, xHi + c_iFineMarginAfter, yLo - c_iFineMarginBefore, yHi + c_iFineMarginAfter};
}

// The copy the fills test against: optionally thinned, repeated points removed, box fresh.
// Derived so that it may hand out its own outline.
class PreparedCopy : public CSSE3dPolygon {
public:
    PreparedCopy(const CSSE3dPolygon& source, bool subsample)
    {
        CreateSimilar(&source);
        if (subsample)
            Subsample(5, true);
        RemoveEqualPointsXY();
        CalcBoundingBox();
    }
    OutlineXY outline() { return rasterOutline(); }
};

// What every fine fill scans: the window from the polygon's fresh box (taken before the copy,
// which inherits the box records and flag) and the prepared copy's outline.
struct FineScan {
    FineScan(CSSE3dPolygon& polygon, int width, int height, bool subsample, float yMin, float yMax)
        : window(fineWindow(polygon, width, height, yMin, yMax)), copy(polygon, subsample), outline(copy.outline())
    {
    }

    const ScanWindow window;
    PreparedCopy copy;
    const OutlineXY outline; // points into copy
};

// Inside runs of a minus those of b (both sorted, disjoint).
void subtractRuns(const std::vector<InsideRun>& a, const std::vector<InsideRun>& b, std::vector<InsideRun>& out)
{
    out.clear();
    size_t j = 0;
    for (const InsideRun& run : a) {
        long long from = run.first;
        while (j < b.size() && b[j].last < from)
            ++j;
        for (size_t k = j; k < b.size() && b[k].first <= run.last && from <= run.last; ++k) {
            if (b[k].first > from)
                out.push_back({static_cast<int>(from), b[k].first - 1});
            from = static_cast<long long>(b[k].last) + 1;
        }
        if (from <= run.last)
            out.push_back({static_cast<int>(from), run.last});
    }
}

// Fine-window rows y0 .. y1 split by matrix bands over threads: each part owns whole bands,
// the first also the rows above the matrix and the last those below, so no cell is shared.
template <class Update>
void foldInsideRowsInParallel(const OutlineXY& outline, const ScanWindow& w, CSSEMatrix& matrix, Update update)
{
    if (outline.n < 3 || w.x0 > w.x1)
        return;
    const int width = matrix.GetSizeX();
    const int height = matrix.GetSizeY();
    const int firstBand = clampInto(w.y0, 0, height - 1) >> 2;
    const int lastBand = clampInto(w.y1, 0, height - 1) >> 2;
    const int bands = lastBand - firstBand + 1;
    int parts = RbCPU::GetCount();
    parts = std::min(parts, std::max(1, bands / c_iMinBandsPerThread));
    if (parts <= 1) {
        foldInsideRows<FloatBands>(outline, w.x0, w.x1, w.y0, w.y1, matrix.GetMatrixDataDirectly(), width, height,
                                   update);
        return;
    }
    std::vector<std::exception_ptr> failures(static_cast<size_t>(parts));
    const auto runPart = [&](int part) {
        try {
            const int b0 = firstBand + bands * part / parts;
            const int b1 = firstBand + bands * (part + 1) / parts - 1;
            const int y0 = (part == 0) ? w.y0 : 4 * b0;
            const int y1 = (part == parts - 1) ? w.y1 : 4 * b1 + 3;
            foldInsideRows<FloatBands>(outline, w.x0, w.x1, y0, y1, matrix.GetMatrixDataDirectly(), width, height,
                                       update);
        } catch (...) {
            failures[static_cast<size_t>(part)] = std::current_exception();
        }
    };
    std::vector<std::thread> workers;
    for (int part = 1; part < parts; ++part) {
        try {
            workers.emplace_back(runPart, part);
        } catch (...) {
            runPart(part); // no thread to be had: do this part here
        }
    }
    runPart(0);
    for (std::thread& t : workers)
        t.join();
    for (const std::exception_ptr& failure : failures)
        if (failure)
            std::rethrow_exception(failure);
}

// For every window column x0 .. x1 clamped into the lastRow's columns, the largest clamped
// row y0 .. y1 (clamped into 0 .. height - 1) where it is inside, from rows scanned top down:
// a column's first inside row is its last. False, with nothing changed, where the outline
// needs the per-pixel path.
bool lastInsideRows(const OutlineXY& outline, int x0, int x1, int y0, int y1, int height, std::vector<int>& lastRow)
{
    constexpr int base = -64;
    if (outline.n < 3 || x0 > x1 || y0 > y1)
        return true;
    if (x0 < base)
        return false;
    InsideRowBits scan(outline, x0, x1, base);
    if (!scan.exact())
        return false;
    const int w0 = scan.firstWord(), w1 = scan.lastWord();
    if (w0 > w1)
        return true;
    std::vector<std::uint64_t> row(static_cast<size_t>(w1) + 1, 0), seen(row.size(), 0);
    const int width = static_cast<int>(lastRow.size());
    for (long long y = y1; y >= y0; --y) {
        if (!scan.scanRow(static_cast<int>(y), row.data()))
            continue;
        const int clampedRow = clampInto(static_cast<int>(y), 0, height - 1);
        for (size_t w = static_cast<size_t>(w0); w < row.size(); ++w) {
            for (std::uint64_t fresh = row[w] & ~seen[w]; fresh != 0; fresh &= fresh - 1) {
                const long long x = static_cast<long long>(w) * 64 + __builtin_ctzll(fresh) + base;
                int& last = lastRow[static_cast<size_t>(std::clamp<long long>(x, 0, width - 1))];
                last = std::max(last, clampedRow);
            }
            seen[w] |= row[w];
            row[w] = 0;
        }
    }
    return true;
}

// The coarse fill's 3 x 3 boxes from bit rows: lattice rows latticeY0, + 3, ... below yEnd
// and lattice columns latticeX0, + 3, ... below xEnd are scanned top down; every inside
// lattice point's box centre, clamped as Set3x3BoxPoint clamps it, is marked in a row of
// centres, which widened by a column each side is stored into the box's three rows. Boxes
// only store the one value, so their order and overlaps change nothing. False, with
// nothing changed, where the outline needs the per-pixel path, the matrix is narrower or
// lower than a box, or the lattice is so much wider than the matrix that a bit per column
// would cost more than the run scanner.
bool coarseBoxesFromRowBits(const OutlineXY& outline, long long latticeX0, long long xEnd, long long latticeY0,
                            long long yEnd, CSSEMatrix& matrix, float value)
{
    const int width = matrix.GetSizeX(), height = matrix.GetSizeY();
    if (width < 3 || height < 3 || xEnd <= latticeX0 || yEnd <= latticeY0)
        return width >= 3 && height >= 3;
    if (latticeX0 < INT_MIN || xEnd - 1 > INT_MAX || xEnd - latticeX0 > 4LL * width + 4096)
        return false;
    const int x0 = static_cast<int>(latticeX0);
    InsideRowBits scan(outline, x0, static_cast<int>(xEnd - 1), x0);
    if (!scan.exact())
        return false;
    using Folder = BandBitFolder<FloatBands, StoreValue>;
    Folder folder(matrix.GetMatrixDataDirectly(), width, height, StoreValue{_mm_set1_ps(value)});
    const int w0 = scan.firstWord(), w1 = scan.lastWord();
    if (w0 <= w1) {
        // Lattice columns are the bits 3j of a row; bit b of word w is one where b = -w mod 3.
        constexpr std::uint64_t everyThird = 0x9249249249249249ULL;
        const std::uint64_t lattice[3] = {everyThird, everyThird << 2, everyThird << 1};
        std::vector<std::uint64_t> inside(static_cast<size_t>(w1) + 1, 0);
        const size_t boxWords = static_cast<size_t>((width + 191) >> 6); // as the folder's rows
        std::vector<std::uint64_t> centres(boxWords, 0);
        const long long lastLatticeY = latticeY0 + (yEnd - 1 - latticeY0) / 3 * 3;
        for (long long y = lastLatticeY; y >= latticeY0; y -= 3) {
            if (y < INT_MIN || y > INT_MAX || !scan.scanRow(static_cast<int>(y), inside.data()))
                continue;
            int lo = INT_MAX, hi = -1; // centre bits marked
            for (int w = w0; w <= w1; ++w) {
                std::uint64_t b = inside[static_cast<size_t>(w)] & lattice[w % 3];
                inside[static_cast<size_t>(w)] = 0;
                if (b == 0)
                    continue;
                const long long wordX = latticeX0 + 64LL * w; // the column of bit 0
                if (wordX >= 1 && wordX + 63 <= width - 2) {
                    // No clamping in this word: its bits move to the centre row as a whole.
                    const long long bit0 = wordX + 64;
                    const size_t cw = static_cast<size_t>(bit0 >> 6);
                    const int shift = static_cast<int>(bit0 & 63);
                    centres[cw] |= b << shift;
                    if (shift != 0)
                        centres[cw + 1] |= b >> (64 - shift);
                    lo = std::min(lo, static_cast<int>(bit0) + __builtin_ctzll(b));
                    hi = std::max(hi, static_cast<int>(bit0) + 63 - __builtin_clzll(b));
                    continue;
                }
                for (; b != 0; b &= b - 1) {
                    const int c = clampInto(wordX + __builtin_ctzll(b), 1, width - 2) + 64; // the centre's bit
                    centres[static_cast<size_t>(c >> 6)] |= std::uint64_t(1) << (c & 63);
                    lo = std::min(lo, c);
                    hi = std::max(hi, c);
                }
            }
            if (hi < 0)
                continue;
            // Each centre widened to its box columns, c - 1 .. c + 1 (all within the matrix).
            const int wLo = (lo - 1) >> 6, wHi = (hi + 1) >> 6;
            const int cy = clampInto(y, 1, height - 2);
            for (int r = cy + 1; r >= cy - 1; --r) {
                std::uint64_t* lane = folder.rowFor(r, wLo, wHi);
                std::uint64_t below = 0; // bit 63 of the word before
                for (int w = wLo; w <= wHi; ++w) {
                    const std::uint64_t c = centres[static_cast<size_t>(w)];
                    const std::uint64_t next = w < wHi ? centres[static_cast<size_t>(w) + 1] : 0;
                    lane[w] |= c | (c << 1) | (below >> 63) | (c >> 1) | (next << 63);
                    below = c;
                }
            }
            std::fill(centres.begin() + wLo, centres.begin() + wHi + 1, 0);
        }
    }
    folder.finish();
    return true;
}

template <class Matrix>
using BandsOf = std::conditional_t<std::is_same_v<Matrix, CSSEcharMatrix>, CharBands, FloatBands>;

// The fine fills differ only in how an interior cell is updated (and the threaded one in how
// the rows are shared out); the update is inlined into the band fold as a policy.
template <bool Parallel = false, class Matrix, class Update>
void fillFine(CSSE3dPolygon& polygon, Matrix* matrix, bool subsample, float yMin, float yMax, Update update)
{
    if (!hasStorage(matrix))
        return;
    const FineScan scan(polygon, matrix->GetSizeX(), matrix->GetSizeY(), subsample, yMin, yMax);
    const ScanWindow& w = scan.window;
    if constexpr (Parallel)
        foldInsideRowsInParallel(scan.outline, w, *matrix, update);
    else
        foldInsideRows<BandsOf<Matrix>>(scan.outline, w.x0, w.x1, w.y0, w.y1, matrix->GetMatrixDataDirectly(),
                                        matrix->GetSizeX(), matrix->GetSizeY(), update);
}

} // namespace
} // namespace qzsse::detail

using qzsse::detail::FloatBands;
using qzsse::detail::OutlineXY;
using qzsse::detail::ScanWindow;

void CSSE3dPolygon::DrawInMatrixAndFillCoarse(float value, CSSEMatrix* matrix, bool subsample, float yMin, float yMax)
{
    using qzsse::detail::truncToInt;
    if (!qzsse::detail::hasStorage(matrix))
        return;
    CalcBoundingBox();
    const long long x0 = truncToInt(m_pBottomLeft->x);
    const long long x1 = truncToInt(m_pTopRight->x);
    const long long yTop = truncToInt(m_pTopRight->y);
    const long long y0 = std::min<long long>(std::max<long long>(truncToInt(m_pBottomLeft->y), truncToInt(yMin)), yTop);
    const long long y1 = std::max<long long>(std::min<long long>(yTop, truncToInt(yMax)), y0);

    qzsse::detail::PreparedCopy copy(*this, subsample);
    const OutlineXY o = copy.outline();
    if (o.n < 3)
        return;
    const long long step = qzsse::detail::c_iCoarseStep;
    const long long latticeX0 = x0 - qzsse::detail::c_iCoarseMargin;
    const long long latticeEnd = x1 + qzsse::detail::c_iCoarseMargin; // exclusive
    if (qzsse::detail::coarseBoxesFromRowBits(o, latticeX0, latticeEnd, y0 - qzsse::detail::c_iCoarseMargin,
                                              y1 + qzsse::detail::c_iCoarseMargin, *matrix, value))
        return;
    qzsse::detail::RowInsideScanner scanner(o);
    std::vector<qzsse::detail::InsideRun> runs;
    const long long rightmostCentre = matrix->GetSizeX() - 2;
    for (long long y = y0 - qzsse::detail::c_iCoarseMargin; y < y1 + qzsse::detail::c_iCoarseMargin; y += step) {
        if (y < INT_MIN || y > INT_MAX)
            continue; // only for coordinates beyond the int range
        for (long long chunk = latticeX0; chunk < latticeEnd; chunk += qzsse::detail::c_iCoarseChunkColumns) {
            const long long chunkLast = std::min(chunk + qzsse::detail::c_iCoarseChunkColumns, latticeEnd) - 1;
            if (chunk < INT_MIN || chunkLast > INT_MAX)
                continue;
            scanner.scanRow(static_cast<int>(y), static_cast<int>(chunk), static_cast<int>(chunkLast), runs);
            for (const qzsse::detail::InsideRun& run : runs) {
                long long lx = chunk + (run.first - chunk + step - 1) / step * step;
                // Lattice points left of column 1 all clamp to one box centre, and so do those
                // right of the last possible centre: one write stands for each group.
                if (lx <= run.last && lx < 1) {
                    matrix->Set3x3BoxPoint(static_cast<int>(lx), static_cast<int>(y), value);
                    lx += (1 - lx + step - 1) / step * step;
                }
                for (; lx <= run.last; lx += step) {
                    matrix->Set3x3BoxPoint(static_cast<int>(lx), static_cast<int>(y), value);
                    if (lx >= rightmostCentre)
                        break;
                }
            }
        }
    }
}

void CSSE3dPolygon::DrawInMatrixAndFillFine(float value, CSSEMatrix* matrix, bool subsample, float yMin, float yMax)
{
    qzsse::detail::fillFine(*this, matrix, subsample, yMin, yMax, qzsse::detail::StoreValue{_mm_set1_ps(value)});
}

void CSSE3dPolygon::DrawInMatrixAndFillFineMin(float value, CSSEMatrix* matrix, bool subsample, float yMin,
                                               float yMax)
{
    qzsse::detail::fillFine(*this, matrix, subsample, yMin, yMax, qzsse::detail::MinValue{_mm_set1_ps(value)});
}

void CSSE3dPolygon::DrawInMatrixAndFillFineMax(float value, CSSEMatrix* matrix, bool subsample, float yMin,
                                               float yMax)
{
    qzsse::detail::fillFine(*this, matrix, subsample, yMin, yMax, qzsse::detail::MaxValue{_mm_set1_ps(value)});
}

void CSSE3dPolygon::DrawInMatrixAndFillFineForLoop(float value, CSSEMatrix* matrix, bool subsample, float yMin,
                                                   float yMax)
{
    qzsse::detail::fillFine<true>(*this, matrix, subsample, yMin, yMax, qzsse::detail::StoreValue{_mm_set1_ps(value)});
}

void CSSE3dPolygon::DrawSubInMatrixAndFill(float value, CSSEMatrix* matrix, float threshold, bool subsample,
                                           float yMin, float yMax)
{
    qzsse::detail::fillFine(*this, matrix, subsample, yMin, yMax,
                            qzsse::detail::ClearNearValue{_mm_set1_ps(value), _mm_set1_ps(threshold)});
}

void CSSE3dPolygon::DrawInCharMatrixAndFillFine(char value, CSSEcharMatrix* matrix, bool subsample, float yMin,
                                                float yMax)
{
    qzsse::detail::fillFine(*this, matrix, subsample, yMin, yMax, qzsse::detail::StoreByte{_mm_set1_epi8(value)});
}

void CSSE3dPolygon::drawInMatrixWithInsertPolygonAndFillFine(float value, CSSEMatrix* matrix, CSSE3dPolygon* insert,
                                                             bool subsample, float yMin, float yMax)
{
    if (insert == nullptr) {
        DrawInMatrixAndFillFine(value, matrix, subsample, yMin, yMax);
        return;
    }
    if (!qzsse::detail::hasStorage(matrix))
        return;
    const int width = matrix->GetSizeX();
    const int height = matrix->GetSizeY();
    const qzsse::detail::FineScan scan(*this, width, height, subsample, yMin, yMax);
    qzsse::detail::PreparedCopy hole(*insert, subsample);
    const ScanWindow& w = scan.window;
    if (scan.outline.n < 3 || w.x0 > w.x1)
        return;
    const qzsse::detail::StoreValue store{_mm_set1_ps(value)};
    if (qzsse::detail::foldInsideRowsExcept<FloatBands>(scan.outline, hole.outline(), w.x0, w.x1, w.y0, w.y1,
                                                        matrix->GetMatrixDataDirectly(), width, height, store))
        return;
    qzsse::detail::RowInsideScanner outer(scan.outline), inner(hole.outline());
    qzsse::detail::BandMaskFolder<FloatBands, qzsse::detail::StoreValue> folder(matrix->GetMatrixDataDirectly(), width,
                                                                                height, store);
    std::vector<qzsse::detail::InsideRun> inside, holeRuns, kept;
    for (int y = w.y0; y <= w.y1; ++y) {
        outer.scanRow(y, w.x0, w.x1, inside);
        if (inside.empty())
            continue;
        inner.scanRow(y, w.x0, w.x1, holeRuns);
        qzsse::detail::subtractRuns(inside, holeRuns, kept);
        folder.addRuns(y, kept);
    }
    folder.finish();
}

void CSSE3dPolygon::DrawInMatrixAndFillToOneSideFront(float value, CSSEMatrix* matrix, bool subsample, float yMin,
                                                      float yMax)
{
    using qzsse::detail::clampInto;
    if (!qzsse::detail::hasStorage(matrix))
        return;
    const int width = matrix->GetSizeX();
    const int height = matrix->GetSizeY();
    const qzsse::detail::FineScan scan(*this, width, height, subsample, yMin, yMax);
    const ScanWindow& w = scan.window;
    if (scan.outline.n < 3 || w.x0 > w.x1)
        return;

    // Last interior row of every matrix column, after clamping.
    std::vector<int> lastRow(static_cast<size_t>(width), -1);
    if (!qzsse::detail::lastInsideRows(scan.outline, w.x0, w.x1, w.y0, w.y1, height, lastRow)) {
        // Rows only grow here, so the last run that reaches a column decides.
        qzsse::detail::RowInsideScanner scanner(scan.outline);
        std::vector<qzsse::detail::InsideRun> runs;
        for (int y = w.y0; y <= w.y1; ++y) {
            scanner.scanRow(y, w.x0, w.x1, runs);
            const int row = clampInto(y, 0, height - 1);
            for (const qzsse::detail::InsideRun& run : runs)
                for (int x = clampInto(run.first, 0, width - 1); x <= clampInto(run.last, 0, width - 1); ++x)
                    lastRow[static_cast<size_t>(x)] = row;
        }
    }
    const int frontRow = clampInto(w.y0, 0, height - 1);
    const int deepest = *std::max_element(lastRow.begin(), lastRow.end());
    if (deepest < 0)
        return;
    const __m128 fill = _mm_set1_ps(value);
    __m128** data = matrix->GetMatrixDataDirectly();
    for (int band = frontRow >> 2; band <= deepest >> 2; ++band) {
        __m128* cells = data[band];
        for (int x = 0; x < width; ++x) {
            const int last = lastRow[static_cast<size_t>(x)];
            if (last < 4 * band)
                continue;
            const __m128 mask = qzsse::detail::rowRangeMask(4 * band, frontRow, last);
            cells[x] = _mm_or_ps(_mm_and_ps(mask, fill), _mm_andnot_ps(mask, cells[x]));
        }
    }
}
