#include "qzsse/geometry/CHPolygonTriangulator.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <vector>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/geometry/detail/EarClippingEdgeIndex.h"
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

bool CHPolygonTriangulator::DiagonalieDirect(const t_hvertex* a, const t_hvertex* b) const
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

// The answer is Intersect's, edge by edge. While a triangulation runs the edge index picks the
// edges that could answer true; otherwise the list is walked with most edges settled by the
// areas of their ends against ab, each computed once.
bool CHPolygonTriangulator::Diagonalie(const t_hvertex* a, const t_hvertex* b) const
{
    if (qzsse::detail::g_bDirectEarClipping)
        return DiagonalieDirect(a, b);
    if (m_pEdgeIndex != nullptr)
        return !m_pEdgeIndex->AnyEdgeHits(*this, a->index, b->index);
    using qzsse::detail::EarClippingArea;
    const t_h2dpoint pa = a->position;
    const t_h2dpoint pb = b->position;
    const t_hvertex* c = m_pHead;
    float areaC = EarClippingArea(pa, pb, c->position);
    do {
        const t_hvertex* c1 = c->next;
        const float areaD = EarClippingArea(pa, pb, c1->position);
        if (c != a && c1 != a && c != b && c1 != b &&
            qzsse::detail::EarClippingEdgeHits(*this, pa, pb, c->position, c1->position, areaC, areaD))
            return false;
        c = c1;
        areaC = areaD;
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

namespace qzsse::detail {
namespace {

// Ear flags of the vertices still in the ring, one bit per vertex index. The ring keeps index
// order, so the first ear met walking from a vertex is the next set bit at or after its index,
// wrapping round to the lowest.
class EarBits {
public:
    explicit EarBits(int n) : m_words(static_cast<size_t>(n + 63) / 64, 0) {}
    void Set(int i, bool ear)
    {
        const std::uint64_t bit = std::uint64_t{1} << (i & 63);
        std::uint64_t& word = m_words[static_cast<size_t>(i >> 6)];
        word = ear ? (word | bit) : (word & ~bit);
    }
    // -1 when no vertex of the ring is an ear.
    int FirstFrom(int start) const
    {
        const int from = FirstInRange(start);
        return from >= 0 ? from : FirstInRange(0);
    }

private:
    int FirstInRange(int start) const
    {
        size_t w = static_cast<size_t>(start >> 6);
        if (w >= m_words.size())
            return -1;
        std::uint64_t word = m_words[w] & (~std::uint64_t{0} << (start & 63));
        while (word == 0) {
            if (++w == m_words.size())
                return -1;
            word = m_words[w];
        }
        return static_cast<int>(w * 64) + std::countr_zero(word);
    }
    std::vector<std::uint64_t> m_words;
};

}  // namespace
}  // namespace qzsse::detail

void CHPolygonTriangulator::Triangulate()
{
    m_nNumDiagonals = 0;
    m_nNumTriangles = 0;
    for (int i = 0; i < m_nNumVertices; ++i)
        m_pDiagonals[i].bExists = false;
    // The index and the ear bits assume the ring holds every vertex in index order, as it does
    // on the first run; a repeated run on an already clipped ring takes the direct walk.
    int ringSize = 0;
    if (m_pHead != nullptr) {
        const t_hvertex* c = m_pHead;
        do {
            ++ringSize;
            c = c->next;
        } while (c != m_pHead && ringSize <= m_nNumVertices);
    }
    const bool direct = qzsse::detail::g_bDirectEarClipping || ringSize != m_nNumVertices;
    qzsse::detail::EarClippingEdgeIndex index;
    if (!direct && index.Build(m_pVertices, m_nNumVertices))
        m_pEdgeIndex = &index;
    EarInit();
    qzsse::detail::EarBits ears(direct ? 0 : m_nNumVertices);
    if (!direct)
        for (int i = 0; i < m_nNumVertices; ++i)
            ears.Set(i, m_pVertices[i].ear);
    int remaining = m_nNumVertices;
    while (remaining >= 3) {
        t_hvertex* v = m_bFlag ? m_pHead->next : m_pHead;
        bool found = false;
        if (direct) {
            for (int steps = 0; steps < m_nNumVertices; ++steps) {
                if (v->ear) {
                    found = true;
                    break;
                }
                v = v->next;
            }
        } else {
            const int ear = ears.FirstFrom(v->index);
            found = ear >= 0;
            v = found ? &m_pVertices[ear] : v;
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
        if (!direct) {
            ears.Set(p->index, p->ear);
            ears.Set(q->index, q->ear);
            ears.Set(v->index, false);
            if (m_pEdgeIndex != nullptr)
                m_pEdgeIndex->Remove(v->index);
        }
    }
    m_pEdgeIndex = nullptr;
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
