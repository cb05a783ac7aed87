#include "qzsse/geometry/CHPolygonTriangulator.h"

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

using qzsse::detail::PolygonDiagonal;
using qzsse::detail::PolygonTriangle;

CHPolygonTriangulator::CHPolygonTriangulator(CSSE2dPolygon* polygon, int step, float scaleX, float scaleY,
                                             bool flag)
    : m_pPolygon2D(polygon), m_iStep(step < 1 ? 1 : step), m_fScaleX(scaleX), m_fScaleY(scaleY), m_bFlag(flag)
{
    const int count = polygon != nullptr ? polygon->GetNumPoints() : 0;
    if (count < 3)
        return;
    build(count);
    GetValuesFrom2DPolygon();
    Triangulate();
}

CHPolygonTriangulator::CHPolygonTriangulator(CSSE3dPolygon* polygon, int step, float scaleX, float scaleY,
                                             float scaleZ, bool flag)
    : m_pPolygon3D(polygon), m_iStep(step < 1 ? 1 : step), m_fScaleX(scaleX), m_fScaleY(scaleY),
      m_fScaleZ(scaleZ), m_bFlag(flag)
{
    const int count = polygon != nullptr ? polygon->GetNumPoints() : 0;
    if (count < 3)
        return;
    build(count);
    Create2DPolygonFrom3DPolygon();
    Triangulate();
}

CHPolygonTriangulator::~CHPolygonTriangulator()
{
    SafeFree(m_pVertices);
    SafeFree(m_pDiagonals);
    SafeFree(m_pTriangles);
}

void CHPolygonTriangulator::build(int pointCount)
{
    m_nNumVertices = pointCount / m_iStep;
    // One record at least, so that a step larger than the polygon still leaves valid arrays.
    const unsigned long long records = m_nNumVertices > 0 ? static_cast<unsigned long long>(m_nNumVertices) : 1;
    m_pVertices = static_cast<t_hvertex*>(SafeCalloc(records, sizeof(t_hvertex)));
    m_pDiagonals = static_cast<PolygonDiagonal*>(SafeCalloc(records, sizeof(PolygonDiagonal)));
    m_pTriangles = static_cast<PolygonTriangle*>(SafeCalloc(records, sizeof(PolygonTriangle)));
    linkVertices();
}

void CHPolygonTriangulator::linkVertices()
{
    const int n = m_nNumVertices;
    for (int i = 0; i < n; ++i) {
        m_pVertices[i].index = i;
        m_pVertices[i].ear = false;
        m_pVertices[i].next = &m_pVertices[i + 1 < n ? i + 1 : 0];
        m_pVertices[i].prev = &m_pVertices[i > 0 ? i - 1 : n - 1];
    }
    m_pHead = n > 0 ? &m_pVertices[0] : nullptr;
}

void CHPolygonTriangulator::GetValuesFrom2DPolygon()
{
    if (m_pPolygon2D == nullptr || m_pVertices == nullptr)
        return;
    for (int i = 0; i < m_nNumVertices; ++i) {
        float x = 0.0f, y = 0.0f;
        m_pPolygon2D->GetPoint(i * m_iStep, x, y);
        m_pVertices[i].position = {x * m_fScaleX, y * m_fScaleY};
    }
}

void CHPolygonTriangulator::Create2DPolygonFrom3DPolygon()
{
    if (m_pPolygon3D == nullptr || m_pVertices == nullptr)
        return;
    if (!m_pPolygon3D->IsBoundingBoxCalculated())
        m_pPolygon3D->CalcBoundingBox();
    for (int i = 0; i < m_nNumVertices; ++i) {
        float x = 0.0f, y = 0.0f;
        m_pPolygon3D->GetPointXY(i * m_iStep, x, y);
        m_pVertices[i].position = {x * m_fScaleX, y * m_fScaleY};
    }
}

bool CHPolygonTriangulator::Diagonalie(const t_hvertex* a, const t_hvertex* b) const
{
    const t_hvertex* c = m_pHead;
    do {
        const t_hvertex* c1 = c->next;
        if (c != a && c1 != a && c != b && c1 != b && Intersect(a->position, b->position, c->position, c1->position))
            return false;
        c = c1;
    } while (c != m_pHead);
    return true;
}

bool CHPolygonTriangulator::Diagonal(const t_hvertex* a, const t_hvertex* b) const
{
    return InCone(a, b) && InCone(b, a) && Diagonalie(a, b);
}

void CHPolygonTriangulator::EarInit()
{
    if (m_pHead == nullptr)
        return;
    t_hvertex* v = m_pHead;
    do {
        v->ear = Diagonal(v->prev, v->next);
        v = v->next;
    } while (v != m_pHead);
}

void CHPolygonTriangulator::Triangulate()
{
    m_nNumDiagonals = 0;
    m_nNumTriangles = 0;
    for (int i = 0; i < m_nNumVertices; ++i)
        m_pDiagonals[i].bExists = false;
    EarInit();
    int remaining = m_nNumVertices;
    while (remaining >= 3) {
        t_hvertex* v = m_bFlag ? m_pHead->next : m_pHead;
        bool found = false;
        for (int steps = 0; steps < m_nNumVertices; ++steps) {
            if (v->ear) {
                found = true;
                break;
            }
            v = v->next;
        }
        if (!found)
            break;
        t_hvertex* p = v->prev;
        t_hvertex* q = v->next;
        t_hvertex* pp = p->prev;
        t_hvertex* qq = q->next;

        PolygonDiagonal& diagonal = m_pDiagonals[m_nNumDiagonals++];
        diagonal.bExists = true;
        diagonal.iFirst = p->index;
        diagonal.bFirstConvex = AreaSign(p->position, v->position, pp->position) >= 0.0f;
        diagonal.iSecond = q->index;
        diagonal.bSecondConvex = AreaSign(q->position, qq->position, v->position) >= 0.0f;

        p->ear = Diagonal(pp, q);
        q->ear = Diagonal(p, qq);

        m_pTriangles[m_nNumTriangles++] = {p->index, v->index, q->index};

        p->next = q;
        q->prev = p;
        m_pHead = q;
        --remaining;
    }
}

bool CHPolygonTriangulator::DiagonalExists(int i) const
{
    if (i < 0 || i >= m_nNumDiagonals)
        return false;
    return m_pDiagonals[i].bExists;
}

void CHPolygonTriangulator::GetDiagonalPoints(int i, float& x1, float& y1, float& x2, float& y2) const
{
    if (i < 0 || i >= m_nNumDiagonals)
        return;
    const PolygonDiagonal& diagonal = m_pDiagonals[i];
    if (diagonal.iFirst >= 0 && diagonal.iFirst < m_nNumVertices) {
        x1 = m_pVertices[diagonal.iFirst].position.x;
        y1 = m_pVertices[diagonal.iFirst].position.y;
    }
    if (diagonal.iSecond >= 0 && diagonal.iSecond < m_nNumVertices) {
        x2 = m_pVertices[diagonal.iSecond].position.x;
        y2 = m_pVertices[diagonal.iSecond].position.y;
    }
}

bool CHPolygonTriangulator::GetTriangle3D(int i, SSEPoint& a, SSEPoint& b, SSEPoint& c) const
{
    if (m_pPolygon3D == nullptr || i < 0 || i >= m_nNumTriangles)
        return false;
    const PolygonTriangle& t = m_pTriangles[i];
    m_pPolygon3D->GetPointSSE(t.a * m_iStep, a);
    m_pPolygon3D->GetPointSSE(t.b * m_iStep, b);
    m_pPolygon3D->GetPointSSE(t.c * m_iStep, c);
    return true;
}

bool CHPolygonTriangulator::GetTriangle(int i, int& a, int& b, int& c) const
{
    if (i < 0 || i >= m_nNumTriangles)
        return false;
    a = m_pTriangles[i].a;
    b = m_pTriangles[i].b;
    c = m_pTriangles[i].c;
    return true;
}
