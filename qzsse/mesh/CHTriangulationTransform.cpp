#include <cmath>
#include <emmintrin.h>

#include "qzsse/core/CSSEFns.h"
#include "qzsse/mesh/CHTriangulation.h"

namespace {

float lane(__m128 v, int i)
{
    alignas(16) float f[4];
    _mm_store_ps(f, v);
    return f[i];
}

// Cofactor matrix of the 3x3 part of m: (m a) x (m b) = cof(m) (a x b), so normals made from
// edges stay the normals of the moved edges, whatever the sign of the determinant.
t_ssematrix3 cofactor(const t_ssematrix3& m)
{
    float a[3][3];
    for (int r = 0; r < 3; ++r)
        for (int c = 0; c < 3; ++c)
            a[r][c] = lane(m.row[r], c);
    t_ssematrix3 out;
    for (int r = 0; r < 3; ++r) {
        const int r1 = (r + 1) % 3, r2 = (r + 2) % 3;
        float f[3];
        for (int c = 0; c < 3; ++c) {
            const int c1 = (c + 1) % 3, c2 = (c + 2) % 3;
            f[c] = a[r1][c1] * a[r2][c2] - a[r1][c2] * a[r2][c1];
        }
        out.row[r] = _mm_setr_ps(f[0], f[1], f[2], 0.0f);
    }
    return out;
}

__m128 normalised(__m128 n)
{
    const __m128 squares = _mm_mul_ps(n, n);
    alignas(16) float s[4];
    _mm_store_ps(s, squares);
    const float length = std::sqrt(s[0] + s[1] + s[2]);
    if (!(length > 0.0f))
        return n;
    return _mm_div_ps(n, _mm_set1_ps(length));
}

// Everything derived from the corners, after they moved; an empty mesh has no centre.
void refreshDerived(CHTriangulation& mesh)
{
    mesh.CalcSTV();
    mesh.CalcBoundingBox();
    if (mesh.GetNumTriangles() > 0)
        mesh.CalcCenterPoint();
}

} // namespace

void CHTriangulation::Rotate(t_ssematrix3& m, const SSEPoint& offset)
{
    if (m_pMinPoint == nullptr)
        return;
    const __m128 shift = _mm_setr_ps(offset.x, offset.y, offset.z, 0.0f);
    const long long corners = 3LL * m_iNumTriangles;
    for (long long i = 0; i < corners; ++i)
        m_pEdgeArray[i].m = _mm_add_ps(CSSEFns::transform(m_pEdgeArray[i].m, m), shift);

    t_ssematrix3 normalMap = cofactor(m);
    for (long long i = 0; i < corners; ++i)
        m_pNormalArray[i].m = normalised(CSSEFns::transform(m_pNormalArray[i].m, normalMap));
    for (int i = 0; i < m_iNumTriangles; ++i)
        m_pMainNormalArray[i].m = normalised(CSSEFns::transform(m_pMainNormalArray[i].m, normalMap));

    refreshDerived(*this);
}

void CHTriangulation::Move(float dx, float dy, float dz)
{
    if (m_pMinPoint == nullptr)
        return;
    const __m128 shift = _mm_setr_ps(dx, dy, dz, 0.0f);
    const long long corners = 3LL * m_iNumTriangles;
    for (long long i = 0; i < corners; ++i)
        m_pEdgeArray[i].m = _mm_add_ps(m_pEdgeArray[i].m, shift);
    refreshDerived(*this);
}

void CHTriangulation::Scale(float sx, float sy, float sz)
{
    t_ssematrix3 m;
    m.row[0] = _mm_setr_ps(sx, 0.0f, 0.0f, 0.0f);
    m.row[1] = _mm_setr_ps(0.0f, sy, 0.0f, 0.0f);
    m.row[2] = _mm_setr_ps(0.0f, 0.0f, sz, 0.0f);
    SSEPoint none;
    none.m = _mm_setzero_ps();
    Rotate(m, none);
}
