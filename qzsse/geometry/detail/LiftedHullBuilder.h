#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "qzsse/geometry/CHConvexHull3D.h"

namespace qzsse::detail {

// Whether every vertex of the list lies on the paraboloid Z = X^2 + Y^2 with |X|, |Y| at most
// 2^29, so that the plane orientation tests of the builder cannot overflow 64 bits.
bool AllLifted(const tVertexStructure* head);

// Builds the hull of lifted plane points (AllLifted) in flat arrays indexed by integers, with
// the steps of the record construction replayed exactly: a slot per face and edge, each
// with its creation number, cone faces made in edge creation order with the same shared
// side edges and corner order. Only at the end are the records made, in creation order, so
// the lists, links and fields equal those of the record construction, and the records are
// laid out in memory in list order. A point's first seen face comes from a visibility walk
// over the downward faces, which project to a Delaunay triangulation (see DESIGN.md for why
// its face is seen), checked by the exact predicate, with a scan of every face when the
// walk fails. The records are not touched before Finish: when
// a step meets what this form does not cover (a point that sees no face, a vertex that
// would leave the hull), Run returns false and the caller builds from the same state.
class LiftedHullBuilder {
public:
    // hull: seeded (a solid of four processed points), every vertex lifted; edgeSerial: the
    // hull's next edge creation number.
    LiftedHullBuilder(CHConvexHull3D& hull, unsigned long long edgeSerial);

    // Adds every unprocessed vertex, in list order from the head; false: give up.
    bool Run();
    // Replaces the hull's face and edge lists by the result and marks the vertices processed.
    // edgeSerial: the hull's next edge creation number, advanced past the new edges.
    void Finish(tFaceStructure*& faces, tEdgeStructure*& edges, unsigned long long& edgeSerial);

    std::size_t Walked() const { return m_walked; }
    std::size_t Fallbacks() const { return m_fallbacks; }

private:
    // Small, as the steps read them scattered: z is x^2 + y^2, and lifted x, y fit 32 bits.
    struct Vertex {
        std::int32_t x, y;
        std::int32_t face;      // a face slot that bounded it (check before use), or -1
        std::int32_t duplicate; // the cone edge already built from it this step, or -1
        std::uint32_t stamp;    // step in which it last ended a horizon edge
    };
    // e[k] joins v[k] and v[k + 1] and n[k] is the face across it (the records' edge order
    // is set by EdgeOrderOnFaces at the end, whatever it was).
    struct Face {
        std::int32_t v[3];
        std::int32_t e[3];
        std::int32_t n[3];
        std::uint32_t serial;   // creation number; the seed faces are the first ones
        bool alive;
        bool visible;
    };
    struct Edge {
        std::int32_t v[2];
        std::int32_t f[2];
        std::uint32_t serial;   // creation number; the seed edges are the first ones
        bool alive;
    };
    struct HorizonEdge {
        std::uint32_t serial;
        std::int32_t edge, seen, side; // seen: the seen face, side: the edge's place in it
    };

    bool sees(std::int32_t f, const Vertex& p) const;
    bool downward(std::int32_t f) const;
    long long turn(std::int32_t a, std::int32_t b, const Vertex& p) const;
    bool bounds(std::int32_t f, std::int32_t v) const;
    std::size_t cellOf(long long x, long long y) const;
    std::int32_t locate(std::int32_t p);
    std::int32_t downwardAround(std::int32_t v, std::int32_t f) const;
    std::int32_t newFace();
    std::int32_t newEdge();
    std::int32_t coneFace(const HorizonEdge& h, std::int32_t p);
    void attachSide(std::int32_t cone, int k, std::int32_t sideEdge);
    bool addPoint(std::int32_t p);

    std::vector<tFaceStructure*> m_seedFaces;
    std::vector<tEdgeStructure*> m_seedEdges;
    std::vector<Vertex> m_verts;  // the vertex list from its head
    std::vector<tVertexStructure*> m_records;
    std::vector<Face> m_faces;
    std::vector<Edge> m_edges;
    std::vector<std::int32_t> m_freeFaces, m_freeEdges;
    std::uint32_t m_faceSerial = 0, m_edgeSerial = 0;
    unsigned long long m_firstNewEdgeSerial;  // the hull's number for the first new edge
    std::size_t m_liveFaces = 0;
    std::uint32_t m_step = 0;

    std::vector<std::int32_t> m_cells;
    long long m_minX = 0, m_minY = 0, m_sizeX = 1, m_sizeY = 1;
    double m_scaleX = 0.0, m_scaleY = 0.0;

    std::vector<std::int32_t> m_visible, m_removed;
    std::vector<HorizonEdge> m_horizon;
    std::size_t m_walked = 0, m_fallbacks = 0;
};

} // namespace qzsse::detail
