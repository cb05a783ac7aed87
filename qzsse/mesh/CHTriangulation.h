#pragma once

#include "qzsse/base/RbReferenceCounted.h"
#include "qzsse/core/SSEPoint.h"

class CSSEMatrix;
class CSSE3dPolygon;
class CH2DDelaunay;
class CArchive;
class RbStreamReadBinary;
class RbStreamWriteBinary;

// One triangle of a CHTriangulation. Every pointer refers to the record's own slots in the
// mesh's arrays, so records never own memory.
struct t_htriangle {
    SSEPoint* pPoint[3];            // corners 0, 1, 2
    SSEPoint* pNormal[3];           // vertex normals, same order
    SSEPoint* pT;                   // corner 2 - corner 0
    SSEPoint* pS;                   // corner 1 - corner 0
    SSEPoint* pV;                   // corner 2 - corner 1
    SSEPoint* pMainNormal;          // unit face normal
    SSEPoint* pMinPoint;            // componentwise minimum of the corners
    SSEPoint* pMaxPoint;            // componentwise maximum of the corners
    t_htriangle* pNeighbour[3];     // across (0, 1), (1, 2), (2, 0); null where there is none
    t_htriangle* pNext;             // working list
    t_htriangle* pPrev;
    int iIndex;                     // own position in the record array
    int iTag;                       // -1 at creation; 13 on border triangles (FindBorderTriangles)
};

// A border stretch of a mesh. The mesh keeps the list head; the stretch operations are not
// part of this library yet, so the list stays empty.
struct t_stretch {
    t_stretch* pNext;
    t_stretch* pPrev;
};

// Triangle mesh with its per-triangle data in parallel 16-byte aligned SSEPoint arrays, so
// that normals, differences and bounds are computed on whole vectors.
//
// The copy constructor and assignment copy every field as it is, pointers included: the two
// objects then share their arrays, and both destructors release them. Callers needing an
// independent mesh use the pointer constructor or CopyFromHTriangulation.
class CHTriangulation : public RbReferenceCounted {
public:
    // An empty object with null fields (safe to destroy); BaseInitialization must run before
    // anything else.
    CHTriangulation();
    // Deep copy of source, with its scales.
    explicit CHTriangulation(CHTriangulation* source);
    // n zeroed records.
    CHTriangulation(int n, float scaleX, float scaleY, float scaleZ);
    // Full-resolution mesh of the samples above (top) or below the threshold.
    CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY, float scaleZ);
    // Subsampled mesh: one cell per stepX x stepY samples.
    CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY, float scaleZ,
                    int stepX, int stepY);
    // Subsampled mesh of the samples that also lie inside the polygon.
    CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY, float scaleZ,
                    int stepX, int stepY, CSSE3dPolygon* polygon);
    // Subsampled mesh of a rectangle of the matrix; fill is passed to AppendTriangle (see the
    // rectangle form of CreateTriangulationFromSSEFieldSubSampled).
    CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY, float scaleZ,
                    int stepX, int stepY, int minX, int minY, int maxX, int maxY, bool fill);
    // Subsampled mesh of the first matrix's heights where it lies above (top) or below the
    // second; see CreateTriangulationFromSSEFieldSubSampledTwoFields.
    CHTriangulation(CSSEMatrix* upper, CSSEMatrix* lower, bool top, float scaleX, float scaleY, float scaleZ,
                    int stepX, int stepY);
    CHTriangulation(CSSEMatrix* upper, CSSEMatrix* lower, bool top, float scaleX, float scaleY, float scaleZ,
                    int stepX, int stepY, int minX, int minY, int maxX, int maxY);
    // The lower faces of a computed Delaunay triangulation, one record per face in face-list
    // order, corners at the vertices' grid coordinates divided by 10 (GetVertexFromFace). The
    // scales are stored as the mesh's scales, not applied to the corners; all three vertex
    // normals are the unit face normal (zero for a face without area).
    CHTriangulation(CH2DDelaunay* delaunay, float scaleX, float scaleY, float scaleZ);

    CHTriangulation(const CHTriangulation& other) = default;
    CHTriangulation& operator=(const CHTriangulation& other) = default;
    ~CHTriangulation() override;

    // --- life cycle ------------------------------------------------------------------------
    void BaseInitialization(float scaleX, float scaleY, float scaleZ);
    void CreateTriangulation(int n);
    void FreeTriangulation();
    // Replaces this mesh by a deep copy of source (records, arrays, list links and neighbour
    // pointers re-pointed into the copy, scales, resolution and bounding box).
    void CopyFromHTriangulation(CHTriangulation* source);

    // --- meshing of height matrices -----------------------------------------------------------
    // A sample is inside when above the threshold (top) or below it (!top), strictly; padding
    // rows count towards N, the number of inside samples. Corners are (scaleX*x, scaleY*y,
    // raw value, 0); normals point up for top and are inverted otherwise.
    // Full resolution: reserves 2N records and keeps that count, the unwritten ones zeroed.
    // Cells start on rows 0 .. 4*(height/4) - 1 only: rows after 4*(height/4) are left out,
    // and with a height that is a multiple of four the last cells reach into the padding row.
    void CreateTriangulationFromSSEField(CSSEMatrix* matrix, float threshold, bool top);
    // Subsampled: cells of stepX x stepY samples with corners at multiples of the steps, count
    // trimmed to the triangles written, 0 when 2N / (stepX*stepY) is below 1. The arrays hold at
    // least that many records, and two per inside cell corner when more, so a sampling grid that
    // meets more inside samples than the matrix average loses no triangle.
    void CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top, int stepX,
                                                   int stepY);
    // Polygon: a corner must also pass polygon->PointInLineInnerArea(x, y, 4) at its matrix
    // column and row.
    void CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top, int stepX,
                                                   int stepY, CSSE3dPolygon* polygon);
    // Rectangle: corners lie in columns minX..maxX and rows minY..maxY, both inclusive and
    // clamped into the matrix, the first at (minX, minY); the whole matrix as rectangle gives
    // the plain subsampled mesh when fill is false. fill is passed to AppendTriangle: a cell with
    // an inside corner on each side is then meshed whole.
    void CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top, int stepX,
                                                   int stepY, int minX, int minY, int maxX, int maxY, bool fill);
    // Two fields: a corner is inside when upper is strictly above (top) or below (!top) lower at the
    // same sample; heights come from upper and normals are inverted for !top. N counts those samples
    // (padding included); capacity, trimming and rectangle as in the one-field forms, no fill. lower
    // must be at least as large as upper.
    void CreateTriangulationFromSSEFieldSubSampledTwoFields(CSSEMatrix* upper, CSSEMatrix* lower, bool top,
                                                            int stepX, int stepY);
    void CreateTriangulationFromSSEFieldSubSampledTwoFields(CSSEMatrix* upper, CSSEMatrix* lower, bool top,
                                                            int stepX, int stepY, int minX, int minY, int maxX,
                                                            int maxY);
    // Writes the zero, one or two triangles of one grid cell at index, index + 1. Masks: bit 0 for
    // the corner at y0, bit 1 for y1; a full cell is split along (x0,y0)-(x1,y1). Inverted normals
    // are 0 - n, so zero lanes stay +0; w is 0 in every written point, NaN heights included.
    void AppendTriangle(int maskLeft, int maskRight, float x0, float x1, float y0, float y1, float z00,
                        float z01, float z10, float z11, int& index, bool invert, bool fill);

    // --- neighbours and bookkeeping -----------------------------------------------------------
    // Neighbours by exact corner equality (float comparison: -0.0 equals +0.0, NaN equals
    // nothing), with the pointers the pairwise scan over the working list gives, where later
    // matches overwrite and triangles drop out of the list once all three are set; found
    // through a corner hash instead of comparing every pair. All pointers are cleared first,
    // so a second call gives the same result. The triangles never completed stay listed.
    void CalcNeighbours();
    // The same operation as CalcNeighbours; no constraint is applied.
    void CalcNeighboursConstrained();
    void IndexTriangleList();
    // Unlinks the record and nulls its own links; a record not in the list is left alone.
    void DeleteTriangleFromList(t_htriangle* triangle);
    void FindBorderTriangles();
    void CalcBoundingBox();
    void CalcSTV();
    void CalcCenterPoint();

    // --- scan conversion ------------------------------------------------------------------------
    // Draws the mesh back into a height image: pixel (px, py) collects the points with
    // trunc((x - min.x) / resX + 0.5) == px (the same in y), values are (z - min.z) + offset.
    // Samples land only strictly inside the outer pixel ring and each paints a five-pixel cross.
    // Undrawn pixels hold a sentinel (-999999.875 upper, +999999.875 lower) until every pixel
    // within 1.0 of it becomes 0.0. The mesh needs CalcSTV and CalcBoundingBox first.
    void SetScanConvResolution(float resX, float resY, float resZ);
    // Upper envelope over the bounding box into a re-created target of
    // trunc(extent / res + 0.5) pixels; an empty mesh or a box below half a pixel leaves the
    // target untouched.
    void ScanConvertTriangulationMax(CSSEMatrix* target, float offset);
    // Lower envelope, the same; the sampling step is divided by refine.
    void ScanConvertTriangulationMin(CSSEMatrix* target, float offset, float refine);
    // Max / Min (refine 1) over the caller's box instead of the bounding box: size, pixel origin
    // and height base come from minPoint and maxPoint; samples outside the box are dropped.
    void ScanConvertTriangulationMax_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                 SSEPoint& minPoint);
    void ScanConvertTriangulationMin_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                 SSEPoint& minPoint);
    // Offset 0, refine 1. create: re-create and fill with the sentinel as Max / Min do; otherwise
    // draw over the target's content at its own size (no storage: nothing happens), to gather
    // several passes. The sentinel is cleared only when replace is set.
    void ScanConvertTriangulationMaxNoDelete(CSSEMatrix* target, bool create, bool replace);
    void ScanConvertTriangulationMinNoDelete(CSSEMatrix* target, bool create, bool replace);
    // Draws over the existing target (as NoDelete without create or replace) only the samples
    // whose mesh y lies in [minY, maxY].
    void ScanConvertTriangulationMaxNoDeleteInYArea(CSSEMatrix* target, float minY, float maxY);
    void ScanConvertTriangulationMinNoDeleteInYArea(CSSEMatrix* target, float minY, float maxY);
    // The upper (top) or lower envelope into a target of sizeX x sizeY pixels whose pixel (0, 0)
    // and height base are at origin (null: the bounding-box minimum); sizes below 1 do nothing.
    void ScanConvertTriangulationWithLimitedArea(CSSEMatrix* target, int sizeX, int sizeY, float offset,
                                                 SSEPoint* origin, bool top);
    // Max / Min (refine 1), then every pixel whose centre (min.x + px*resX, min.y + py*resY)
    // fails line->PointInLineInnerArea(x, y, 1) becomes 0.0; a null line limits nothing.
    void ScanConvertThroughLineMax(CSSEMatrix* target, CSSE3dPolygon* line, float offset);
    void ScanConvertThroughLineMin(CSSEMatrix* target, CSSE3dPolygon* line, float offset);
    // Same grid, sentinels and size rule, but each triangle's xy projection is rasterised: every
    // inner pixel whose centre it covers (edges included) gets the plane's height there, in that
    // pixel only (no cross). Projections without area draw nothing.
    void FastScanConvertTriangulation(CSSEMatrix* target, float offset, bool top);
    void FastScanConvertTriangulation_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                  SSEPoint& minPoint, bool top);
    // A twice as dense second pass (refine 2) of the lower (RefineScanConvImage) or upper (Top)
    // envelope over a finished image at its own size: pixels within 0.002 of 0.0 count as undrawn.
    void RefineScanConvImage(CSSEMatrix* target, float offset);
    void RefineScanConvImageTop(CSSEMatrix* target, float offset);

    // --- access ---------------------------------------------------------------------------------
    int GetNumTriangles() const { return m_iNumTriangles; }
    // Null unless 0 <= i < GetNumTriangles().
    t_htriangle* GetTriangle(int i) const;
    t_htriangle* GetTriangles() const { return m_pTriangles; }
    SSEPoint* GetEdgeArray() const { return m_pEdgeArray; }
    SSEPoint* GetNormalArray() const { return m_pNormalArray; }
    SSEPoint* GetMainNormalArray() const { return m_pMainNormalArray; }
    SSEPoint* GetTArray() const { return m_pTArray; }
    SSEPoint* GetSArray() const { return m_pSArray; }
    SSEPoint* GetVArray() const { return m_pVArray; }
    // Holds the per-triangle minima; the name is kept for existing callers.
    SSEPoint* GetMaxPointArray() const { return m_pMaxPointArray; }
    // Bounding-box minimum, maximum and centre point, in that order.
    SSEPoint* GetPointArray() const { return m_pMinPoint; }
    SSEPoint GetMinPoint() const { return *m_pMinPoint; }
    SSEPoint GetMaxPoint() const { return *m_pMaxPoint; }
    SSEPoint GetCenterPoint() const { return *m_pCenterPoint; }
    t_htriangle* GetTriangleList() const { return m_pTriangleList; }
    float GetScaleX() const { return m_fScaleX; }
    float GetScaleY() const { return m_fScaleY; }
    float GetScaleZ() const { return m_fScaleZ; }

    // --- transforms -----------------------------------------------------------------------------
    // Corners p become m.p + offset (CSSEFns::transform, then the offset added, w kept 0). Vertex
    // and face normals are mapped by the cofactor matrix of m, which maps the cross product of
    // two edges as the corners map, and normalised again (zero stays zero; a mirroring m
    // keeps them on the same side as the corner order). S, T, V, the per-triangle extremes,
    // the bounding box and the centre are recomputed; neighbours, tags, the working list, the
    // scales and the scan-conversion resolution stay as they are. A mesh never initialised
    // (default constructor only) is left alone.
    void Rotate(t_ssematrix3& m, const SSEPoint& offset);
    // Corners moved by (dx, dy, dz), normals unchanged, the rest as in Rotate.
    void Move(float dx, float dy, float dz);
    // Rotate with diag(sx, sy, sz) and no offset.
    void Scale(float sx, float sy, float sz);

    // --- serialisation --------------------------------------------------------------------------
    // Stream form (version 1): scales, scan-conversion resolution, the count, then per triangle
    // its corners, vertex normals and face normal (x, y, z each), iTag and the indices of its
    // three neighbours (-1: none), then the bounding-box minimum, maximum and centre. S, T, V
    // and the per-triangle extremes are derived and recomputed on reading; the working list is
    // not kept (empty after reading). Bit-exact for every float, NaN included.
    void Serialize(RbStreamWriteBinary& stream) const;
    // Untrusted bytes: a version newer than 1, a count the remaining bytes cannot hold or above
    // qzsse::GetReaderLimits().maxMeshTriangles, or a neighbour index outside the mesh throws
    // RbStreamException before this mesh changes. Reading into a default-constructed mesh
    // initialises it first.
    void Serialize(RbStreamReadBinary& stream);
    // Archive form: the string "CHTriangulation", then the stream form. A load without that tag
    // throws RbStreamException.
    void Serialize(CArchive& archive);

    // --- meshes from polygons -------------------------------------------------------------------
    // The polygon, taken as closed (a last point equal to the first is dropped), ear-clipped
    // by CHPolygonTriangulator on its x and y; each triangle's corners are the polygon's points
    // with their own z, ordered counter-clockwise seen from +z (a clockwise polygon is clipped
    // reversed). All three vertex normals are the unit face normal. The count is the number of
    // triangles found: n - 2 for a simple polygon of n points, fewer where the clipping stops
    // early, 0 below three points. S, T, V, bounding box and centre are computed.
    void CreateTriangulationFromPolygon(CSSE3dPolygon* polygon);
    // The band between two polylines: CH2DDelaunay::CreateTriangulationFromTwoBorderPolygons
    // chooses the triangles (plane positions on its 0.1 grid), and each corner is then the
    // exact point of upper or lower its vertex came from (the lofting rule, without the grid
    // truncation). Corners counter-clockwise seen from +z; normals as above. Collinear input
    // throws CHDegenerateHullException, as the Delaunay triangulation does.
    void CreateTriangulationFromTwoBorderPolygons(CSSE3dPolygon* upper, CSSE3dPolygon* lower);

protected:
    void FinishMatrixMesh();

    SSEPoint* m_pEdgeArray;
    SSEPoint* m_pNormalArray;
    SSEPoint* m_pMainNormalArray;
    SSEPoint* m_pTArray;
    SSEPoint* m_pSArray;
    SSEPoint* m_pVArray;
    t_htriangle* m_pTriangles;
    int m_iNumTriangles;
    t_htriangle* m_pTriangleList;
    float m_fScaleX, m_fScaleY, m_fScaleZ;
    float m_fScanConvResX, m_fScanConvResY, m_fScanConvResZ;
    SSEPoint* m_pMinPoint;
    SSEPoint* m_pMaxPoint;
    SSEPoint* m_pCenterPoint;
    SSEPoint* m_pMaxPointArray;
    SSEPoint* m_pUpperPointArray;
    float m_fScanConvDiagonal;
    t_stretch* m_pStretchList;
};
