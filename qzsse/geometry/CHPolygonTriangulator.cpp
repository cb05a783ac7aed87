#include "qzsse/geometry/CHPolygonTriangulator.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <vector>
#include <xmmintrin.h>

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

namespace qzsse::detail {

namespace {

constexpr float c_fEdgeScanTolerance = 0.0005f;

// Written exactly as the orientation predicates compute it, so that the classification below
// sees the very floats Intersect would.
inline float EdgeScanArea(const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c)
{
    return (b.x - a.x) * (c.y - a.y) - (b.y - a.y) * (c.x - a.x);
}

// Intersect (a, b, c, d) by way of the areas of c and d against ab. Ends lying strictly on one
// side of ab (neither within the tolerance) can neither cross ab properly nor lie on it, so
// only a or b lying on cd remains to be tried; every other edge goes through Intersect itself.
inline bool EdgeHits(const CHSimpleBasisFcns& fcns, const t_h2dpoint& a, const t_h2dpoint& b, const t_h2dpoint& c,
                     const t_h2dpoint& d, float areaC, float areaD)
{
    const bool collinearC = areaC >= -c_fEdgeScanTolerance && areaC <= c_fEdgeScanTolerance;
    const bool collinearD = areaD >= -c_fEdgeScanTolerance && areaD <= c_fEdgeScanTolerance;
    const bool sameSide =
        !collinearC && !collinearD && (areaC > c_fEdgeScanTolerance) == (areaD > c_fEdgeScanTolerance);
    if (!sameSide)
        return fcns.Intersect(a, b, c, d);
    return fcns.Between(c, d, a) || fcns.Between(c, d, b);
}

}  // namespace

// The ring's positions and indices in contiguous arrays, kept in index order (the ring's own
// order) while a triangulation runs, so that four edges at a time can be screened.
struct EdgeScanRing {
    std::vector<float> xs, ys;
    std::vector<int> ids;

    void Erase(int index)
    {
        const auto at = std::lower_bound(ids.begin(), ids.end(), index);
        const auto k = at - ids.begin();
        ids.erase(at);
        xs.erase(xs.begin() + k);
        ys.erase(ys.begin() + k);
    }

    // Whether any edge without an end in ia or ib meets segment ab.
    bool AnyEdgeHits(const CHSimpleBasisFcns& fcns, int ia, int ib, const t_h2dpoint& a, const t_h2dpoint& b) const
    {
        const int m = static_cast<int>(ids.size());
        int k = 0;
        // Lanes that Intersect could not dismiss, found by the comparisons it makes on the same
        // floats: an end of cd within the tolerance of ab, ends on both sides of ab while ab's
        // ends are not strictly on one side of cd, or an end of ab on cd. Open lanes get the
        // exact test.
        const __m128 dx = _mm_set1_ps(b.x - a.x), dy = _mm_set1_ps(b.y - a.y);
        const __m128 ax = _mm_set1_ps(a.x), ay = _mm_set1_ps(a.y);
        const __m128 bx = _mm_set1_ps(b.x), by = _mm_set1_ps(b.y);
        const __m128 tol = _mm_set1_ps(c_fEdgeScanTolerance), negTol = _mm_set1_ps(-c_fEdgeScanTolerance);
        for (; k + 4 < m; k += 4) {
            const __m128 xc = _mm_loadu_ps(&xs[static_cast<size_t>(k)]);
            const __m128 yc = _mm_loadu_ps(&ys[static_cast<size_t>(k)]);
            const __m128 xd = _mm_loadu_ps(&xs[static_cast<size_t>(k) + 1]);
            const __m128 yd = _mm_loadu_ps(&ys[static_cast<size_t>(k) + 1]);
            const __m128 areaC = _mm_sub_ps(_mm_mul_ps(dx, _mm_sub_ps(yc, ay)), _mm_mul_ps(dy, _mm_sub_ps(xc, ax)));
            const __m128 areaD = _mm_sub_ps(_mm_mul_ps(dx, _mm_sub_ps(yd, ay)), _mm_mul_ps(dy, _mm_sub_ps(xd, ax)));
            const __m128 collinear = _mm_or_ps(_mm_and_ps(_mm_cmpge_ps(areaC, negTol), _mm_cmple_ps(areaC, tol)),
                                               _mm_and_ps(_mm_cmpge_ps(areaD, negTol), _mm_cmple_ps(areaD, tol)));
            const __m128 sidesDiffer = _mm_xor_ps(_mm_cmpgt_ps(areaC, tol), _mm_cmpgt_ps(areaD, tol));
            const __m128 vertical = _mm_cmpeq_ps(xc, xd);
            const auto inRange = [&](__m128 px, __m128 py) {
                const __m128 xRange = _mm_or_ps(_mm_and_ps(_mm_cmple_ps(xc, px), _mm_cmple_ps(px, xd)),
                                                _mm_and_ps(_mm_cmpge_ps(xc, px), _mm_cmpge_ps(px, xd)));
                const __m128 yRange = _mm_or_ps(_mm_and_ps(_mm_cmple_ps(yc, py), _mm_cmple_ps(py, yd)),
                                                _mm_and_ps(_mm_cmpge_ps(yc, py), _mm_cmpge_ps(py, yd)));
                return _mm_or_ps(_mm_andnot_ps(vertical, xRange), _mm_and_ps(vertical, yRange));
            };
            const auto areaOnCd = [&](__m128 px, __m128 py) {
                return _mm_sub_ps(_mm_mul_ps(_mm_sub_ps(xd, xc), _mm_sub_ps(py, yc)),
                                  _mm_mul_ps(_mm_sub_ps(yd, yc), _mm_sub_ps(px, xc)));
            };
            const __m128 areaA = areaOnCd(ax, ay), areaB = areaOnCd(bx, by);
            const __m128 collinearA = _mm_and_ps(_mm_cmpge_ps(areaA, negTol), _mm_cmple_ps(areaA, tol));
            const __m128 collinearB = _mm_and_ps(_mm_cmpge_ps(areaB, negTol), _mm_cmple_ps(areaB, tol));
            // Ends of ab strictly on one side of cd rule out a proper crossing.
            const __m128 abSplit = _mm_or_ps(_mm_or_ps(collinearA, collinearB),
                                             _mm_xor_ps(_mm_cmpgt_ps(areaA, tol), _mm_cmpgt_ps(areaB, tol)));
            const __m128 onCd =
                _mm_or_ps(_mm_and_ps(collinearA, inRange(ax, ay)), _mm_and_ps(collinearB, inRange(bx, by)));
            const __m128 open = _mm_or_ps(_mm_or_ps(collinear, _mm_and_ps(sidesDiffer, abSplit)), onCd);
            int lanes = _mm_movemask_ps(open);
            while (lanes != 0) {
                const int j = k + std::countr_zero(static_cast<unsigned>(lanes));
                lanes &= lanes - 1;
                if (EdgeAt(fcns, ia, ib, a, b, j, j + 1))
                    return true;
            }
        }
        for (; k < m; ++k)
            if (EdgeAt(fcns, ia, ib, a, b, k, k + 1 < m ? k + 1 : 0))
                return true;
        return false;
    }

private:
    bool EdgeAt(const CHSimpleBasisFcns& fcns, int ia, int ib, const t_h2dpoint& a, const t_h2dpoint& b, int j,
                int j1) const
    {
        const size_t u = static_cast<size_t>(j), v = static_cast<size_t>(j1);
        if (ids[u] == ia || ids[u] == ib || ids[v] == ia || ids[v] == ib)
            return false;
        const t_h2dpoint c{xs[u], ys[u]}, d{xs[v], ys[v]};
        return EdgeHits(fcns, a, b, c, d, EdgeScanArea(a, b, c), EdgeScanArea(a, b, d));
    }
};

}  // namespace qzsse::detail

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

// The answer is Intersect's, edge by edge, with most edges settled by the areas of their ends
// against ab, each computed once. While a triangulation runs the ring's contiguous copy is
// scanned instead of the linked list.
bool CHPolygonTriangulator::Diagonalie(const t_hvertex* a, const t_hvertex* b) const
{
    if (qzsse::detail::g_bDirectEarClipping)
        return DiagonalieDirect(a, b);
    if (m_pRing != nullptr)
        return !m_pRing->AnyEdgeHits(*this, a->index, b->index, a->position, b->position);
    using qzsse::detail::EdgeScanArea;
    const t_h2dpoint pa = a->position;
    const t_h2dpoint pb = b->position;
    const t_hvertex* c = m_pHead;
    float areaC = EdgeScanArea(pa, pb, c->position);
    do {
        const t_hvertex* c1 = c->next;
        const float areaD = EdgeScanArea(pa, pb, c1->position);
        if (c != a && c1 != a && c != b && c1 != b &&
            qzsse::detail::EdgeHits(*this, pa, pb, c->position, c1->position, areaC, areaD))
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
    // The index-ordered copies assume the ring holds every vertex, as it does on the first run;
    // a repeated run on an already clipped ring takes the direct walk.
    int ringSize = 0;
    if (m_pHead != nullptr) {
        const t_hvertex* c = m_pHead;
        do {
            ++ringSize;
            c = c->next;
        } while (c != m_pHead && ringSize <= m_nNumVertices);
    }
    const bool direct = qzsse::detail::g_bDirectEarClipping || ringSize != m_nNumVertices;
    qzsse::detail::EdgeScanRing ring;
    if (!direct) {
        for (int i = 0; i < m_nNumVertices; ++i) {
            ring.xs.push_back(m_pVertices[i].position.x);
            ring.ys.push_back(m_pVertices[i].position.y);
            ring.ids.push_back(i);
        }
        m_pRing = &ring;
    }
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
            ring.Erase(v->index);
        }
    }
    m_pRing = nullptr;
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
