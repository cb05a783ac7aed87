#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/detail/ScanConvertSampling.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace qzsse::detail {
namespace {

constexpr float sentinelOf(bool upper)
{
    return upper ? c_fScanConvUpperSentinel : c_fScanConvLowerSentinel;
}

// The grid of a target that already exists: the mesh's origin, the target's own size.
ScanGrid gridOfTarget(const CSSEMatrix& target, const SSEPoint& origin, float resX, float resY)
{
    return ScanGrid{origin.x, origin.y, origin.z, resX, resY, target.GetSizeX(), target.GetSizeY()};
}

template <bool Upper>
void fastEnvelope(const t_htriangle* triangles, int count, const SSEPoint& minPoint, const SSEPoint& maxPoint,
                  float resX, float resY, CSSEMatrix* target, float offset)
{
    const ScanGrid grid = makeScanGrid(minPoint, maxPoint, resX, resY);
    if (grid.width <= 0 || grid.height <= 0 || count <= 0)
        return;
    target->CreateNoClear(grid.width, grid.height);
    target->Fill(sentinelOf(Upper));
    rasteriseTriangles<Upper>(triangles, count, grid, offset, *target);
    target->ReplaceValueWithValue(sentinelOf(Upper), 0.0f, c_fScanConvSentinelTolerance);
}

// Pixels whose centre lies outside the line's inner area become 0.0; a null line limits nothing.
void keepInsideLine(CSSEMatrix& target, CSSE3dPolygon* line, const SSEPoint& origin, float resX, float resY)
{
    if (line == nullptr)
        return;
    for (int py = 0; py < target.GetSizeY(); ++py) {
        const float y = origin.y + static_cast<float>(py) * resY;
        for (int px = 0; px < target.GetSizeX(); ++px) {
            const float x = origin.x + static_cast<float>(px) * resX;
            if (!line->PointInLineInnerArea(x, y, 1))
                target.SetPointUnsafe(px, py, 0.0f);
        }
    }
}

// Draws without discarding what the target holds, so several meshes (or passes) can be
// gathered into one image before the sentinel is removed.
template <bool Upper>
void envelopeNoDelete(const t_htriangle* triangles, int count, const SSEPoint& minPoint, const SSEPoint& maxPoint,
                      float resX, float resY, float diagonal, CSSEMatrix* target, bool create, bool replace)
{
    if (count <= 0)
        return;
    ScanGrid grid{};
    if (create) {
        grid = makeScanGrid(minPoint, maxPoint, resX, resY);
        if (grid.width <= 0 || grid.height <= 0)
            return;
        target->CreateNoClear(grid.width, grid.height);
        target->Fill(sentinelOf(Upper));
    } else {
        if (target->GetMatrixDataDirectly() == nullptr)
            return;
        grid = gridOfTarget(*target, minPoint, resX, resY);
    }
    sampleTriangles<Upper>(triangles, count, diagonal, 1.0f, grid, 0.0f, *target, AcceptAll{});
    if (replace)
        target->ReplaceValueWithValue(sentinelOf(Upper), 0.0f, c_fScanConvSentinelTolerance);
}

template <bool Upper>
void envelopeInYArea(const t_htriangle* triangles, int count, const SSEPoint& minPoint, float resX, float resY,
                     float diagonal, CSSEMatrix* target, float minY, float maxY)
{
    if (count <= 0 || target->GetMatrixDataDirectly() == nullptr)
        return;
    const ScanGrid grid = gridOfTarget(*target, minPoint, resX, resY);
    sampleTriangles<Upper>(triangles, count, diagonal, 1.0f, grid, 0.0f, *target,
                           [minY, maxY](float, float y) { return minY <= y && y <= maxY; });
}

// A second, twice as dense pass over a finished image: pixels at 0.0 count as undrawn again
// so the new samples can reach them, and drawn pixels combine with the new samples.
template <bool Upper>
void refineImage(const t_htriangle* triangles, int count, const SSEPoint& minPoint, float resX, float resY,
                 float diagonal, CSSEMatrix* target, float offset)
{
    if (count <= 0 || target->GetMatrixDataDirectly() == nullptr)
        return;
    const ScanGrid grid = gridOfTarget(*target, minPoint, resX, resY);
    target->ReplaceValueWithValue(0.0f, sentinelOf(Upper));
    sampleTriangles<Upper>(triangles, count, diagonal, 2.0f, grid, offset, *target, AcceptAll{});
    target->ReplaceValueWithValue(sentinelOf(Upper), 0.0f, c_fScanConvSentinelTolerance);
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

void CHTriangulation::ScanConvertTriangulationMax_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                              SSEPoint& minPoint)
{
    scanConvertEnvelope<true>(m_pTriangles, m_iNumTriangles, minPoint, maxPoint, m_fScanConvResX, m_fScanConvResY,
                              m_fScanConvDiagonal, 1.0f, target, offset);
}

void CHTriangulation::ScanConvertTriangulationMin_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                              SSEPoint& minPoint)
{
    scanConvertEnvelope<false>(m_pTriangles, m_iNumTriangles, minPoint, maxPoint, m_fScanConvResX, m_fScanConvResY,
                               m_fScanConvDiagonal, 1.0f, target, offset);
}

void CHTriangulation::ScanConvertTriangulationMaxNoDelete(CSSEMatrix* target, bool create, bool replace)
{
    envelopeNoDelete<true>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, *m_pMaxPoint, m_fScanConvResX,
                           m_fScanConvResY, m_fScanConvDiagonal, target, create, replace);
}

void CHTriangulation::ScanConvertTriangulationMinNoDelete(CSSEMatrix* target, bool create, bool replace)
{
    envelopeNoDelete<false>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, *m_pMaxPoint, m_fScanConvResX,
                            m_fScanConvResY, m_fScanConvDiagonal, target, create, replace);
}

void CHTriangulation::ScanConvertTriangulationMaxNoDeleteInYArea(CSSEMatrix* target, float minY, float maxY)
{
    envelopeInYArea<true>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, m_fScanConvResX, m_fScanConvResY,
                          m_fScanConvDiagonal, target, minY, maxY);
}

void CHTriangulation::ScanConvertTriangulationMinNoDeleteInYArea(CSSEMatrix* target, float minY, float maxY)
{
    envelopeInYArea<false>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, m_fScanConvResX, m_fScanConvResY,
                           m_fScanConvDiagonal, target, minY, maxY);
}

void CHTriangulation::ScanConvertTriangulationWithLimitedArea(CSSEMatrix* target, int sizeX, int sizeY, float offset,
                                                              SSEPoint* origin, bool top)
{
    if (sizeX <= 0 || sizeY <= 0 || m_iNumTriangles <= 0)
        return;
    const SSEPoint& o = origin != nullptr ? *origin : *m_pMinPoint;
    const ScanGrid grid{o.x, o.y, o.z, m_fScanConvResX, m_fScanConvResY, sizeX, sizeY};
    const float sentinel = sentinelOf(top);
    target->CreateNoClear(sizeX, sizeY);
    target->Fill(sentinel);
    if (top)
        sampleTriangles<true>(m_pTriangles, m_iNumTriangles, m_fScanConvDiagonal, 1.0f, grid, offset, *target,
                              AcceptAll{});
    else
        sampleTriangles<false>(m_pTriangles, m_iNumTriangles, m_fScanConvDiagonal, 1.0f, grid, offset, *target,
                               AcceptAll{});
    target->ReplaceValueWithValue(sentinel, 0.0f, c_fScanConvSentinelTolerance);
}

void CHTriangulation::ScanConvertThroughLineMax(CSSEMatrix* target, CSSE3dPolygon* line, float offset)
{
    if (scanConvertEnvelope<true>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, *m_pMaxPoint, m_fScanConvResX,
                                  m_fScanConvResY, m_fScanConvDiagonal, 1.0f, target, offset))
        keepInsideLine(*target, line, *m_pMinPoint, m_fScanConvResX, m_fScanConvResY);
}

void CHTriangulation::ScanConvertThroughLineMin(CSSEMatrix* target, CSSE3dPolygon* line, float offset)
{
    if (scanConvertEnvelope<false>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, *m_pMaxPoint, m_fScanConvResX,
                                   m_fScanConvResY, m_fScanConvDiagonal, 1.0f, target, offset))
        keepInsideLine(*target, line, *m_pMinPoint, m_fScanConvResX, m_fScanConvResY);
}

void CHTriangulation::FastScanConvertTriangulation(CSSEMatrix* target, float offset, bool top)
{
    if (top)
        fastEnvelope<true>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, *m_pMaxPoint, m_fScanConvResX,
                           m_fScanConvResY, target, offset);
    else
        fastEnvelope<false>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, *m_pMaxPoint, m_fScanConvResX,
                            m_fScanConvResY, target, offset);
}

void CHTriangulation::FastScanConvertTriangulation_MinMaxPoint(CSSEMatrix* target, float offset, SSEPoint& maxPoint,
                                                               SSEPoint& minPoint, bool top)
{
    if (top)
        fastEnvelope<true>(m_pTriangles, m_iNumTriangles, minPoint, maxPoint, m_fScanConvResX, m_fScanConvResY,
                           target, offset);
    else
        fastEnvelope<false>(m_pTriangles, m_iNumTriangles, minPoint, maxPoint, m_fScanConvResX, m_fScanConvResY,
                            target, offset);
}

void CHTriangulation::RefineScanConvImage(CSSEMatrix* target, float offset)
{
    refineImage<false>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, m_fScanConvResX, m_fScanConvResY,
                       m_fScanConvDiagonal, target, offset);
}

void CHTriangulation::RefineScanConvImageTop(CSSEMatrix* target, float offset)
{
    refineImage<true>(m_pTriangles, m_iNumTriangles, *m_pMinPoint, m_fScanConvResX, m_fScanConvResY,
                      m_fScanConvDiagonal, target, offset);
}
