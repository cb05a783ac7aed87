#pragma once

#include "qzsse/base/CString.h"

class CSSEMatrix;

// One chain point: integer pixel position and the matrix value there when it was traced
// (or the value given to AddPoint, possibly changed later by the value operations).
struct pixel {
    int x;
    int y;
    float value;
};

// A contour of an iso-level region of a CSSEMatrix, traced from a start pixel, as a chain
// of pixel positions with their values, plus small operations on such a chain. The chain
// is treated as closed wherever a point's neighbours matter (filters, inner values).
//
// The point buffer has a fixed room of c_iMaxPoints + 1 points, 16-byte aligned; no
// operation stores more than c_iMaxPoints, further points are dropped without notice.
class CPixelChain {
public:
    static constexpr int c_iMaxPoints = 100000;
    static constexpr int c_iBufferPoints = c_iMaxPoints + 1;

    CPixelChain();
    CPixelChain(const CPixelChain& other);
    CPixelChain& operator=(const CPixelChain& other);
    virtual ~CPixelChain();

    // --- tracing (CPixelChainTrace.cpp) -----------------------------------------------------
    // Replaces the chain by the contour through (startX, startY) of the region whose pixels
    // are below level (traceAbove false) or above it (traceAbove true). Marks a frame of
    // `level` into the caller's matrix first (rows 0..3, the last band including its padding
    // rows, columns 0..2 and width-3..width-1 of every band) so the walk cannot leave the
    // image. Directions: 0 = up, then counter-clockwise in the image (1 = up-left, 2 = left,
    // ... 7 = up-right); from current direction d the neighbours are tried in the order
    // d+3, d+2, ..., d+4 and the first qualifying one is taken. The position is clamped into
    // [1, width-2] x [1, height-2] after every step. Stops after maxSteps steps, or when the
    // position is back at the start (exactClose, or while steps <= minSteps), or else as soon
    // as it is the start or one of its eight neighbours. A matrix without storage gives an
    // empty chain and is left alone.
    void CreatePixelChain(CSSEMatrix* matrix, float level, long startX, long startY, long maxSteps,
                          bool traceAbove, bool exactClose, int minSteps);

    // --- points (CPixelChain.cpp) -----------------------------------------------------------
    // Appends only while fewer than c_iMaxPoints points are stored.
    void AddPoint(long x, long y, float value);
    void RemovePoints() { m_iCount = 0; }
    int GetCount() const { return m_iCount; }
    pixel* GetPixelData() { return m_pPixels; }
    const pixel* GetPixelData() const { return m_pPixels; }
    // False (x and y untouched) for an index outside [0, GetCount()).
    bool GetPixel(int index, int& x, int& y) const;
    // Unchecked access to point i, 0 <= i < GetCount().
    pixel& operator[](int i) { return m_pPixels[i]; }
    const pixel& operator[](int i) const { return m_pPixels[i]; }

    void OffsetChain(float delta);

    // --- centres, extent and value range (CPixelChain.cpp) ----------------------------------
    // (int)(mean + 0.5) of x and of y; the mean is computed in float from integer sums. An
    // empty chain has no centre: it reports 0, 0 here and must not be relied on.
    void CalculateGeomCenter_norm();
    void CalculateGeomCenter_norm(long* centerX, long* centerY);
    int GetCenterX() const { return m_iCenterX; }
    int GetCenterY() const { return m_iCenterY; }
    // The float means, from integer sums as above (an empty chain reports 0, 0).
    void CalculateGeomCenter_precis();
    void CalculateGeomCenter_precis(float* centerX, float* centerY);
    float GetCenterXprecis() const { return m_fCenterXprecis; }
    float GetCenterYprecis() const { return m_fCenterYprecis; }

    // Extremes of the coordinates. An empty chain reports minima of 1000000 and maxima of
    // -1000000, as the matrix bounding box does when it finds nothing.
    int GetminX() const;
    int GetmaxX() const;
    int GetminY() const;
    int GetmaxY() const;
    void CalcBoundingBox(int& minX, int& minY, int& maxX, int& maxY) const;
    // Extremes of the values along the chain; an empty chain reports 1000000 and -1000000.
    // NaN values take no part unless the first point is NaN.
    float GetMinBorderValue() const;
    float GetMaxBorderValue() const;

    // Three-point minimum (maximum) of the values along the closed chain, all from the
    // values before the filter.
    void MinimumFilterChain();
    void MaximumFilterChain();

    // --- queries (CPixelChainQueries.cpp) ---------------------------------------------------
    // Index of the point nearest to (x, y) (float Euclidean distance, first of equals wins;
    // farther than 999999.9 is never found); -1 for an empty chain.
    int FindNearestPoint(int x, int y) const;
    // Among points strictly below row y (point y > y), the index of the one with the
    // smallest |point x - x|, first of equals; -1 if there is none.
    int FindNearestPointLimited(int x, int y) const;
    // Position of the FindNearestPoint point in px, py; returns its index, or -1 with px, py
    // untouched for an empty chain.
    int GetNearestPixel(int x, int y, int& px, int& py) const;
    // Row where the vertical through column x meets the chain between row y and the centre
    // (below: rows between centre and y, else between y and centre): the mean row of the
    // nearest points left and right of x, weighing rows four times. Without a point on each
    // side, the row of FindNearestPointLimited; without that either, -1. Updates the integer
    // centre.
    float FindNearestIntersectionPointY(int x, int y, bool below);
    // Each value becomes the matrix sample six pixels along the left normal of the segment
    // to the next point, limited to >= level (above false) or <= level (above true). The
    // probe of a point whose successor lies on it (a zero-length segment) is the point
    // itself.
    void GetInnerValueForPixelChain(CSSEMatrix* matrix, float level, bool above);
    // Pulls this chain's values towards the other chain's, weighted by 1 / (distance² + 1),
    // `iterations` times; other is only read (it may be this chain: each pass then reads a
    // copy of the values from before the pass).
    void SmoothlyPullTogetherChains(CPixelChain* other, int iterations);

    // --- drawing into a matrix (CPixelChainDraw.cpp); all writes clamp like SetPoint -------
    // Draws the closed chain as a line: every point with its value, and the pixels of the
    // straight 8-connected segment from each point to the next (the last to the first) with
    // the value of the segment's first point.
    void Insert(CSSEMatrix* matrix);
    // Draws the points alone, each with its value; nothing between them.
    void InsertSingle(CSSEMatrix* matrix);
    // Draws the points alone with the one value `value`, kept where it is higher than the
    // pixel (keepHigher, as SetPointMax) or lower (as SetPointMin).
    void InsertSingle(CSSEMatrix* matrix, bool keepHigher, float value);

    // --- text export (CPixelChainExport.cpp) -------------------------------------------------
    // Writes <export directory><name>.txt afresh: "Length: n", a header line, then one line
    // per point "index\tx\ty\tvalue" with the value as %3.3f and a decimal comma. A file that
    // cannot be opened (e.g. a missing directory) is skipped silently.
    void ExportPixelChain(CString name);
    // The directory is a plain prefix of the file name, so it should end with a separator.
    // Default: "c:\Export\PixelChain\" on Windows, "Export/PixelChain/" elsewhere. Process-wide.
    static void SetExportDirectory(CString directory);
    static CString GetExportDirectory();

protected:
    pixel* m_pPixels = nullptr;
    int m_iCount = 0;
    int m_iCenterX = 0;
    int m_iCenterY = 0;
    float m_fCenterXprecis = 0.0f;
    float m_fCenterYprecis = 0.0f;
};
