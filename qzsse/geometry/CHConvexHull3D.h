#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "qzsse/core/SSEPoint.h"
#include "qzsse/geometry/CHDegenerateHullException.h"

struct tEdgeStructure;
struct tFaceStructure;

namespace qzsse::detail {
struct ConflictArc;
class ConflictGraph;
class GridPointIndex;
struct HullStepScratch;
} // namespace qzsse::detail

// A hull vertex on the integer grid.
struct tVertexStructure {
    long long x, y, z;
    int iIndex;
    tEdgeStructure* duplicate;      // the cone edge already built from this vertex, while adding one point
    tVertexStructure* next;
    tVertexStructure* prev;
    bool bOnHull;
    bool bProcessed;
    bool bFlag;                     // the caller's flag given to AppendVertex2D
    qzsse::detail::ConflictArc* conflicts;  // unused; kept null
};

struct tEdgeStructure {
    tFaceStructure* adjface[2];
    tVertexStructure* endpts[2];
    tFaceStructure* newface;        // the cone face built on this edge, while adding one point
    tEdgeStructure* next;
    tEdgeStructure* prev;
    bool bDelete;
    unsigned long long serial;      // creation number: the edge list runs in this order
};

// Corners run counter-clockwise seen from outside the hull; after EdgeOrderOnFaces edge[i]
// joins vertex[i] and vertex[(i + 1) % 3].
struct tFaceStructure {
    tEdgeStructure* edge[3];
    tVertexStructure* vertex[3];
    tFaceStructure* next;
    tFaceStructure* prev;
    bool bVisible;
    bool bLowerFace;                // set by CH2DDelaunay::LowerFaces
    qzsse::detail::ConflictArc* conflicts;  // during construction: waiting points known to see it
};

// Incremental convex hull of points on a 64-bit integer grid. Every list is circular and
// doubly linked; new records go in front of the head, that is at the end of the cycle.
// The integer grid makes the hull exact: VolumeSign and Collinear give the exact sign for
// any 64-bit coordinates (wider arithmetic is used only where 64-bit products would
// overflow, so the results equal the 64-bit ones wherever those were exact).
//
// Degenerate input (all points collinear or coplanar, fewer than four distinct points)
// throws CHDegenerateHullException from CalcConvexHull.
//
// ConstructHull keeps, for every point not yet added, one face it sees (a conflict graph)
// and finds the others through face adjacency, so a point costs work in proportion to the
// faces it changes and the waiting points it moves (about n log n in all for points in
// random order) instead of a scan of every face and edge. When every point is a plane point
// lifted by AppendVertex2D, the hull is built in flat arrays and the records made at the
// end, each point's one seen face found by a walk over the triangulation the downward faces
// form, so nothing is kept per waiting point. Its vertex, edge and face lists, their order
// and every field are those of AddOne and CleanUp applied to each
// point in turn, which stay available as they are; this relies on VolumeSign being an
// orientation test (an override that is not must set m_bFullScan).
//
// Copy construction and assignment copy the members as they are: the copy shares the
// lists, and only one of the two objects may be destroyed.
class CHConvexHull3D {
public:
    CHConvexHull3D();
    CHConvexHull3D(const CHConvexHull3D& other) = default;
    CHConvexHull3D& operator=(const CHConvexHull3D& other) = default;
    virtual ~CHConvexHull3D();

    // Grid point (trunc(10 x + 0.5), trunc(10 y + 0.5), X^2 + Y^2), float arithmetic; |x|
    // and |y| must stay below about 3e8 so that Z fits in 64 bits. A point equal to an
    // existing vertex is not added. index -1 takes the running vertex counter. The test looks
    // the point up in an index of the list, so coordinates changed by hand through the
    // vertex pointers are not seen by it.
    void AppendVertex2D(float x, float y, int index, bool flag);
    // Grid point trunc(v * scale + 0.5) per coordinate; same duplicate rule; index 0.
    void AppendVertex3D(float x, float y, float z, float scale);

    void CalcConvexHull();

    tFaceStructure* GetFaces() const { return m_pFaces; }
    tEdgeStructure* GetEdges() const { return m_pEdges; }
    tVertexStructure* GetVertices() const { return m_pVertices; }
    // The counts as of the last CalcConvexHull (or triangulation).
    int GetNumFaces() const { return m_nFaces; }
    int GetNumEdges() const { return m_nEdges; }
    int GetNumVertices() const { return m_nVertices; }
    // Corner k (0..2) of face as floats divided by 10; w = 0.
    SSEPoint GetVertexFromFace(tFaceStructure* face, int k) const;
    // Corner k of face divided lane by lane by scale's x, y, z; w = 0.
    SSEPoint GetVertexFromFace3D(tFaceStructure* face, int k, const SSEPoint& scale) const;

    // Checks makes the hull run Checks after every added point.
    void SetCheckFlag(bool check) { m_bCheck = check; }
    void SetDebugFlag(bool debug) { m_bDebug = debug; }

    // -1, 0, +1: the sign of det[a - p; b - p; c - p] for the face's corners a, b, c. A point
    // strictly in front of a face (seen counter-clockwise) gives -1.
    virtual int VolumeSign(tFaceStructure* face, tVertexStructure* p);
    // Whether (b - a) x (c - a) is exactly zero.
    virtual bool Collinear(tVertexStructure* a, tVertexStructure* b, tVertexStructure* c);

    // Walk the lists and return their lengths (0 for an empty list).
    int CalcNumFaces() const;
    int CalcNumEdges() const;
    int CalcNumVertices() const;

    // Diagnostics. Each returns true when its property holds; a failed check writes one
    // line naming it to standard error and nothing is written otherwise.
    // Consistency: every edge's two faces hold its end points in opposite order.
    bool Consistency() const;
    // Convexity: no processed vertex lies strictly in front of any face.
    bool Convexity();
    // Consistency, Convexity and the counts V - E + F = 2 and 2E = 3F (V: processed vertices).
    bool Checks();
    // Every face's edge[i] has vertex[i] as an end point (holds after EdgeOrderOnFaces).
    bool CheckEndpts() const;

    // Reorders each face's edges so that edge[i] joins vertex[i] and vertex[(i + 1) % 3].
    void EdgeOrderOnFaces();

    // --- construction steps -------------------------------------------------------------
    void DoubleTriangle();
    void ConstructHull();
    bool AddOne(tVertexStructure* p);
    tFaceStructure* MakeConeFace(tEdgeStructure* e, tVertexStructure* p);
    void MakeCcw(tFaceStructure* f, tEdgeStructure* e, tVertexStructure* p);
    tFaceStructure* MakeFace(tVertexStructure* v0, tVertexStructure* v1, tVertexStructure* v2,
                             tFaceStructure* fold);
    // nextVertex is the construction walk's next vertex; it is moved on if it gets freed.
    void CleanUp(tVertexStructure** nextVertex);
    void CleanEdges();
    void CleanFaces();
    void CleanVertices(tVertexStructure** nextVertex);

    // --- list helpers ---------------------------------------------------------------------
    tVertexStructure* NewVertex();
    void FreeVertex(tVertexStructure* v);
    void AddVertex(tVertexStructure* v);
    void DeleteVertex(tVertexStructure* v);
    void AddEdge(tEdgeStructure* e);
    void DeleteEdge(tEdgeStructure* e);
    void AddFace(tFaceStructure* f);
    void DeleteFace(tFaceStructure* f);
    tVertexStructure* MakeNullVertex();
    tEdgeStructure* MakeNullEdge();
    tFaceStructure* MakeNullFace();

protected:
    // Vertices were moved, removed or linked other than by appending: the duplicate test
    // must look at the list again.
    void invalidateGridIndex();
    void constructHullWithConflicts();
    void seedConflicts(qzsse::detail::ConflictGraph& graph);
    // For input on the paraboloid Z = X^2 + Y^2 with this class's own VolumeSign and no
    // check flag; false when the rest is left to the conflict graph.
    bool constructLiftedHull();
    // AddOne from one face p sees (null: none): the other seen faces through face adjacency,
    // the horizon and the cone faces, gathered in step.
    bool addOneFrom(tFaceStructure* first, tVertexStructure* p, qzsse::detail::HullStepScratch& step);
    // number: p's number in the conflict graph.
    bool addOneFromConflicts(tVertexStructure* p, std::uint32_t number, qzsse::detail::ConflictGraph& graph,
                             qzsse::detail::HullStepScratch& step);
    // Whether VolumeSign is this class's own (not overridden, or m_bOwnVolumeSign).
    bool ownVolumeSign() const;
    void cleanUpAfterConflicts(tVertexStructure* p, tVertexStructure** nextVertex,
                               qzsse::detail::HullStepScratch& step);

    // Counts into the count fields; the vertex counter becomes the vertex count.
    void storeCounts();
    // EdgeOrderOnFaces on one face.
    static void orderEdgesOf(tFaceStructure* f);
    // Appends a vertex unless one with the same coordinates exists.
    tVertexStructure* appendGridVertex(long long x, long long y, long long z);

    tVertexStructure* m_pVertices;
    tEdgeStructure* m_pEdges;
    tFaceStructure* m_pFaces;
    bool m_bDebug;
    bool m_bCheck;
    int m_nFaces;
    int m_nEdges;
    int m_nVertices;
    int m_nVertexCounter;
    // true: ConstructHull runs AddOne and CleanUp on the whole lists for every point.
    bool m_bFullScan = false;
    // A subclass that keeps this class's VolumeSign may set this, so that construction reads
    // the coordinates directly (and walks for lifted points) as for this class itself.
    bool m_bOwnVolumeSign = false;
    unsigned long long m_nEdgeSerial = 0;
    // Of the points placed by the walk, those whose seen face it missed (found by the scan).
    std::size_t m_nWalkFallbacks = 0;
    std::size_t m_nWalkedPoints = 0;
    // Lifted constructions the flat arrays gave up (the conflict graph took over).
    std::size_t m_nFlatGiveUps = 0;
    // Speeds up the duplicate test of appending; copies share it as they share the lists.
    std::shared_ptr<qzsse::detail::GridPointIndex> m_pGridIndex;
};
