#pragma once

#include <vector>

#include "qzsse/base/RbReferenceCounted.h"
#include "qzsse/base/RbVector3f.h"
#include "qzsse/base/RyPolyLineOld.h"

// Cubic Hermite spline through control points with Catmull-Rom tangents (half the
// difference of the two neighbours; one-sided differences at the ends of an open spline).
// SubdivideByLength turns it into a polyline whose pieces are no longer than, in chord
// length, the segment length setting.
class RyHermiteSpline : public RbReferenceCounted {
public:
    explicit RyHermiteSpline(bool closed = false, float segmentLength = 1.0f);

    void AddControlPoint(const RbVector3f& p);
    int GetNumControlPoints() const { return static_cast<int>(m_controlPoints.size()); }
    const RbVector3f& GetControlPoint(int i) const { return m_controlPoints[static_cast<size_t>(i)]; }

    bool IsClosed() const { return m_closed; }
    void SetClosed(bool closed) { m_closed = closed; }
    float GetSegmentLength() const { return m_segmentLength; }
    void SetSegmentLength(float length) { m_segmentLength = length; }

    // Point on segment i (control point i to i + 1, wrapping when closed) at t in [0, 1].
    RbVector3f Evaluate(int segment, float t) const;

    // Splits segment i into k = max(1, ceil(chord length / segment length)) pieces of equal
    // parameter step, samples t = j / k for j = 0 .. k - 1, and ends with the last control
    // point (open) or the first one again (closed, so the result repeats its start).
    // A segment length <= 0 samples control points only. The result replaces the last one.
    void SubdivideByLength();
    RbSmartPtr<RyPolyLineOld> GetSubdivision() const { return m_subdivision; }

private:
    RbVector3f tangent(int i) const;
    int numSegments() const;

    std::vector<RbVector3f> m_controlPoints;
    bool m_closed;
    float m_segmentLength;
    RbSmartPtr<RyPolyLineOld> m_subdivision;
};
