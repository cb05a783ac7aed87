#include "qzsse/geometry/detail/LiftedPointLocator.h"

#include <algorithm>
#include <cmath>

namespace qzsse::detail {
namespace {

constexpr long long kLiftedLimit = 1LL << 29;

// (b - a) x (p - a) in the plane; exact for coordinates within kLiftedLimit.
inline long long Turn(const tVertexStructure* a, const tVertexStructure* b, const tVertexStructure* p)
{
    return (b->x - a->x) * (p->y - a->y) - (b->y - a->y) * (p->x - a->x);
}

// The face looks down (its corners run clockwise seen from above): a Delaunay triangle.
inline bool Downward(const tFaceStructure* f) { return Turn(f->vertex[0], f->vertex[1], f->vertex[2]) < 0; }

inline tEdgeStructure* EdgeJoining(const tFaceStructure* f, const tVertexStructure* u, const tVertexStructure* w)
{
    for (tEdgeStructure* e : f->edge)
        if ((e->endpts[0] == u && e->endpts[1] == w) || (e->endpts[0] == w && e->endpts[1] == u))
            return e;
    return nullptr;
}

inline tFaceStructure* Across(const tEdgeStructure* e, const tFaceStructure* f)
{
    return e->adjface[e->adjface[0] == f ? 1 : 0];
}

} // namespace

bool AllLifted(const tVertexStructure* head)
{
    const tVertexStructure* v = head;
    if (!v)
        return false;
    do {
        if (v->x < -kLiftedLimit || v->x > kLiftedLimit || v->y < -kLiftedLimit || v->y > kLiftedLimit ||
            v->z != v->x * v->x + v->y * v->y)
            return false;
        v = v->next;
    } while (v != head);
    return true;
}

LiftedPointLocator::LiftedPointLocator(CHConvexHull3D& hull) : m_hull(hull)
{
    std::vector<tVertexStructure*> vertices;
    long long maxX = 0, maxY = 0;
    if (tVertexStructure* v = hull.GetVertices()) {
        m_minX = maxX = v->x;
        m_minY = maxY = v->y;
        do {
            vertices.push_back(v);
            m_minX = std::min(m_minX, v->x);
            m_minY = std::min(m_minY, v->y);
            maxX = std::max(maxX, v->x);
            maxY = std::max(maxY, v->y);
            v = v->next;
        } while (v != hull.GetVertices());
    }
    m_entries.resize(vertices.size());
    for (std::size_t i = 0; i < vertices.size(); ++i) {
        m_entries[i] = {{vertices[i]->x, vertices[i]->y, vertices[i]->z}, nullptr, std::uint32_t(i), 0};
        vertices[i]->conflicts = &m_entries[i];
    }

    // About two points per cell, cells about square.
    const double width = double(maxX - m_minX) + 1.0, height = double(maxY - m_minY) + 1.0;
    const double cells = std::max(1.0, double(vertices.size()) / 2.0);
    const double side = std::sqrt(width * height / cells);
    m_sizeX = std::clamp<long long>(static_cast<long long>(width / side), 1, 1 << 16);
    m_sizeY = std::clamp<long long>(static_cast<long long>(height / side), 1, 1 << 16);
    m_scaleX = double(m_sizeX) / width;
    m_scaleY = double(m_sizeY) / height;
    m_cells.assign(std::size_t(m_sizeX * m_sizeY), -1);

    if (tFaceStructure* f = hull.GetFaces()) {
        do {
            for (tVertexStructure* v : f->vertex) {
                ConflictArc* entry = v->conflicts;
                if (!entry->face || (!Downward(entry->face) && Downward(f)))
                    entry->face = f;
                m_cells[cellOf(v->x, v->y)] = std::int32_t(entry->number);
            }
            f = f->next;
        } while (f != hull.GetFaces());
    }
}

LiftedPointLocator::~LiftedPointLocator()
{
    if (tVertexStructure* v = m_hull.GetVertices()) {
        do {
            v->conflicts = nullptr;
            v = v->next;
        } while (v != m_hull.GetVertices());
    }
}

std::size_t LiftedPointLocator::cellOf(long long x, long long y) const
{
    const long long cx = std::min(m_sizeX - 1, static_cast<long long>(double(x - m_minX) * m_scaleX));
    const long long cy = std::min(m_sizeY - 1, static_cast<long long>(double(y - m_minY) * m_scaleY));
    return std::size_t(cy * m_sizeX + cx);
}

// Turns around v from f, face by face across the edges at v, to a downward face.
tFaceStructure* LiftedPointLocator::downwardFaceAround(const tVertexStructure* v, tFaceStructure* f) const
{
    tFaceStructure* g = f;
    const tEdgeStructure* came = nullptr;
    for (int step = 0; step < 1024; ++step) {
        if (Downward(g))
            return g;
        const tEdgeStructure* next = nullptr;
        for (const tEdgeStructure* e : g->edge)
            if (e != came && (e->endpts[0] == v || e->endpts[1] == v)) {
                next = e;
                break;
            }
        if (!next)
            return nullptr;
        g = Across(next, g);
        came = next;
        if (g == f)
            return nullptr;
    }
    return nullptr;
}

LiftedPointLocator::Candidates LiftedPointLocator::Locate(const tVertexStructure* p, std::size_t stepBudget) const
{
    // Rings of cells outward from p's cell, to the first that names a vertex with a face.
    const std::size_t home = cellOf(p->x, p->y);
    const long long hx = static_cast<long long>(home % std::size_t(m_sizeX));
    const long long hy = static_cast<long long>(home / std::size_t(m_sizeX));
    const ConflictArc* start = nullptr;
    const auto look = [&](long long x, long long y) {
        const std::int32_t k = m_cells[std::size_t(y * m_sizeX + x)];
        if (k >= 0 && m_entries[std::size_t(k)].face)
            start = &m_entries[std::size_t(k)];
    };
    const long long maxRing = std::max(m_sizeX, m_sizeY);
    for (long long r = 0; r <= maxRing && !start; ++r) {
        const long long x0 = std::max(hx - r, 0LL), x1 = std::min(hx + r, m_sizeX - 1);
        const long long y0 = std::max(hy - r, 0LL), y1 = std::min(hy + r, m_sizeY - 1);
        if (hy - r >= 0)
            for (long long x = x0; x <= x1 && !start; ++x)
                look(x, hy - r);
        if (r > 0 && hy + r < m_sizeY)
            for (long long x = x0; x <= x1 && !start; ++x)
                look(x, hy + r);
        if (r > 0 && hx - r >= 0)
            for (long long y = y0; y <= y1 && !start; ++y)
                look(hx - r, y);
        if (r > 0 && hx + r < m_sizeX)
            for (long long y = y0; y <= y1 && !start; ++y)
                look(hx + r, y);
    }
    if (!start)
        return {};
    const tVertexStructure* from = nullptr;
    for (const tVertexStructure* v : start->face->vertex)
        if (v->conflicts == start)
            from = v;
    tFaceStructure* f = from ? downwardFaceAround(from, start->face) : nullptr;
    if (!f)
        return {};

    // Visibility walk over the downward faces; their corners run clockwise, so p lies
    // beyond the edge u-w when it turns left from it.
    for (std::size_t step = 0; step <= stepBudget; ++step) {
        tFaceStructure* across = nullptr;
        for (int i = 0; i < 3 && !across; ++i) {
            const tVertexStructure* u = f->vertex[i];
            const tVertexStructure* w = f->vertex[i == 2 ? 0 : i + 1];
            if (Turn(u, w, p) > 0) {
                const tEdgeStructure* e = EdgeJoining(f, u, w);
                if (!e)
                    return {};
                across = Across(e, f);
            }
        }
        if (!across)
            return {f, nullptr};
        if (!Downward(across))
            return {across, f};
        f = across;
    }
    return {};
}

void LiftedPointLocator::Update(tVertexStructure* p, const HullStepScratch& step)
{
    for (const tFaceStructure* f : step.visible)
        for (tVertexStructure* v : f->vertex)
            if (v->conflicts->face && v->conflicts->face->bVisible)
                v->conflicts->face = nullptr;
    for (std::size_t k = 0; k < step.cones.size(); ++k) {
        tFaceStructure* cone = step.cones[k];
        const bool down = Downward(cone);
        const tEdgeStructure* e = step.horizon[k];
        for (tVertexStructure* v : {e->endpts[0], e->endpts[1], p}) {
            ConflictArc* entry = v->conflicts;
            if (down || !entry->face)
                entry->face = cone;
        }
    }
    if (p->conflicts->face)
        m_cells[cellOf(p->x, p->y)] = std::int32_t(p->conflicts->number);
}

} // namespace qzsse::detail
