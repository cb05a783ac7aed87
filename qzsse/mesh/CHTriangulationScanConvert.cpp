#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/detail/ScanConvertSampling.h"

void CHTriangulation::ScanConvertTriangulationMax(CSSEMatrix* target, float offset)
{
    // Dividing the step by a refinement of 1 leaves it bit for bit as it is.
    qzsse::detail::scanConvertEnvelope<true>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, *m_pMaxPoint,
                                             m_fScanConvResX, m_fScanConvResY, m_fScanConvDiagonal, 1.0f, target,
                                             offset);
}

void CHTriangulation::ScanConvertTriangulationMin(CSSEMatrix* target, float offset, float refine)
{
    qzsse::detail::scanConvertEnvelope<false>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, *m_pMaxPoint,
                                              m_fScanConvResX, m_fScanConvResY, m_fScanConvDiagonal, refine, target,
                                              offset);
}
