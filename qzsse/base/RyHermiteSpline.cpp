#include "qzsse/base/RyHermiteSpline.h"

#include <cmath>

RyHermiteSpline::RyHermiteSpline(bool closed, float segmentLength)
    : m_closed(closed), m_segmentLength(segmentLength)
{
}

void RyHermiteSpline::AddControlPoint(const RbVector3f& p) { m_controlPoints.push_back(p); }

int RyHermiteSpline::numSegments() const
{
    const int m = GetNumControlPoints();
    if (m < 2)
        return 0;
    return m_closed ? m : m - 1;
}

// Catmull-Rom: half the difference of the neighbours; an open end uses its one neighbour.
RbVector3f RyHermiteSpline::tangent(int i) const
{
    const int m = GetNumControlPoints();
    if (m_closed)
        return (m_controlPoints[static_cast<size_t>((i + 1) % m)]
                - m_controlPoints[static_cast<size_t>((i + m - 1) % m)])
               * 0.5f;
    if (i == 0)
        return m_controlPoints[1] - m_controlPoints[0];
    if (i == m - 1)
        return m_controlPoints[static_cast<size_t>(m - 1)] - m_controlPoints[static_cast<size_t>(m - 2)];
    return (m_controlPoints[static_cast<size_t>(i + 1)] - m_controlPoints[static_cast<size_t>(i - 1)]) * 0.5f;
}

RbVector3f RyHermiteSpline::Evaluate(int segment, float t) const
{
    const int m = GetNumControlPoints();
    const int i0 = segment;
    const int i1 = (segment + 1) % m;
    const float t2 = t * t;
    const float t3 = t2 * t;
    const float h00 = 2.0f * t3 - 3.0f * t2 + 1.0f;
    const float h10 = t3 - 2.0f * t2 + t;
    const float h01 = -2.0f * t3 + 3.0f * t2;
    const float h11 = t3 - t2;
    return m_controlPoints[static_cast<size_t>(i0)] * h00 + tangent(i0) * h10
           + m_controlPoints[static_cast<size_t>(i1)] * h01 + tangent(i1) * h11;
}

void RyHermiteSpline::SubdivideByLength()
{
    RbSmartPtr<RyPolyLineOld> line(new RyPolyLineOld());
    const int m = GetNumControlPoints();
    const int segments = numSegments();
    for (int s = 0; s < segments; ++s) {
        const float chord = (m_controlPoints[static_cast<size_t>((s + 1) % m)]
                             - m_controlPoints[static_cast<size_t>(s)])
                                .Length();
        int pieces = 1;
        if (m_segmentLength > 0.0f) {
            // The cap keeps a tiny length setting from overflowing the piece count; NaN gives 1.
            const float wanted = std::ceil(chord / m_segmentLength);
            pieces = wanted >= 1048576.0f ? 1048576 : (wanted >= 1.0f ? static_cast<int>(wanted) : 1);
        }
        line->AppendVertexTail(m_controlPoints[static_cast<size_t>(s)]);
        for (int j = 1; j < pieces; ++j)
            line->AppendVertexTail(Evaluate(s, static_cast<float>(j) / static_cast<float>(pieces)));
    }
    if (m > 0)
        line->AppendVertexTail(m_closed && m > 1 ? m_controlPoints[0] : m_controlPoints[static_cast<size_t>(m - 1)]);
    line->Finish();
    m_subdivision = line;
}
