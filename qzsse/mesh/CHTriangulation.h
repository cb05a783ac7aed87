#pragma once

#include "qzsse/base/RbReferenceCounted.h"
#include "qzsse/core/SSEPoint.h"

class CSSEMatrix;
class CSSE3dPolygon;
class CH2DDelaunay;

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
    // Leaves every field unset: BaseInitialization must run before anything else.
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
    // Subsampled mesh of a rectangle of the matrix (see CreateTriangulationFromSSEFieldSubSampled).
    CHTriangulation(CSSEMatrix* matrix, float threshold, bool top, float scaleX, float scaleY, float scaleZ,
                    int stepX, int stepY, int minX, int minY, int maxX, int maxY, bool fill);
    // Mesh of the first matrix where it lies above (top) or below the second.
    CHTriangulation(CSSEMatrix* upper, CSSEMatrix* lower, bool top, float scaleX, float scaleY, float scaleZ,
                    int stepX, int stepY);
    CHTriangulation(CSSEMatrix* upper, CSSEMatrix* lower, bool top, float scaleX, float scaleY, float scaleZ,
                    int stepX, int stepY, int minX, int minY, int maxX, int maxY);
    // The lower faces of a computed Delaunay triangulation, one record per face in face-list
    // order, corners at the vertices' grid coordinates divided by 10 (GetVertexFromFace).
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
    void CreateTriangulationFromSSEField(CSSEMatrix* matrix, float threshold, bool top);
    void CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top, int stepX,
                                                   int stepY);
    void CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top, int stepX,
                                                   int stepY, CSSE3dPolygon* polygon);
    void CreateTriangulationFromSSEFieldSubSampled(CSSEMatrix* matrix, float threshold, bool top, int stepX,
                                                   int stepY, int minX, int minY, int maxX, int maxY, bool fill);
    void CreateTriangulationFromSSEFieldSubSampledTwoFields(CSSEMatrix* upper, CSSEMatrix* lower, bool top,
                                                            int stepX, int stepY);
    void CreateTriangulationFromSSEFieldSubSampledTwoFields(CSSEMatrix* upper, CSSEMatrix* lower, bool top,
                                                            int stepX, int stepY, int minX, int minY, int maxX,
                                                            int maxY);
    // Writes the zero, one or two triangles of one grid cell at index, index + 1.
    void AppendTriangle(int maskLeft, int maskRight, float x0, float x1, float y0, float y1, float z00,
                        float z01, float z10, float z11, int& index, bool invert, bool fill);

    // --- neighbours and bookkeeping -----------------------------------------------------------
    void CalcNeighbours();
    // The same operation as CalcNeighbours; no constraint is applied.
    void CalcNeighboursConstrained();
    void IndexTriangleList();
    void DeleteTriangleFromList(t_htriangle* triangle);
    void FindBorderTriangles();
    void CalcBoundingBox();
    void CalcSTV();
    void CalcCenterPoint();

    // --- scan conversion ------------------------------------------------------------------------
    void SetScanConvResolution(float resX, float resY, float resZ);
    void ScanConvertTriangulationMax(CSSEMatrix* target, float offset);
    void ScanConvertTriangulationMin(CSSEMatrix* target, float offset, float refine);
    void ScanConvertTriangulationMax_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                 SSEPoint& minPoint);
    void ScanConvertTriangulationMin_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                 SSEPoint& minPoint);
    void ScanConvertTriangulationMaxNoDelete(CSSEMatrix* target, bool create, bool replace);
    void ScanConvertTriangulationMinNoDelete(CSSEMatrix* target, bool create, bool replace);
    void ScanConvertTriangulationMaxNoDeleteInYArea(CSSEMatrix* target, float minY, float maxY);
    void ScanConvertTriangulationMinNoDeleteInYArea(CSSEMatrix* target, float minY, float maxY);
    void ScanConvertTriangulationWithLimitedArea(CSSEMatrix* target, int sizeX, int sizeY, float offset,
                                                 SSEPoint* origin, bool top);
    void ScanConvertThroughLineMax(CSSEMatrix* target, CSSE3dPolygon* line, float offset);
    void ScanConvertThroughLineMin(CSSEMatrix* target, CSSE3dPolygon* line, float offset);
    void FastScanConvertTriangulation(CSSEMatrix* target, float offset, bool top);
    void FastScanConvertTriangulation_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                  SSEPoint& minPoint, bool top);
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

protected:
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
