#include "qzsse/geometry/CHConvexHull3D.h"

#include <algorithm>
#include <memory>
#include <typeinfo>

#include "qzsse/geometry/CH2DDelaunay.h"
#include "qzsse/geometry/detail/ExactIntegerSign.h"
#include "qzsse/geometry/detail/HullConflictGraph.h"
#include "qzsse/geometry/detail/LiftedHullBuilder.h"

// Construction through the conflict graph: each waiting point keeps one face it sees, and
// the faces a new point sees are found from that one through face adjacency.

// The first point is added by the full scans, which turns the two-sided seed triangle into
// a solid; from then on a point that sees a new cone face sees one of the two old faces
// beside its base edge, which is what lets the conflict graph replace the scans.
void CHConvexHull3D::constructHullWithConflicts()
{
    tVertexStructure* v = m_pVertices;
    if (!v)
        return;
    if (!m_bCheck && ownVolumeSign() && qzsse::detail::AllLifted(m_pVertices) && constructLiftedHull())
        return;
    qzsse::detail::ConflictGraph graph(*this);
    qzsse::detail::HullStepScratch step;
    bool seeded = false;
    // The walk meets the waiting points in the order the graph numbered them: none is
    // linked in or out of the list meanwhile.
    std::uint32_t number = 0;
    do {
        tVertexStructure* next = v->next;
        if (!v->bProcessed) {
            v->bProcessed = true;
            if (!seeded) {
                AddOne(v);
                CleanUp(&next);
                seedConflicts(graph);
                seeded = true;
            } else {
                if (number >= graph.Size() || graph.VertexOf(number) != v)
                    throw std::logic_error("CHConvexHull3D: construction walk left the conflict order");
                addOneFromConflicts(v, number++, graph, step);
                cleanUpAfterConflicts(v, &next, step);
            }
            if (m_bCheck)
                Checks();
        }
        v = next;
    } while (v != m_pVertices);
}

bool CHConvexHull3D::ownVolumeSign() const
{
    return m_bOwnVolumeSign || typeid(*this) == typeid(CHConvexHull3D) || typeid(*this) == typeid(CH2DDelaunay);
}

void CHConvexHull3D::seedConflicts(qzsse::detail::ConflictGraph& graph)
{
    std::vector<tVertexStructure*> waiting;
    tVertexStructure* v = m_pVertices;
    do {
        if (!v->bProcessed)
            waiting.push_back(v);
        v = v->next;
    } while (v != m_pVertices);
    graph.Start(waiting);

    std::vector<tFaceStructure*> faces;
    tFaceStructure* f = m_pFaces;
    do {
        faces.push_back(f);
        f = f->next;
    } while (f != m_pFaces);
    std::vector<std::vector<qzsse::detail::ConflictArc>> blocks(faces.size());
    for (std::uint32_t number = 0; number < waiting.size(); ++number) {
        tVertexStructure* w = waiting[number];
        for (std::size_t k = 0; k < faces.size(); ++k) {
            if (VolumeSign(faces[k], w) < 0) {
                blocks[k].push_back({{w->x, w->y, w->z}, nullptr, number, 0});
                graph.SetFace(number, faces[k]);
                break;
            }
        }
    }
    for (std::size_t k = 0; k < faces.size(); ++k)
        graph.GiveBlock(faces[k], blocks[k]);
}

namespace {

// Whether the point sees the face, from the face's corners and the point's coordinates.
bool SeesFace(const tFaceStructure* f, const long long at[3])
{
    const long long a[3] = {f->vertex[0]->x, f->vertex[0]->y, f->vertex[0]->z};
    const long long b[3] = {f->vertex[1]->x, f->vertex[1]->y, f->vertex[1]->z};
    const long long c[3] = {f->vertex[2]->x, f->vertex[2]->y, f->vertex[2]->z};
    return qzsse::detail::OrientationSign3(a, b, c, at) < 0;
}

} // namespace

// AddOne on the faces p sees, found from the one face the graph keeps for it through face
// adjacency. Cone faces are made in edge-list order (the serial order), so they and their
// edges are created exactly as the scan of the whole edge list creates them.
bool CHConvexHull3D::addOneFromConflicts(tVertexStructure* p, std::uint32_t number,
                                         qzsse::detail::ConflictGraph& graph, qzsse::detail::HullStepScratch& step)
{
    tFaceStructure* first = graph.FaceOf(number);
    if (!addOneFrom(first, p, step))
        return false;
    const bool own = ownVolumeSign();
    const auto sees = [&](tFaceStructure* f, const qzsse::detail::ConflictArc& a) {
        return own ? SeesFace(f, a.at) : VolumeSign(f, graph.VertexOf(a.number)) < 0;
    };
    if (step.moved.size() < step.cones.size())
        step.moved.resize(step.cones.size());
    for (std::size_t k = 0; k < step.cones.size(); ++k)
        step.moved[k].clear();

    // A waiting point that saw a removed face either sees a cone face or is inside the new
    // hull: the segment from inside that face to the point leaves the new hull through a
    // face not on the old one. The cones on the removed face's own edges are tried first.
    for (tFaceStructure* f : step.visible) {
        std::size_t count = 0;
        const qzsse::detail::ConflictArc* block = graph.TakeBlock(f, count);
        for (std::size_t i = 0; i < count; ++i) {
            const qzsse::detail::ConflictArc& a = block[i];
            if (a.number == number)
                continue;
            std::size_t found = step.cones.size();
            for (std::size_t k = 0; k < step.horizon.size() && found == step.cones.size(); ++k) {
                const tEdgeStructure* e = step.horizon[k];
                if ((e->adjface[0] == f || e->adjface[1] == f) && sees(step.cones[k], a))
                    found = k;
            }
            for (std::size_t k = 0; k < step.horizon.size() && found == step.cones.size(); ++k) {
                const tEdgeStructure* e = step.horizon[k];
                if (e->adjface[0] != f && e->adjface[1] != f && sees(step.cones[k], a))
                    found = k;
            }
            if (found < step.cones.size()) {
                step.moved[found].push_back({{a.at[0], a.at[1], a.at[2]}, nullptr, a.number, 0});
                graph.SetFace(a.number, step.cones[found]);
            } else {
                graph.SetFace(a.number, nullptr);
            }
        }
    }
    for (std::size_t k = 0; k < step.cones.size(); ++k)
        graph.GiveBlock(step.cones[k], step.moved[k]);
    return true;
}

// CleanUp restricted to what p changed. Deleting in another order than the list walk leaves
// the same heads and the same next vertex: each moves to the first survivor after it.
void CHConvexHull3D::cleanUpAfterConflicts(tVertexStructure* p, tVertexStructure** nextVertex,
                                           qzsse::detail::HullStepScratch& step)
{
    for (tEdgeStructure* e : step.horizon) {
        if (e->adjface[0]->bVisible)
            e->adjface[0] = e->newface;
        else
            e->adjface[1] = e->newface;
        e->newface = nullptr;
    }
    step.orphanCandidates.clear();
    step.orphanCandidates.push_back(p);
    for (tEdgeStructure* e : step.removed) {
        step.orphanCandidates.push_back(e->endpts[0]);
        step.orphanCandidates.push_back(e->endpts[1]);
        DeleteEdge(e);
    }
    for (tFaceStructure* f : step.visible)
        DeleteFace(f);

    // A vertex of a removed edge stays on the hull exactly when it ends a horizon edge
    // (around it the faces change from seen to unseen there); p stays when it got a cone.
    for (tEdgeStructure* e : step.horizon)
        e->endpts[0]->bOnHull = e->endpts[1]->bOnHull = true;
    if (!step.horizon.empty())
        p->bOnHull = true;
    std::sort(step.orphanCandidates.begin(), step.orphanCandidates.end());
    step.orphanCandidates.erase(std::unique(step.orphanCandidates.begin(), step.orphanCandidates.end()),
                                step.orphanCandidates.end());
    for (tVertexStructure* v : step.orphanCandidates) {
        if (v->bProcessed && !v->bOnHull) {
            if (v == *nextVertex)
                *nextVertex = v->next;
            DeleteVertex(v);
        }
    }
    for (tEdgeStructure* e : step.horizon)
        for (tVertexStructure* v : e->endpts) {
            v->bOnHull = false;
            v->duplicate = nullptr;
        }
    if (!step.horizon.empty()) {
        p->bOnHull = false;
        p->duplicate = nullptr;
    }
}

// AddOne on the faces p sees, found from the first through face adjacency. Cone faces are
// made in edge-list order (the serial order), so they and their edges are created exactly
// as the scan of the whole edge list creates them.
bool CHConvexHull3D::addOneFrom(tFaceStructure* first, tVertexStructure* p, qzsse::detail::HullStepScratch& step)
{
    step.visible.clear();
    step.horizon.clear();
    step.cones.clear();
    step.removed.clear();
    if (!first) {
        p->bOnHull = false;
        return false;
    }
    // This class's own VolumeSign is read from the coordinates; an override is called.
    const bool own = ownVolumeSign();
    const long long at[3] = {p->x, p->y, p->z};
    const auto sees = [&](tFaceStructure* f) { return own ? SeesFace(f, at) : VolumeSign(f, p) < 0; };

    first->bVisible = true;
    step.visible.push_back(first);
    for (std::size_t i = 0; i < step.visible.size(); ++i) {
        tFaceStructure* f = step.visible[i];
        for (tEdgeStructure* e : f->edge) {
            tFaceStructure* g = e->adjface[e->adjface[0] == f ? 1 : 0];
            if (!g->bVisible && sees(g)) {
                g->bVisible = true;
                step.visible.push_back(g);
            }
        }
    }

    for (tFaceStructure* f : step.visible) {
        for (tEdgeStructure* e : f->edge) {
            if (e->adjface[0]->bVisible && e->adjface[1]->bVisible) {
                if (!e->bDelete) {
                    e->bDelete = true;
                    step.removed.push_back(e);
                }
            } else {
                step.horizon.push_back(e);
            }
        }
    }
    std::sort(step.horizon.begin(), step.horizon.end(),
              [](const tEdgeStructure* a, const tEdgeStructure* b) { return a->serial < b->serial; });
    for (tEdgeStructure* e : step.horizon) {
        tFaceStructure* cone = MakeConeFace(e, p);
        e->newface = cone;
        step.cones.push_back(cone);
    }
    return true;
}

// Lifted plane points: the first point by the full scans (as above), then the flat arrays.
// false: they gave up; the caller goes on from the hull as it stands (the first point added),
// whose next point is again added by the full scans.
bool CHConvexHull3D::constructLiftedHull()
{
    tVertexStructure* v = m_pVertices;
    while (v->bProcessed) {
        v = v->next;
        if (v == m_pVertices)
            return true;
    }
    v->bProcessed = true;
    tVertexStructure* next = v->next;
    AddOne(v);
    CleanUp(&next);
    // The flat arrays start from the solid of four points a fresh seed leaves.
    if (CalcNumFaces() != 4 || CalcNumEdges() != 6) {
        ++m_nFlatGiveUps;
        return false;
    }
    qzsse::detail::LiftedHullBuilder builder(*this, m_nEdgeSerial);
    const bool built = builder.Run();
    m_nWalkedPoints += builder.Walked();
    m_nWalkFallbacks += builder.Fallbacks();
    if (!built) {
        ++m_nFlatGiveUps;
        return false;
    }
    builder.Finish(m_pFaces, m_pEdges, m_nEdgeSerial);
    return true;
}
