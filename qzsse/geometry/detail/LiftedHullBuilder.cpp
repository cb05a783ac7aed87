#include "qzsse/geometry/detail/LiftedHullBuilder.h"

#include <algorithm>
#include <cmath>
#include <utility>

#include "qzsse/geometry/detail/ExactIntegerSign.h"
#include "qzsse/geometry/detail/HullRecordLists.h"

namespace qzsse::detail {
namespace {

template <class Record>
std::int32_t PositionOf(const std::vector<Record*>& list, const Record* r)
{
    return std::int32_t(std::find(list.begin(), list.end(), r) - list.begin());
}

// Links the records into a circular list in the order given.
template <class Record>
Record* LinkInOrder(const std::vector<Record*>& records)
{
    const std::size_t n = records.size();
    for (std::size_t i = 0; i < n; ++i) {
        records[i]->next = records[i + 1 == n ? 0 : i + 1];
        records[i]->prev = records[i == 0 ? n - 1 : i - 1];
    }
    return n ? records[0] : nullptr;
}

} // namespace

bool AllLifted(const tVertexStructure* head)
{
    constexpr long long limit = 1LL << 29;
    const tVertexStructure* v = head;
    if (!v)
        return false;
    do {
        if (v->x < -limit || v->x > limit || v->y < -limit || v->y > limit || v->z != v->x * v->x + v->y * v->y)
            return false;
        v = v->next;
    } while (v != head);
    return true;
}

LiftedHullBuilder::LiftedHullBuilder(CHConvexHull3D& hull, unsigned long long edgeSerial)
    : m_firstNewEdgeSerial(edgeSerial)
{
    const std::vector<tFaceStructure*> faces = ListOf(hull.GetFaces());
    const std::vector<tEdgeStructure*> edges = ListOf(hull.GetEdges());
    std::vector<tVertexStructure*> corners;
    for (const tFaceStructure* f : faces)
        for (tVertexStructure* v : f->vertex)
            if (std::find(corners.begin(), corners.end(), v) == corners.end())
                corners.push_back(v);
    std::vector<std::int32_t> numberOfCorner(corners.size(), -1);

    long long maxX = 0, maxY = 0;
    if (tVertexStructure* v = hull.GetVertices()) {
        m_minX = maxX = v->x;
        m_minY = maxY = v->y;
        do {
            const auto at = std::find(corners.begin(), corners.end(), v);
            if (at != corners.end())
                numberOfCorner[std::size_t(at - corners.begin())] = std::int32_t(m_verts.size());
            m_verts.push_back({std::int32_t(v->x), std::int32_t(v->y), -1, -1, 0});
            m_records.push_back(v);
            m_minX = std::min(m_minX, v->x);
            m_minY = std::min(m_minY, v->y);
            maxX = std::max(maxX, v->x);
            maxY = std::max(maxY, v->y);
            v = v->next;
        } while (v != hull.GetVertices());
    }
    const auto number = [&](const tVertexStructure* v) {
        return numberOfCorner[std::size_t(std::find(corners.begin(), corners.end(), v) - corners.begin())];
    };

    for (tEdgeStructure* e : edges) {
        Edge slot{};
        for (int k = 0; k < 2; ++k) {
            slot.v[k] = number(e->endpts[k]);
            slot.f[k] = PositionOf(faces, static_cast<const tFaceStructure*>(e->adjface[k]));
        }
        slot.serial = m_edgeSerial++;
        slot.alive = true;
        m_edges.push_back(slot);
    }
    for (std::int32_t f = 0; f < std::int32_t(faces.size()); ++f) {
        Face slot{};
        for (int k = 0; k < 3; ++k)
            slot.v[k] = number(faces[std::size_t(f)]->vertex[k]);
        for (int k = 0; k < 3; ++k)
            for (const tEdgeStructure* r : faces[std::size_t(f)]->edge) {
                const Edge& edge = m_edges[std::size_t(PositionOf(edges, r))];
                const std::int32_t u = slot.v[k], w = slot.v[(k + 1) % 3];
                if ((edge.v[0] == u && edge.v[1] == w) || (edge.v[0] == w && edge.v[1] == u)) {
                    slot.e[k] = PositionOf(edges, r);
                    slot.n[k] = edge.f[edge.f[0] == f ? 1 : 0];
                }
            }
        slot.serial = m_faceSerial++;
        slot.alive = true;
        m_faces.push_back(slot);
    }
    m_liveFaces = faces.size();
    m_seedFaces = faces;
    m_seedEdges = edges;

    // About two points per cell, cells about square.
    const double width = double(maxX - m_minX) + 1.0, height = double(maxY - m_minY) + 1.0;
    const double cells = std::max(1.0, double(m_verts.size()) / 2.0);
    const double side = std::sqrt(width * height / cells);
    m_sizeX = std::clamp<long long>(static_cast<long long>(width / side), 1, 1 << 16);
    m_sizeY = std::clamp<long long>(static_cast<long long>(height / side), 1, 1 << 16);
    m_scaleX = double(m_sizeX) / width;
    m_scaleY = double(m_sizeY) / height;
    m_cells.assign(std::size_t(m_sizeX * m_sizeY), -1);
    for (std::int32_t f = 0; f < std::int32_t(m_faces.size()); ++f)
        for (std::int32_t v : m_faces[std::size_t(f)].v) {
            Vertex& vertex = m_verts[std::size_t(v)];
            if (vertex.face < 0 || (!downward(vertex.face) && downward(f)))
                vertex.face = f;
            m_cells[cellOf(vertex.x, vertex.y)] = v;
        }
}

bool LiftedHullBuilder::sees(std::int32_t f, const Vertex& p) const
{
    const Face& face = m_faces[std::size_t(f)];
    const Vertex& a = m_verts[std::size_t(face.v[0])];
    const Vertex& b = m_verts[std::size_t(face.v[1])];
    const Vertex& c = m_verts[std::size_t(face.v[2])];
    const auto lift = [](const Vertex& v, long long out[3]) {
        out[0] = v.x;
        out[1] = v.y;
        out[2] = out[0] * out[0] + out[1] * out[1];
    };
    long long pa[3], pb[3], pc[3], at[3];
    lift(a, pa);
    lift(b, pb);
    lift(c, pc);
    lift(p, at);
    return OrientationSign3(pa, pb, pc, at) < 0;
}

// (b - a) x (p - a) in the plane; exact for lifted coordinates (at most 2^29).
long long LiftedHullBuilder::turn(std::int32_t a, std::int32_t b, const Vertex& p) const
{
    const Vertex& u = m_verts[std::size_t(a)];
    const Vertex& w = m_verts[std::size_t(b)];
    return (static_cast<long long>(w.x) - u.x) * (static_cast<long long>(p.y) - u.y) -
           (static_cast<long long>(w.y) - u.y) * (static_cast<long long>(p.x) - u.x);
}

// The face looks down (corners clockwise seen from above): a Delaunay triangle.
bool LiftedHullBuilder::downward(std::int32_t f) const
{
    const Face& face = m_faces[std::size_t(f)];
    return turn(face.v[0], face.v[1], m_verts[std::size_t(face.v[2])]) < 0;
}

std::size_t LiftedHullBuilder::cellOf(long long x, long long y) const
{
    const long long cx = std::min(m_sizeX - 1, static_cast<long long>(double(x - m_minX) * m_scaleX));
    const long long cy = std::min(m_sizeY - 1, static_cast<long long>(double(y - m_minY) * m_scaleY));
    return std::size_t(cy * m_sizeX + cx);
}

bool LiftedHullBuilder::bounds(std::int32_t f, std::int32_t v) const
{
    const Face& face = m_faces[std::size_t(f)];
    return face.alive && (face.v[0] == v || face.v[1] == v || face.v[2] == v);
}

// Turns around v from f, face by face, to a downward face.
std::int32_t LiftedHullBuilder::downwardAround(std::int32_t v, std::int32_t f) const
{
    std::int32_t g = f;
    for (int step = 0; step < 1024; ++step) {
        if (downward(g))
            return g;
        const Face& face = m_faces[std::size_t(g)];
        const int i = face.v[0] == v ? 0 : (face.v[1] == v ? 1 : 2);
        g = face.n[(i + 2) % 3]; // across the edge that ends at v
        if (g == f || !bounds(g, v))
            return -1;
    }
    return -1;
}

// A face p sees: the walk's candidates, checked; else the first live slot p sees.
std::int32_t LiftedHullBuilder::locate(std::int32_t number)
{
    ++m_walked;
    const Vertex& p = m_verts[std::size_t(number)];
    const std::size_t home = cellOf(p.x, p.y);
    const long long hx = static_cast<long long>(home % std::size_t(m_sizeX));
    const long long hy = static_cast<long long>(home / std::size_t(m_sizeX));
    std::int32_t from = -1;
    const auto look = [&](long long x, long long y) {
        const std::int32_t k = m_cells[std::size_t(y * m_sizeX + x)];
        if (k >= 0 && m_verts[std::size_t(k)].face >= 0 && bounds(m_verts[std::size_t(k)].face, k))
            from = k;
    };
    const long long maxRing = std::max(m_sizeX, m_sizeY);
    for (long long r = 0; r <= maxRing && from < 0; ++r) {
        const long long x0 = std::max(hx - r, 0LL), x1 = std::min(hx + r, m_sizeX - 1);
        const long long y0 = std::max(hy - r, 0LL), y1 = std::min(hy + r, m_sizeY - 1);
        if (hy - r >= 0)
            for (long long x = x0; x <= x1 && from < 0; ++x)
                look(x, hy - r);
        if (r > 0 && hy + r < m_sizeY)
            for (long long x = x0; x <= x1 && from < 0; ++x)
                look(x, hy + r);
        if (r > 0 && hx - r >= 0)
            for (long long y = y0; y <= y1 && from < 0; ++y)
                look(hx - r, y);
        if (r > 0 && hx + r < m_sizeX)
            for (long long y = y0; y <= y1 && from < 0; ++y)
                look(hx + r, y);
    }
    std::int32_t f = from >= 0 ? downwardAround(from, m_verts[std::size_t(from)].face) : -1;
    // Visibility walk; downward corners run clockwise, so p lies beyond the edge v[i]-v[i+1]
    // when it turns left from it. No walk over a Delaunay triangulation visits a face twice.
    for (std::size_t step = 0; f >= 0 && step <= m_liveFaces; ++step) {
        const Face& face = m_faces[std::size_t(f)];
        std::int32_t next = -1;
        for (int i = 0; i < 3 && next < 0; ++i)
            if (turn(face.v[i], face.v[i == 2 ? 0 : i + 1], p) > 0)
                next = face.n[i];
        if (next < 0) {
            if (sees(f, p))
                return f;
            break;
        }
        if (!downward(next)) {
            // Beyond a boundary edge: p sees the face outside it or the one inside.
            if (sees(next, p))
                return next;
            if (sees(f, p))
                return f;
            break;
        }
        f = next;
    }
    ++m_fallbacks;
    for (std::int32_t g = 0; g < std::int32_t(m_faces.size()); ++g)
        if (m_faces[std::size_t(g)].alive && sees(g, p))
            return g;
    return -1;
}

std::int32_t LiftedHullBuilder::newFace()
{
    std::int32_t f;
    if (!m_freeFaces.empty()) {
        f = m_freeFaces.back();
        m_freeFaces.pop_back();
    } else {
        f = std::int32_t(m_faces.size());
        m_faces.emplace_back();
    }
    Face& face = m_faces[std::size_t(f)];
    face = Face{};
    face.serial = m_faceSerial++;
    face.alive = true;
    return f;
}

std::int32_t LiftedHullBuilder::newEdge()
{
    std::int32_t e;
    if (!m_freeEdges.empty()) {
        e = m_freeEdges.back();
        m_freeEdges.pop_back();
    } else {
        e = std::int32_t(m_edges.size());
        m_edges.emplace_back();
    }
    Edge& edge = m_edges[std::size_t(e)];
    edge = Edge{};
    edge.f[0] = edge.f[1] = -1;
    edge.serial = m_edgeSerial++;
    edge.alive = true;
    return e;
}

// MakeConeFace and MakeCcw on the slots: the side edges through the base's ends are shared
// through the ends' duplicate, made end 0 first; the cone takes the seen face's corner order
// along the base, and the base's slot that held the seen face.
std::int32_t LiftedHullBuilder::coneFace(const HorizonEdge& h, std::int32_t p)
{
    std::int32_t side[2];
    for (int i = 0; i < 2; ++i) {
        const std::int32_t end = m_edges[std::size_t(h.edge)].v[i];
        side[i] = m_verts[std::size_t(end)].duplicate;
        if (side[i] < 0) {
            side[i] = newEdge();
            m_edges[std::size_t(side[i])].v[0] = end;
            m_edges[std::size_t(side[i])].v[1] = p;
            m_verts[std::size_t(end)].duplicate = side[i];
        }
    }
    const std::int32_t c = newFace();
    const Face& seen = m_faces[std::size_t(h.seen)];
    Edge& base = m_edges[std::size_t(h.edge)];
    const std::int32_t a = seen.v[h.side], b = seen.v[(h.side + 1) % 3];
    const std::int32_t outside = seen.n[h.side];
    Face& cone = m_faces[std::size_t(c)];
    cone.v[0] = a;
    cone.v[1] = b;
    cone.v[2] = p;
    cone.e[0] = h.edge;
    cone.n[0] = outside;
    base.f[base.f[0] == h.seen ? 0 : 1] = c;
    Face& out = m_faces[std::size_t(outside)];
    out.n[out.e[0] == h.edge ? 0 : (out.e[1] == h.edge ? 1 : 2)] = c;
    // Edge 1 joins b and p, edge 2 p and a.
    const int sideOfA = base.v[0] == a ? 0 : 1;
    attachSide(c, 2, side[sideOfA]);
    attachSide(c, 1, side[1 - sideOfA]);
    return c;
}

// The cone's edge k is the side edge s; s's first face slot takes the first cone on it, and
// the second cone becomes the first one's neighbour across it.
void LiftedHullBuilder::attachSide(std::int32_t cone, int k, std::int32_t s)
{
    Edge& edge = m_edges[std::size_t(s)];
    Face& face = m_faces[std::size_t(cone)];
    face.e[k] = s;
    if (edge.f[0] < 0) {
        edge.f[0] = cone;
        face.n[k] = -1;
        return;
    }
    edge.f[1] = cone;
    const std::int32_t other = edge.f[0];
    face.n[k] = other;
    Face& first = m_faces[std::size_t(other)];
    first.n[first.e[1] == s ? 1 : 2] = cone;
}

bool LiftedHullBuilder::addPoint(std::int32_t p)
{
    ++m_step;
    const std::int32_t first = locate(p);
    if (first < 0)
        return false;
    const Vertex& at = m_verts[std::size_t(p)];
    m_visible.assign(1, first);
    m_horizon.clear();
    m_removed.clear();
    m_faces[std::size_t(first)].visible = true;
    for (std::size_t i = 0; i < m_visible.size(); ++i) {
        const std::int32_t f = m_visible[i];
        for (int k = 0; k < 3; ++k) {
            const std::int32_t g = m_faces[std::size_t(f)].n[k];
            if (!m_faces[std::size_t(g)].visible && sees(g, at)) {
                m_faces[std::size_t(g)].visible = true;
                m_visible.push_back(g);
            }
        }
    }
    for (std::int32_t f : m_visible) {
        const Face& face = m_faces[std::size_t(f)];
        for (int k = 0; k < 3; ++k) {
            const std::int32_t g = face.n[k];
            if (!m_faces[std::size_t(g)].visible)
                m_horizon.push_back({m_edges[std::size_t(face.e[k])].serial, face.e[k], f, k});
            else if (f < g)
                m_removed.push_back(face.e[k]);
        }
    }
    // A corner of a seen face that ends no horizon edge would leave the hull: not covered.
    for (const HorizonEdge& h : m_horizon)
        m_verts[std::size_t(m_faces[std::size_t(h.seen)].v[h.side])].stamp = m_step;
    for (std::int32_t f : m_visible)
        for (std::int32_t v : m_faces[std::size_t(f)].v)
            if (m_verts[std::size_t(v)].stamp != m_step)
                return false;

    std::sort(m_horizon.begin(), m_horizon.end(),
              [](const HorizonEdge& a, const HorizonEdge& b) { return a.serial < b.serial; });
    for (const HorizonEdge& h : m_horizon) {
        const std::int32_t c = coneFace(h, p);
        const bool down = downward(c);
        for (std::int32_t v : m_faces[std::size_t(c)].v) {
            std::int32_t& face = m_verts[std::size_t(v)].face;
            if (down || face < 0)
                face = c;
        }
    }
    m_cells[cellOf(at.x, at.y)] = p;

    for (const HorizonEdge& h : m_horizon) {
        const Edge& edge = m_edges[std::size_t(h.edge)];
        m_verts[std::size_t(edge.v[0])].duplicate = m_verts[std::size_t(edge.v[1])].duplicate = -1;
    }
    for (std::int32_t e : m_removed) {
        m_edges[std::size_t(e)].alive = false;
        m_freeEdges.push_back(e);
    }
    for (std::int32_t f : m_visible) {
        m_faces[std::size_t(f)].alive = false;
        m_faces[std::size_t(f)].visible = false;
        m_freeFaces.push_back(f);
    }
    m_liveFaces = m_liveFaces + m_horizon.size() - m_visible.size();
    return true;
}

bool LiftedHullBuilder::Run()
{
    for (std::int32_t v = 0; v < std::int32_t(m_verts.size()); ++v)
        if (!m_records[std::size_t(v)]->bProcessed && !addPoint(v))
            return false;
    return true;
}

void LiftedHullBuilder::Finish(tFaceStructure*& faces, tEdgeStructure*& edges, unsigned long long& edgeSerial)
{
    // Slots by creation number: the lists run in that order.
    std::vector<std::int32_t> bySerial(m_edgeSerial, -1);
    for (std::int32_t e = 0; e < std::int32_t(m_edges.size()); ++e)
        if (m_edges[std::size_t(e)].alive)
            bySerial[m_edges[std::size_t(e)].serial] = e;
    std::vector<tEdgeStructure*> edgeRecords(m_edges.size(), nullptr);
    std::vector<tEdgeStructure*> edgeList;
    edgeList.reserve(m_edges.size() - m_freeEdges.size());
    for (std::uint32_t n = 0; n < m_edgeSerial; ++n) {
        if (bySerial[n] < 0)
            continue;
        tEdgeStructure* r = n < m_seedEdges.size() ? m_seedEdges[n] : new tEdgeStructure{};
        edgeRecords[std::size_t(bySerial[n])] = r;
        edgeList.push_back(r);
    }
    bySerial.assign(m_faceSerial, -1);
    for (std::int32_t f = 0; f < std::int32_t(m_faces.size()); ++f)
        if (m_faces[std::size_t(f)].alive)
            bySerial[m_faces[std::size_t(f)].serial] = f;
    std::vector<tFaceStructure*> faceRecords(m_faces.size(), nullptr);
    std::vector<tFaceStructure*> faceList;
    faceList.reserve(m_faces.size() - m_freeFaces.size());
    for (std::uint32_t n = 0; n < m_faceSerial; ++n) {
        if (bySerial[n] < 0)
            continue;
        tFaceStructure* r = n < m_seedFaces.size() ? m_seedFaces[n] : new tFaceStructure{};
        faceRecords[std::size_t(bySerial[n])] = r;
        faceList.push_back(r);
    }

    // Seed records whose edge or face went are freed.
    // They come first in creation order, so only the front of the lists can hold them.
    const auto kept = [](const auto& list, const auto* r, std::size_t seeds) {
        const auto end = list.begin() + std::ptrdiff_t(std::min(seeds, list.size()));
        return std::find(list.begin(), end, r) != end;
    };
    for (tEdgeStructure* r : m_seedEdges)
        if (!kept(edgeList, r, m_seedEdges.size()))
            delete r;
    for (tFaceStructure* r : m_seedFaces)
        if (!kept(faceList, r, m_seedFaces.size()))
            delete r;

    for (std::int32_t e = 0; e < std::int32_t(m_edges.size()); ++e) {
        const Edge& edge = m_edges[std::size_t(e)];
        tEdgeStructure* r = edgeRecords[std::size_t(e)];
        if (!r)
            continue;
        for (int k = 0; k < 2; ++k) {
            r->endpts[k] = m_records[std::size_t(edge.v[k])];
            r->adjface[k] = faceRecords[std::size_t(edge.f[k])];
        }
        r->newface = nullptr;
        r->bDelete = false;
        if (edge.serial >= m_seedEdges.size())
            r->serial = m_firstNewEdgeSerial + (edge.serial - m_seedEdges.size());
    }
    for (std::int32_t f = 0; f < std::int32_t(m_faces.size()); ++f) {
        const Face& face = m_faces[std::size_t(f)];
        tFaceStructure* r = faceRecords[std::size_t(f)];
        if (!r)
            continue;
        // Cone faces come with their edges in corner order; seed faces keep theirs.
        if (face.serial >= m_seedFaces.size())
            for (int k = 0; k < 3; ++k) {
                r->vertex[k] = m_records[std::size_t(face.v[k])];
                r->edge[k] = edgeRecords[std::size_t(face.e[k])];
            }
        r->bVisible = false;
        r->bLowerFace = false;
        r->conflicts = nullptr;
    }
    edges = LinkInOrder(edgeList);
    faces = LinkInOrder(faceList);
    for (tVertexStructure* v : m_records) {
        v->bProcessed = true;
        v->bOnHull = false;
        v->duplicate = nullptr;
    }
    edgeSerial = m_firstNewEdgeSerial + (m_edgeSerial - m_seedEdges.size());
}

} // namespace qzsse::detail
