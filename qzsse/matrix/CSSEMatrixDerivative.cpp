#include <algorithm>
#include <emmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"

// Increasing x, so each difference reads its right neighbour before that one is replaced.
void CSSEMatrix::CalcDerivativeX()
{
    for (int j = 0; j < m_SSESizeY; ++j) {
        __m128* band = m_Data[j];
        for (int x = 0; x + 1 < m_SSESizeX; ++x)
            band[x] = _mm_sub_ps(band[x + 1], band[x]);
    }
}

// Band j needs lane 0 of band j + 1 as its row below; going from the top, that band is
// still unchanged when band j reads it.
void CSSEMatrix::CalcDerivativeY()
{
    for (int j = 0; j + 1 < m_SSESizeY; ++j) {
        __m128* band = m_Data[j];
        const __m128* below = m_Data[j + 1];
        for (int x = 0; x < m_SSESizeX; ++x) {
            const __m128 cur = band[x];
            // (below0, cur1, cur2, cur3) rotated to (cur1, cur2, cur3, below0)
            const __m128 joined = _mm_move_ss(cur, below[x]);
            const __m128 next = _mm_shuffle_ps(joined, joined, _MM_SHUFFLE(0, 3, 2, 1));
            band[x] = _mm_sub_ps(next, cur);
        }
    }
}

// Differences of two matrices, the counterpart of the in-place derivatives above; reading
// both operands before the store lets this be one of them.
void CSSEMatrix::CalcDifferenceMatrixConstrained(CSSEMatrix& a, CSSEMatrix& b, bool onlyValidA, bool onlyValidB)
{
    if (m_Data == nullptr || a.m_Data == nullptr || b.m_Data == nullptr)
        return;
    const int bands = std::min({m_SSESizeY, a.m_SSESizeY, b.m_SSESizeY});
    const int cols = std::min({m_SSESizeX, a.m_SSESizeX, b.m_SSESizeX});
    const __m128 zero = _mm_setzero_ps();
    const __m128 all = _mm_castsi128_ps(_mm_set1_epi32(-1));
    for (int j = 0; j < bands; ++j) {
        __m128* band = m_Data[j];
        const __m128* aband = a.m_Data[j];
        const __m128* bband = b.m_Data[j];
        for (int x = 0; x < cols; ++x) {
            const __m128 va = aband[x];
            const __m128 vb = bband[x];
            const __m128 keepA = onlyValidA ? _mm_cmpgt_ps(va, zero) : all;
            const __m128 keepB = onlyValidB ? _mm_cmpgt_ps(vb, zero) : all;
            band[x] = _mm_and_ps(_mm_and_ps(keepA, keepB), _mm_sub_ps(va, vb));
        }
    }
}
