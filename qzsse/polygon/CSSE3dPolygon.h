#pragma once

#include <vector>

#include "qzsse/base/CString.h"
#include "qzsse/base/RbReferenceCounted.h"
#include "qzsse/core/SSEPoint.h"

class CArchive;
class CPixelChain;
class CSSEMatrix;
class CSSEcharMatrix;
class RbStreamReadBinary;
class RbStreamWriteBinary;
class RyHermiteSpline;
class RyPolyLineOld;
namespace qzsse::detail {
struct OutlineXY;
}

namespace qzsse {
// One point the outlines of two closed polygons share, as FindIntersectionWithAnotherPolygon
// reports it: on edge `edge` (point edge to point edge + 1, the last edge closing back to 0)
// of the polygon called at parameter t in [0, 1), and on edge `otherEdge` of the other one at
// parameter otherT in [0, 1). z is interpolated along the edge of the polygon called.
struct PolygonCrossing {
    float x, y, z;
    int edge;
    float t;
    int otherEdge;
    float otherT;
};
} // namespace qzsse

// Scale factors applied by CSSE3dPolygon::NormalizeXYZ (size of one unit per axis).
struct t_resolutiondata {
    float fResolutionX;
    float fResolutionY;
    float fResolutionZ;
};

// A polygon or open polyline of 3-D points. Coordinates are kept as separate 16-byte
// aligned arrays padded to a multiple of four points, so whole-polygon work runs four
// points per SSE instruction without a scalar tail; point i is at index i of each array.
// Padding slots hold no meaning. There is no closed flag: each operation decides whether
// it reads the points as closed.
//
// Every point write, Create and Free clears the bounding-box flag; the box and the centre
// are cached records that are only refreshed by CalcBoundingBox / CalcGeometricCenter.
class CSSE3dPolygon : public RbReferenceCounted {
public:
    // --- construction and storage (CSSE3dPolygon.cpp) -----------------------------------
    CSSE3dPolygon();
    // Copies the records, then the points; the flag ends false because point writes clear it.
    CSSE3dPolygon(const CSSE3dPolygon& other);
    // One point (x, y, 0) per step-th chain pixel; step <= 1 takes every pixel.
    CSSE3dPolygon(CPixelChain& chain, int step);
    CSSE3dPolygon(const RyPolyLineOld* line, float step, bool reParametrize, bool orientCounterClockwise);
    CSSE3dPolygon(RyHermiteSpline* spline, float step, bool reParametrize, bool orientCounterClockwise);
    ~CSSE3dPolygon() override;

    // Deep copy whose bounding-box flag is always false afterwards, even when the source's
    // was true (the records are copied). n is taken over before Create runs, so Free skips
    // the old arrays when the source is empty; Create releases them anyway rather than
    // losing them. Self-assignment leaves the object unchanged.
    CSSE3dPolygon& operator=(const CSSE3dPolygon& other);

    // Room for n points, padded to a multiple of four. The six arrays start zeroed, padding
    // included, but callers must not rely on point contents before writing them.
    void Create(int n);
    // Does nothing at all, not even clearing the flag, when there are no points.
    void Free();
    // Copies the points (not the normalized ones), then the records and the flag as they are.
    void CreateSimilar(const CSSE3dPolygon* other);

    int GetNumPoints() const { return m_nNumPoints; }

    // --- point access (out-of-range indices are ignored) ----------------------------------
    void SetPoint(int i, float x, float y, float z);
    void GetPoint(int i, float& x, float& y, float& z) const;
    void SetPointX(int i, float x);
    void SetPointY(int i, float y);
    void SetPointZ(int i, float z);
    void SetPointXY(int i, float x, float y);
    void SetPointXZ(int i, float x, float z);
    void SetPointZY(int i, float z, float y);
    void GetPointX(int i, float& x) const;
    void GetPointY(int i, float& y) const;
    void GetPointZ(int i, float& z) const;
    void GetPointXY(int i, float& x, float& y) const;
    void GetPointXZ(int i, float& x, float& z) const;
    void GetPointZY(int i, float& z, float& y) const;

    // The SSE getters zero the output first and leave it zero when i is out of range.
    void SetPointSSE(int i, const SSEPoint& p);
    void GetPointSSE(int i, SSEPoint& p) const;
    void GetPointXYSSE(int i, SSEPoint& p) const;
    // i % n with C's truncating remainder: i = n is point 0, a negative i gives zeros.
    // Both wrapping forms give zeros on an empty polygon instead of dividing by zero.
    void GetPointSSEClosed(int i, SSEPoint& p) const;
    // Every integer maps onto a point: a negative remainder is moved up by n.
    void GetPointSSEModulo(int i, SSEPoint& p) const;

    void SetPointNormalized(int i, float x, float y, float z);
    void GetPointNormalized(int i, float& x, float& y, float& z) const;
    void GetPointNormalizedXY(int i, float& x, float& y) const;
    void GetPointNormalizedSSE(int i, SSEPoint& p) const;
    void GetPointNormalizedXYSSE(int i, SSEPoint& p) const;
    void SetPointNormalizedSSE(int i, const SSEPoint& p);

    void SetAllXValues(float value);
    void SetAllYValues(float value);
    void SetAllZValues(float value);
    void AddValueToAllXValues(float value);
    void AddValueToAllYValues(float value);

    // --- derived quantities ---------------------------------------------------------------
    // Seeds are +-1e6, so an empty polygon has the inverted box and far-off coordinates are
    // clamped to +-1e6.
    void CalcBoundingBox();
    bool IsBoundingBoxCalculated() const { return m_bBoundingBoxCalculated; }
    void GetBoundingBox2D(int& minX, int& minY, int& maxX, int& maxY);
    void GetBoundingBox3D(float& minX, float& minY, float& minZ, float& maxX, float& maxY, float& maxZ);
    SSEPoint GetBottomLeft() const { return *m_pBottomLeft; }
    SSEPoint GetTopRight() const { return *m_pTopRight; }
    // Sum of point / n, each point divided before it is added.
    void CalcGeometricCenter();
    void GetGeometricCenter(SSEPoint& center) const { center = *m_pGeometricCenter; }
    float CalcCircumference() const;
    float CalcCircumferenceOpen() const;
    // Twice the signed area (shoelace sum, positive counter-clockwise), in index order.
    float CalcXYArea() const;
    float CalcXZArea() const;
    float CalcYZArea() const;
    void NormalizeXYZ(t_resolutiondata& resolution);
    void DebugSaveXYZ(CString path) const;

    // --- conversion to and from the mesh library -----------------------------------------
    // False only when the polyline has two or more vertices and ends on its own start.
    static bool IsPolyLineValid(const RyPolyLineOld* line);
    // Meant for a freshly constructed object: it starts over from the empty state.
    void CreateFromPolyLine(const RyPolyLineOld* line, float step, bool reParametrize, bool orientCounterClockwise);
    // The caller owns the returned polyline; the closing point is not repeated.
    RyPolyLineOld* ConvertToPolyLine() const;

    // --- serialization (CSSE3dPolygonSerialize.cpp) --------------------------------------
    // Loading replaces the last point by its predecessor, as files of this format expect.
    void Serialize(CArchive& ar);
    void Serialize(RbStreamReadBinary& stream);
    void Serialize(RbStreamWriteBinary& stream) const;

    // --- resampling (CSSE3dPolygonResample.cpp) ------------------------------------------
    // Keeps points 0, step, 2 step, ...; keepLast also keeps the last point when the stride
    // misses it. step <= 1 keeps everything.
    void Subsample(int step, bool keepLast);
    // Drops every point whose x and y equal those of the point kept before it, reading the
    // polygon closed (a last point equal to point 0 goes too); the first of a run stays.
    void RemoveEqualPointsXY();
    // Resamples the closed polygon at equal 3-D arc-length steps: m = max(1, round(L / step))
    // points L / m apart, starting at point 0. step <= 0 or fewer than 2 points: no change.
    void ReParametrize(float step);

    // --- rasterisation (CSSE3dPolygonRaster*.cpp) ----------------------------------------
    // Matrix coordinates are pixel indices: x is the column, y the row. Float to int always
    // truncates toward zero; "rounded" means truncate(v + 0.5). Reads and writes clamp into
    // the matrix, so positions outside it land on its border. A null matrix or one without
    // storage is left alone.

    // Crossing-number test in the XY plane against every step-th vertex: false with fewer
    // than 3 points or outside the cached 2-D box (computed here when stale); step >= 2 closes
    // the sampled polygon with the edge to point n - 1; a step below 1 counts as 1.
    bool PointInLineInnerArea(float x, float y, int step);
    bool PointInLineInnerArea(const SSEPoint& p, int step);
    // The same on the normalized arrays; there is no cached box for them, so their box is
    // taken afresh on each call with the seeds of CalcBoundingBox (+-1e6).
    bool PointInLineInnerAreaNormalized(float x, float y, int step);
    bool PointInLineInnerAreaNormalized(const SSEPoint& p, int step);
    // PointInLineInnerArea restricted to the window [minX, maxX] x [minY, maxY]: a point outside
    // it is rejected before any edge is read; inside it the answer is the plain one (an edge
    // wholly left or right of the window could not toggle such a point anyway).
    bool PointInLineInnerAreaBoxed(float x, float y, float minX, float minY, float maxX, float maxY, int step);
    bool PointInLineInnerAreaBoxed(const SSEPoint& p, float minX, float minY, float maxX, float maxY, int step);

    // Vertices only: a 3x3 box at (offsetX + 0.5 + x, offsetY + 0.5 + y), or with drawXZ at
    // (.. x, .. z); drawZY writes the single cell (rounded z, rounded y) and ignores the offsets.
    void DrawInMatrix(float value, CSSEMatrix* matrix, bool drawZY = false, float offsetX = 0.0f,
                      float offsetY = 0.0f, bool drawXZ = false);
    // Uses the first 4 * (n / 4) points only. Plots them, then from each one searches one run
    // away from its edge (direction and tolerance by the edge's slope; the tolerance is 0.1 on
    // the downward column search, 1.0 elsewhere) and marks it value + 5. The edge direction is
    // the float difference of the two points' coordinates.
    void DrawInMatrixAndFill(float value, CSSEMatrix* matrix);
    // Lattice of step 3 with a margin of 9 around the box; every inside lattice point writes a
    // 3x3 box of value.
    void DrawInMatrixAndFillCoarse(float value, CSSEMatrix* matrix, bool subsample, float yMin, float yMax);

    // The fine fills test every pixel of the window rows yLo - 5 .. yHi + 4, columns
    // xLo - 5 .. xHi + 4 (the box limited by yMin / yMax and clamped into the matrix) against a
    // copy that is optionally Subsample(5, true)-ed and freed of repeated points; interior
    // positions outside the matrix act on its border cells. (Computed row by row with results
    // identical to the per-pixel rule.)
    // Fine: interior cells become value.
    void DrawInMatrixAndFillFine(float value, CSSEMatrix* matrix, bool subsample, float yMin, float yMax);
    // Min / Max combine as SetPointMin / SetPointMax do: (value > cell) ? cell : value and
    // (cell > value) ? cell : value, so a NaN value is stored.
    void DrawInMatrixAndFillFineMin(float value, CSSEMatrix* matrix, bool subsample, float yMin, float yMax);
    void DrawInMatrixAndFillFineMax(float value, CSSEMatrix* matrix, bool subsample, float yMin, float yMax);
    // DrawInMatrixAndFillFine with the bands shared out over the hardware threads; the result
    // is identical.
    void DrawInMatrixAndFillFineForLoop(float value, CSSEMatrix* matrix, bool subsample, float yMin, float yMax);
    // Fills toward the front (smaller y): in each window column every position from the
    // window's first row down to the column's last interior position becomes value.
    void DrawInMatrixAndFillToOneSideFront(float value, CSSEMatrix* matrix, bool subsample, float yMin, float yMax);
    // Open polyline (no closing edge) with z interpolated: both end cells of each edge, then
    // samples t = 0 .. k - 1, k = truncate(2 L + 0.5), at P + t * (Q - P) / k when L >= 0.5.
    // ZMax writes where the cell is not greater than z, ZMin where it is not smaller.
    void DrawInMatrixFineZ(CSSEMatrix* matrix);
    void DrawInMatrixFineZMax(CSSEMatrix* matrix);
    void DrawInMatrixFineZMin(CSSEMatrix* matrix);
    // Fine window and scan; an interior cell becomes 0 when threshold > cell - value.
    void DrawSubInMatrixAndFill(float value, CSSEMatrix* matrix, float threshold, bool subsample, float yMin,
                                float yMax);
    // Fine window (from the char matrix's size) and scan; interior cells become value.
    void DrawInCharMatrixAndFillFine(char value, CSSEcharMatrix* matrix, bool subsample, float yMin, float yMax);
    // Every pixel of the matrix that PointInLineInnerArea(x, y, 1) of this polygon rejects
    // becomes value.
    void DrawOutsidePixels(float value, CSSEMatrix* matrix);
    // Pixels inside this polygon (PointInLineInnerArea(x, y, 1)) become their Euclidean
    // distance to the nearest pixel that is not, counting the positions just outside the
    // matrix as not inside; every other pixel becomes 0.
    void InternalAreaDistanceTransform(CSSEMatrix* matrix);
    // 1 inside, 0 on the outline, -1 outside. On the outline means on an edge of the closed
    // polygon by the collinearity tolerance of the geometric predicates: |doubled signed area|
    // <= 0.0005 and within the edge's x-range (its y-range for a vertical edge), ends included.
    // Fewer than 3 points: -1.
    int PointStatusWithRespectToPolygon(float x, float y);

    // --- simplification and filtering (CSSE3dPolygonSimplify.cpp) -------------------------
    // Douglas-Peucker in the XY plane: a point stays when its distance to the segment between
    // the points kept around it exceeds maxDeviation (the farthest one, the first of equals,
    // splits first; distances in double). Open: the first and last points stay. Closed: point 0
    // and the point farthest from it (the first of equals) stay and split the outline into two
    // such runs. Kept points keep all six coordinates; fewer than 3 points: no change.
    void ReducePoints(float maxDeviation, bool closed);
    // Each of x, y, z and the three normalized coordinates becomes the median of itself and
    // its two neighbours. Closed: the neighbours wrap around; open: the end points stay.
    // Fewer than 3 points: no change.
    void FilterMedian3(bool closed);

    // --- dilation and booleans (CSSE3dPolygonDilate.cpp, CSSE3dPolygonBoolean.cpp) --------
    // The results of these members are built with integer clipping (Clipper): each coordinate
    // c becomes the integer round(double(c) * s), s a power of two chosen per call so that
    // (largest |c| + |distance|) * s < 2^29; coordinates return as float(C / s). The rounding
    // moves a point by at most 0.5 / s <= (largest |c| + |distance|) * 2^-29 per axis, far below
    // a float step at that magnitude. A vertex of an overlap, a merge or a zero dilation at the
    // integer position of an input vertex is that input vertex exactly (x, y and z; one of
    // them when several share it); any other vertex takes z from the nearest point (in XY) of
    // the input outlines, interpolated along that edge, the polygon called (a, for
    // CreateMergePolygon) first on ties. Normalized coordinates of results are 0. Coordinates
    // must be finite.
    //
    // Several results come back as a vector of outlines: each outer boundary counter-clockwise
    // (CalcXYArea > 0) followed by its holes, clockwise, so the halved CalcXYArea of all of
    // them sum to the area of the region; then any islands inside those holes, likewise.

    // The region of the closed polygon (non-zero winding, so self-overlaps count once) grown by
    // distance in XY, or shrunk for a negative distance, with round joins whose chords stay
    // within 0.001 |distance| of the true arc. Fewer than 3 points, or a region that vanishes:
    // empty vector. distance 0 returns the region itself, its self-overlaps resolved.
    std::vector<CSSE3dPolygon> DilateExact(float distance) const;
    // Both polygons read closed. crossings: every point the two outlines share, once per pair
    // of edges (parameters half-open, so a shared vertex counts once); where two edges run
    // along one line, the start points of either that lie on the other; sorted by edge, then
    // t. Computed in double from the float coordinates. overlap: the region inside both
    // (non-zero winding). True when the overlap has positive area.
    bool FindIntersectionWithAnotherPolygon(const CSSE3dPolygon& other, std::vector<qzsse::PolygonCrossing>& crossings,
                                            std::vector<CSSE3dPolygon>& overlap) const;
    // This polygon becomes the outer outline of the union of the closed polygons a and b
    // (counter-clockwise; holes of the union are filled). False, and this polygon unchanged,
    // when the union is not one piece or either has fewer than 3 points. a or b may be this.
    bool CreateMergePolygon(const CSSE3dPolygon& a, const CSSE3dPolygon& b);

    // --- assembly (CSSE3dPolygonAssemble.cpp) ----------------------------------------------
    // Chains the open pieces into one closed polygon: starting with pieces[0] as given, each
    // step appends the unused piece with the end nearest (in XY) to the chain's end, reversed
    // when that is its last point, while that end lies within 0.002 in x and y; a matched end
    // point is taken once (from the chain). All pieces must be used and the chain's end must
    // come back within 0.002 of its start (that end point is dropped). The result is
    // counter-clockwise (CalcXYArea >= 0; reversed if not); normalized coordinates are 0.
    // False, and this polygon unchanged, when no piece is given, a piece is empty, or the
    // pieces do not close into one ring.
    bool CreateFromCutPolygones(const std::vector<CSSE3dPolygon>& pieces);

protected:
    // DrawInMatrixAndFillFine that leaves out the interior of `insert` (a hole), both polygons
    // prepared alike; a null insert leaves nothing out.
    void drawInMatrixWithInsertPolygonAndFillFine(float value, CSSEMatrix* matrix, CSSE3dPolygon* insert,
                                                  bool subsample, float yMin, float yMax);
    // Seed fill: from (x, y), clamped into the matrix, every pixel 4-connected to it through
    // pixels inside this polygon becomes value; nothing when the seed is not inside.
    void fillFromPoint(float value, CSSEMatrix* matrix, int x, int y);
    // The XY arrays and the cached 2-D box as the inside test reads them (box computed first
    // when stale).
    qzsse::detail::OutlineXY rasterOutline();
    // --- end of rasterisation ------------------------------------------------------------

    float* m_pX = nullptr;
    float* m_pY = nullptr;
    float* m_pZ = nullptr;
    float* m_pXNorm = nullptr;
    float* m_pYNorm = nullptr;
    float* m_pZNorm = nullptr;
    int m_nNumPoints = 0;
    SSEPoint* m_pTopRight = nullptr;      // component-wise maximum, w = 0
    SSEPoint* m_pBottomLeft = nullptr;    // component-wise minimum, w = 0
    SSEPoint* m_pTopRight2D = nullptr;    // maximum with z = 0
    SSEPoint* m_pBottomLeft2D = nullptr;  // minimum with z = 0
    SSEPoint* m_pGeometricCenter = nullptr;
    bool m_bBoundingBoxCalculated = false;

private:
    // The five records share one aligned block, made zeroed here.
    void allocateRecords();
    void releaseRecords();
    // Releases arrays still attached after an empty assignment; Free leaves those alone.
    void releaseDetachedArrays();
    // Takes over other's arrays and count, giving it this object's; records stay.
    void swapPoints(CSSE3dPolygon& other);
    // Keeps only the listed points (ascending indices), in fresh arrays; the box is stale then.
    void keepSelectedPoints(const std::vector<int>& kept);
};
