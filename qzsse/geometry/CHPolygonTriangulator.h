#pragma once

#include "qzsse/core/SSEPoint.h"
#include "qzsse/geometry/CHSimpleBasisFcns.h"

class CSSE2dPolygon;
class CSSE3dPolygon;

namespace qzsse::detail {

// A diagonal cut by the ear clipping, with whether each end was convex at that moment.
struct PolygonDiagonal {
    bool bExists;
    int iFirst;
    bool bFirstConvex;
    int iSecond;
    bool bSecondConvex;
};

// Vertex indices of one triangle: previous, ear, next.
struct PolygonTriangle {
    int a;
    int b;
    int c;
};

class EarClippingEdgeIndex;

// Test switch (per thread): when set, Diagonalie scans every edge with Intersect and the ear
// search walks the ring, the direct forms the indexed ones are checked against. Defined
// inline and constant-initialised, so no thread-local wrapper call stands between a test and
// the flag.
inline thread_local bool g_bDirectEarClipping = false;

}  // namespace qzsse::detail

// Ear-clipping triangulation of a simple polygon in the plane (counter-clockwise, as the cone
// test reads it), on the x/y of a 2-D or 3-D polygon, optionally taking every step-th point
// and scaling x and y. The work happens in the constructor.
//
// A non-simple or degenerate polygon ends the triangulation early with the triangles found so
// far. Choices where the original leaves them open: a step below 1 counts as 1; a 2-D source
// has a z scale of 1; the object owns its arrays and is not copyable.
class CHPolygonTriangulator : public CHSimpleBasisFcns {
public:
    CHPolygonTriangulator(CSSE2dPolygon* polygon, int step, float scaleX, float scaleY, bool flag);
    CHPolygonTriangulator(CSSE3dPolygon* polygon, int step, float scaleX, float scaleY, float scaleZ, bool flag);
    virtual ~CHPolygonTriangulator();
    CHPolygonTriangulator(const CHPolygonTriangulator&) = delete;
    CHPolygonTriangulator& operator=(const CHPolygonTriangulator&) = delete;

    // Vertex positions (scaled) from the source polygon; the 3-D form computes the polygon's
    // bounding box first when it is stale.
    void GetValuesFrom2DPolygon();
    void Create2DPolygonFrom3DPolygon();

    // With the flag set, each search for an ear starts at the head's next vertex.
    void Triangulate();
    void EarInit();
    // a-b is a diagonal: inside both end cones and crossing no edge.
    bool Diagonal(const t_hvertex* a, const t_hvertex* b) const;
    // a-b meets no polygon edge that does not end in a or b.
    bool Diagonalie(const t_hvertex* a, const t_hvertex* b) const;
    // The same answer by calling Intersect on every edge; the reference the faster scan is
    // checked against.
    bool DiagonalieDirect(const t_hvertex* a, const t_hvertex* b) const;

    bool DiagonalExists(int i) const;
    // Scaled end positions of diagonal i; an end is written only when its vertex index is valid.
    void GetDiagonalPoints(int i, float& x1, float& y1, float& x2, float& y2) const;
    // The 3-D source's points (unscaled) at the corners of triangle i; false and nothing
    // written for an invalid index or a 2-D source.
    bool GetTriangle3D(int i, SSEPoint& a, SSEPoint& b, SSEPoint& c) const;
    float GetScaleZ() const { return m_fScaleZ; }
    bool Is3DTriangulation() const { return m_pPolygon3D != nullptr; }

    int GetNumTriangles() const { return m_nNumTriangles; }
    int GetNumDiagonals() const { return m_nNumDiagonals; }
    bool GetTriangle(int i, int& a, int& b, int& c) const;

protected:
    CSSE3dPolygon* m_pPolygon3D = nullptr;
    CSSE2dPolygon* m_pPolygon2D = nullptr;
    int m_nNumVertices = 0;
    int m_iStep = 1;
    int m_nNumDiagonals = 0;
    float m_fScaleX = 1.0f;
    float m_fScaleY = 1.0f;
    float m_fScaleZ = 1.0f;
    t_hvertex* m_pVertices = nullptr;
    qzsse::detail::PolygonDiagonal* m_pDiagonals = nullptr;
    t_hvertex* m_pHead = nullptr;
    qzsse::detail::PolygonTriangle* m_pTriangles = nullptr;
    int m_nNumTriangles = 0;
    bool m_bFlag = false;

private:
    // The ring's edge index while Triangulate runs; null otherwise.
    qzsse::detail::EarClippingEdgeIndex* m_pEdgeIndex = nullptr;

    void build(int pointCount);
    void linkVertices();
};
