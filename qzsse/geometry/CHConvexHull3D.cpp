#include "qzsse/geometry/CHConvexHull3D.h"

#include <algorithm>
#include <iostream>
#include <stdexcept>
#include <typeinfo>

#include "qzsse/geometry/CH2DDelaunay.h"
#include "qzsse/geometry/detail/ExactIntegerSign.h"
#include "qzsse/geometry/detail/GridPointIndex.h"
#include "qzsse/geometry/detail/HullConflictGraph.h"

namespace qzsse::detail {

// Deletes the records of a circular list that `doomed` selects. The head goes first while it
// is one of them, so the head ends on the first survivor (or null) and the others keep their
// order.
template <class Record, class Doomed, class Remove>
void DeleteFromCircularList(Record*& head, Doomed doomed, Remove remove)
{
    while (head && doomed(head))
        remove(head);
    if (!head)
        return;
    for (Record* r = head->next; r != head;) {
        Record* next = r->next;
        if (doomed(r))
            remove(r);
        r = next;
    }
}

// New records go in front of the head, which puts them at the end of the cycle.
template <class T>
void LinkBeforeHead(T*& head, T* p)
{
    if (head) {
        p->next = head;
        p->prev = head->prev;
        head->prev = p;
        p->prev->next = p;
    } else {
        head = p;
        head->next = head->prev = p;
    }
}

template <class T>
void UnlinkAndFree(T*& head, T* p)
{
    if (!head)
        return;
    if (head == head->next)
        head = nullptr;
    else if (p == head)
        head = head->next;
    p->next->prev = p->prev;
    p->prev->next = p->next;
    delete p;
}

template <class T>
int CycleLength(const T* head)
{
    if (!head)
        return 0;
    int n = 0;
    const T* p = head;
    do {
        ++n;
        p = p->next;
    } while (p != head);
    return n;
}

template <class T>
void FreeCycle(T*& head)
{
    if (!head)
        return;
    T* p = head->next;
    while (p != head) {
        T* next = p->next;
        delete p;
        p = next;
    }
    delete head;
    head = nullptr;
}

} // namespace qzsse::detail

using qzsse::detail::CycleLength;
using qzsse::detail::LinkBeforeHead;
using qzsse::detail::UnlinkAndFree;

CHConvexHull3D::CHConvexHull3D()
    : m_pVertices(nullptr), m_pEdges(nullptr), m_pFaces(nullptr), m_bDebug(false), m_bCheck(false), m_nFaces(0),
      m_nEdges(0), m_nVertices(0), m_nVertexCounter(0)
{
}

CHConvexHull3D::~CHConvexHull3D()
{
    qzsse::detail::FreeCycle(m_pFaces);
    qzsse::detail::FreeCycle(m_pEdges);
    qzsse::detail::FreeCycle(m_pVertices);
}

// --- list helpers ---------------------------------------------------------------------------

tVertexStructure* CHConvexHull3D::NewVertex() { return new tVertexStructure{}; }
void CHConvexHull3D::FreeVertex(tVertexStructure* v) { delete v; }
void CHConvexHull3D::AddVertex(tVertexStructure* v)
{
    invalidateGridIndex();
    LinkBeforeHead(m_pVertices, v);
}

void CHConvexHull3D::DeleteVertex(tVertexStructure* v)
{
    invalidateGridIndex();
    UnlinkAndFree(m_pVertices, v);
}

void CHConvexHull3D::invalidateGridIndex()
{
    if (m_pGridIndex)
        m_pGridIndex->Invalidate();
}
void CHConvexHull3D::AddEdge(tEdgeStructure* e) { LinkBeforeHead(m_pEdges, e); }
void CHConvexHull3D::DeleteEdge(tEdgeStructure* e) { UnlinkAndFree(m_pEdges, e); }
void CHConvexHull3D::AddFace(tFaceStructure* f) { LinkBeforeHead(m_pFaces, f); }
void CHConvexHull3D::DeleteFace(tFaceStructure* f) { UnlinkAndFree(m_pFaces, f); }

tVertexStructure* CHConvexHull3D::MakeNullVertex()
{
    tVertexStructure* v = NewVertex();
    AddVertex(v);
    return v;
}

tEdgeStructure* CHConvexHull3D::MakeNullEdge()
{
    tEdgeStructure* e = new tEdgeStructure{};
    e->serial = m_nEdgeSerial++;
    AddEdge(e);
    return e;
}

tFaceStructure* CHConvexHull3D::MakeNullFace()
{
    tFaceStructure* f = new tFaceStructure{};
    AddFace(f);
    return f;
}

int CHConvexHull3D::CalcNumFaces() const { return CycleLength(m_pFaces); }
int CHConvexHull3D::CalcNumEdges() const { return CycleLength(m_pEdges); }
int CHConvexHull3D::CalcNumVertices() const { return CycleLength(m_pVertices); }

void CHConvexHull3D::storeCounts()
{
    m_nFaces = CalcNumFaces();
    m_nEdges = CalcNumEdges();
    m_nVertices = CalcNumVertices();
    m_nVertexCounter = m_nVertices;
}

// --- input ----------------------------------------------------------------------------------

tVertexStructure* CHConvexHull3D::appendGridVertex(long long x, long long y, long long z)
{
    if (!m_pGridIndex)
        m_pGridIndex = std::make_shared<qzsse::detail::GridPointIndex>();
    if (!m_pGridIndex->Mirrors(m_pVertices, m_pVertices ? m_pVertices->prev : nullptr))
        m_pGridIndex->Rebuild(m_pVertices);
    const qzsse::detail::GridPointIndex::Key key{x, y, z};
    if (m_pGridIndex->Contains(key))
        return nullptr;
    tVertexStructure* v = MakeNullVertex();
    v->x = x;
    v->y = y;
    v->z = z;
    m_pGridIndex->Appended(key, m_pVertices, m_pVertices->prev);
    return v;
}

void CHConvexHull3D::AppendVertex2D(float x, float y, int index, bool flag)
{
    const long long gx = static_cast<long long>(10.0f * x + 0.5f);
    const long long gy = static_cast<long long>(10.0f * y + 0.5f);
    tVertexStructure* v = appendGridVertex(gx, gy, gx * gx + gy * gy);
    if (!v)
        return;
    v->iIndex = index == -1 ? m_nVertexCounter : index;
    v->bFlag = flag;
    ++m_nVertexCounter;
}

void CHConvexHull3D::AppendVertex3D(float x, float y, float z, float scale)
{
    tVertexStructure* v = appendGridVertex(static_cast<long long>(x * scale + 0.5f),
                                           static_cast<long long>(y * scale + 0.5f),
                                           static_cast<long long>(z * scale + 0.5f));
    if (!v)
        return;
    v->iIndex = 0;
    v->bFlag = false;
    ++m_nVertexCounter;
}

// --- predicates -----------------------------------------------------------------------------

int CHConvexHull3D::VolumeSign(tFaceStructure* face, tVertexStructure* p)
{
    const long long a[3] = {face->vertex[0]->x, face->vertex[0]->y, face->vertex[0]->z};
    const long long b[3] = {face->vertex[1]->x, face->vertex[1]->y, face->vertex[1]->z};
    const long long c[3] = {face->vertex[2]->x, face->vertex[2]->y, face->vertex[2]->z};
    const long long q[3] = {p->x, p->y, p->z};
    return qzsse::detail::OrientationSign3(a, b, c, q);
}

bool CHConvexHull3D::Collinear(tVertexStructure* a, tVertexStructure* b, tVertexStructure* c)
{
    const long long pa[3] = {a->x, a->y, a->z};
    const long long pb[3] = {b->x, b->y, b->z};
    const long long pc[3] = {c->x, c->y, c->z};
    return qzsse::detail::CrossProductIsZero(pa, pb, pc);
}

// --- construction ---------------------------------------------------------------------------

void CHConvexHull3D::CalcConvexHull()
{
    DoubleTriangle();
    ConstructHull();
    // EdgeOrderOnFaces and storeCounts, the face list walked once for both.
    int faces = 0;
    if (tFaceStructure* f = m_pFaces) {
        do {
            orderEdgesOf(f);
            ++faces;
            f = f->next;
        } while (f != m_pFaces);
    }
    m_nFaces = faces;
    m_nEdges = CalcNumEdges();
    m_nVertices = CalcNumVertices();
    m_nVertexCounter = m_nVertices;
}

tFaceStructure* CHConvexHull3D::MakeFace(tVertexStructure* v0, tVertexStructure* v1, tVertexStructure* v2,
                                         tFaceStructure* fold)
{
    tEdgeStructure *e0, *e1, *e2;
    if (!fold) {
        e0 = MakeNullEdge();
        e1 = MakeNullEdge();
        e2 = MakeNullEdge();
    } else {
        // The twin face reuses the edges, walked the other way round.
        e0 = fold->edge[2];
        e1 = fold->edge[1];
        e2 = fold->edge[0];
    }
    e0->endpts[0] = v0;
    e0->endpts[1] = v1;
    e1->endpts[0] = v1;
    e1->endpts[1] = v2;
    e2->endpts[0] = v2;
    e2->endpts[1] = v0;

    tFaceStructure* f = MakeNullFace();
    f->edge[0] = e0;
    f->edge[1] = e1;
    f->edge[2] = e2;
    f->vertex[0] = v0;
    f->vertex[1] = v1;
    f->vertex[2] = v2;
    e0->adjface[0] = e1->adjface[0] = e2->adjface[0] = f;
    return f;
}

// Seeds the hull with a two-sided triangle and moves a point off its plane to the head, so
// that the construction walk starts with a point that gives the hull volume.
void CHConvexHull3D::DoubleTriangle()
{
    if (!m_pVertices)
        throw CHDegenerateHullException("convex hull of no points");
    tVertexStructure* v0 = m_pVertices;
    while (Collinear(v0, v0->next, v0->next->next)) {
        v0 = v0->next;
        if (v0 == m_pVertices)
            throw CHDegenerateHullException("convex hull of collinear points");
    }
    tVertexStructure* v1 = v0->next;
    tVertexStructure* v2 = v1->next;
    v0->bProcessed = v1->bProcessed = v2->bProcessed = true;

    tFaceStructure* f0 = MakeFace(v0, v1, v2, nullptr);
    tFaceStructure* f1 = MakeFace(v2, v1, v0, f0);
    f0->edge[0]->adjface[1] = f1;
    f0->edge[1]->adjface[1] = f1;
    f0->edge[2]->adjface[1] = f1;
    f1->edge[0]->adjface[1] = f0;
    f1->edge[1]->adjface[1] = f0;
    f1->edge[2]->adjface[1] = f0;

    tVertexStructure* v3 = v2->next;
    while (VolumeSign(f0, v3) == 0) {
        v3 = v3->next;
        if (v3 == v0)
            throw CHDegenerateHullException("convex hull of coplanar points");
    }
    m_pVertices = v3;
    invalidateGridIndex();
}

void CHConvexHull3D::ConstructHull()
{
    if (!m_bFullScan) {
        constructHullWithConflicts();
        return;
    }
    tVertexStructure* v = m_pVertices;
    if (!v)
        return;
    do {
        tVertexStructure* next = v->next;
        if (!v->bProcessed) {
            v->bProcessed = true;
            AddOne(v);
            CleanUp(&next);
            if (m_bCheck)
                Checks();
        }
        v = next;
    } while (v != m_pVertices);
}

bool CHConvexHull3D::AddOne(tVertexStructure* p)
{
    bool visible = false;
    tFaceStructure* f = m_pFaces;
    do {
        if (VolumeSign(f, p) < 0) {
            f->bVisible = true;
            visible = true;
        }
        f = f->next;
    } while (f != m_pFaces);
    if (!visible) {
        p->bOnHull = false;
        return false;
    }

    // Edges between two visible faces disappear; horizon edges get a cone face to p. The
    // cone's own edges are appended behind the walk and are looked at too, harmlessly.
    tEdgeStructure* e = m_pEdges;
    do {
        tEdgeStructure* next = e->next;
        if (e->adjface[0]->bVisible && e->adjface[1]->bVisible)
            e->bDelete = true;
        else if (e->adjface[0]->bVisible || e->adjface[1]->bVisible)
            e->newface = MakeConeFace(e, p);
        e = next;
    } while (e != m_pEdges);
    return true;
}

tFaceStructure* CHConvexHull3D::MakeConeFace(tEdgeStructure* e, tVertexStructure* p)
{
    tEdgeStructure* side[2];
    for (int i = 0; i < 2; ++i) {
        side[i] = e->endpts[i]->duplicate;
        if (!side[i]) {
            side[i] = MakeNullEdge();
            side[i]->endpts[0] = e->endpts[i];
            side[i]->endpts[1] = p;
            e->endpts[i]->duplicate = side[i];
        }
    }
    tFaceStructure* f = MakeNullFace();
    f->edge[0] = e;
    f->edge[1] = side[0];
    f->edge[2] = side[1];
    MakeCcw(f, e, p);
    for (int i = 0; i < 2; ++i) {
        for (int j = 0; j < 2; ++j) {
            if (!side[i]->adjface[j]) {
                side[i]->adjface[j] = f;
                break;
            }
        }
    }
    return f;
}

// The cone face takes the orientation of the visible face it replaces along e.
void CHConvexHull3D::MakeCcw(tFaceStructure* f, tEdgeStructure* e, tVertexStructure* p)
{
    tFaceStructure* fv = e->adjface[0]->bVisible ? e->adjface[0] : e->adjface[1];
    int i = 0;
    while (fv->vertex[i] != e->endpts[0])
        ++i;
    if (fv->vertex[(i + 1) % 3] != e->endpts[1]) {
        f->vertex[0] = e->endpts[1];
        f->vertex[1] = e->endpts[0];
    } else {
        f->vertex[0] = e->endpts[0];
        f->vertex[1] = e->endpts[1];
        tEdgeStructure* s = f->edge[1];
        f->edge[1] = f->edge[2];
        f->edge[2] = s;
    }
    f->vertex[2] = p;
}

void CHConvexHull3D::CleanUp(tVertexStructure** nextVertex)
{
    CleanEdges();
    CleanFaces();
    CleanVertices(nextVertex);
}

void CHConvexHull3D::CleanEdges()
{
    tEdgeStructure* e = m_pEdges;
    do {
        if (e->newface) {
            if (e->adjface[0]->bVisible)
                e->adjface[0] = e->newface;
            else
                e->adjface[1] = e->newface;
            e->newface = nullptr;
        }
        e = e->next;
    } while (e != m_pEdges);

    qzsse::detail::DeleteFromCircularList(m_pEdges, [](const tEdgeStructure* x) { return x->bDelete; },
                                          [this](tEdgeStructure* x) { DeleteEdge(x); });
}

void CHConvexHull3D::CleanFaces()
{
    qzsse::detail::DeleteFromCircularList(m_pFaces, [](const tFaceStructure* x) { return x->bVisible; },
                                          [this](tFaceStructure* x) { DeleteFace(x); });
}

void CHConvexHull3D::CleanVertices(tVertexStructure** nextVertex)
{
    tEdgeStructure* e = m_pEdges;
    do {
        e->endpts[0]->bOnHull = e->endpts[1]->bOnHull = true;
        e = e->next;
    } while (e != m_pEdges);

    // The construction walk must not land on a vertex freed here.
    qzsse::detail::DeleteFromCircularList(
        m_pVertices, [](const tVertexStructure* x) { return x->bProcessed && !x->bOnHull; },
        [this, nextVertex](tVertexStructure* x) {
            if (x == *nextVertex)
                *nextVertex = x->next;
            DeleteVertex(x);
        });

    tVertexStructure* v = m_pVertices;
    do {
        v->duplicate = nullptr;
        v->bOnHull = false;
        v = v->next;
    } while (v != m_pVertices);
}

void CHConvexHull3D::orderEdgesOf(tFaceStructure* f)
{
    for (int i = 0; i < 3; ++i) {
        const tVertexStructure* a = f->vertex[i];
        const tVertexStructure* b = f->vertex[(i + 1) % 3];
        for (int j = i; j < 3; ++j) {
            const tEdgeStructure* e = f->edge[j];
            if ((e->endpts[0] == a && e->endpts[1] == b) || (e->endpts[0] == b && e->endpts[1] == a)) {
                tEdgeStructure* s = f->edge[i];
                f->edge[i] = f->edge[j];
                f->edge[j] = s;
                break;
            }
        }
    }
}

void CHConvexHull3D::EdgeOrderOnFaces()
{
    tFaceStructure* f = m_pFaces;
    if (!f)
        return;
    do {
        orderEdgesOf(f);
        f = f->next;
    } while (f != m_pFaces);
}

// --- access ---------------------------------------------------------------------------------

SSEPoint CHConvexHull3D::GetVertexFromFace(tFaceStructure* face, int k) const
{
    const tVertexStructure* v = face->vertex[k];
    SSEPoint p;
    p.x = static_cast<float>(v->x) / 10.0f;
    p.y = static_cast<float>(v->y) / 10.0f;
    p.z = static_cast<float>(v->z) / 10.0f;
    p.w = 0.0f;
    return p;
}

SSEPoint CHConvexHull3D::GetVertexFromFace3D(tFaceStructure* face, int k, const SSEPoint& scale) const
{
    const tVertexStructure* v = face->vertex[k];
    SSEPoint p;
    p.x = static_cast<float>(v->x) / scale.x;
    p.y = static_cast<float>(v->y) / scale.y;
    p.z = static_cast<float>(v->z) / scale.z;
    p.w = 0.0f;
    return p;
}

// --- diagnostics ----------------------------------------------------------------------------

namespace {

int cornerIndex(const tFaceStructure* f, const tVertexStructure* v)
{
    for (int i = 0; i < 3; ++i)
        if (f->vertex[i] == v)
            return i;
    return -1;
}

} // namespace

bool CHConvexHull3D::Consistency() const
{
    const tEdgeStructure* e = m_pEdges;
    if (!e)
        return true;
    do {
        const tFaceStructure* f0 = e->adjface[0];
        const tFaceStructure* f1 = e->adjface[1];
        const int i = f0 ? cornerIndex(f0, e->endpts[0]) : -1;
        const int j = f1 ? cornerIndex(f1, e->endpts[0]) : -1;
        // One face walks endpts[0] -> endpts[1], the other endpts[1] -> endpts[0].
        if (i < 0 || j < 0 ||
            !((f0->vertex[(i + 1) % 3] == e->endpts[1] && f1->vertex[(j + 2) % 3] == e->endpts[1]) ||
              (f0->vertex[(i + 2) % 3] == e->endpts[1] && f1->vertex[(j + 1) % 3] == e->endpts[1]))) {
            std::cerr << "CHConvexHull3D: edges are not consistent\n";
            return false;
        }
        e = e->next;
    } while (e != m_pEdges);
    return true;
}

bool CHConvexHull3D::Convexity()
{
    tFaceStructure* f = m_pFaces;
    if (!f || !m_pVertices)
        return true;
    do {
        tVertexStructure* v = m_pVertices;
        do {
            if (v->bProcessed && VolumeSign(f, v) < 0) {
                std::cerr << "CHConvexHull3D: hull is not convex at vertex " << v->iIndex << '\n';
                return false;
            }
            v = v->next;
        } while (v != m_pVertices);
        f = f->next;
    } while (f != m_pFaces);
    return true;
}

bool CHConvexHull3D::Checks()
{
    const bool consistent = Consistency();
    const bool convex = Convexity();
    // Points not yet added are still in the vertex list while the hull grows.
    long long v = 0;
    if (const tVertexStructure* p = m_pVertices) {
        do {
            v += p->bProcessed ? 1 : 0;
            p = p->next;
        } while (p != m_pVertices);
    }
    const long long e = CalcNumEdges(), f = CalcNumFaces();
    const bool euler = v - e + f == 2 && 2 * e == 3 * f;
    if (!euler)
        std::cerr << "CHConvexHull3D: V - E + F = " << v - e + f << ", E = " << e << ", F = " << f << '\n';
    return consistent && convex && euler;
}

bool CHConvexHull3D::CheckEndpts() const
{
    const tFaceStructure* f = m_pFaces;
    if (!f)
        return true;
    do {
        for (int i = 0; i < 3; ++i) {
            const tEdgeStructure* e = f->edge[i];
            if (e->endpts[0] != f->vertex[i] && e->endpts[1] != f->vertex[i]) {
                std::cerr << "CHConvexHull3D: edge " << i << " of a face misses its vertex\n";
                return false;
            }
        }
        f = f->next;
    } while (f != m_pFaces);
    return true;
}
