#include <cstdint>
#include <string>
#include <vector>

#include "qzsse/base/CArchive.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinary.h"
#include "qzsse/base/RbStreamWriteBinary.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

namespace {

constexpr unsigned int c_uiStreamVersion = 2;
constexpr unsigned long long c_uiArchiveGroupBytes = 48; // four X, four Y, four Z

// Reads count floats one by one into a vector that grows with what actually arrives, so
// a corrupt count fails at the end of the data instead of allocating for it up front.
void readFloats(RbStreamReadBinary& stream, std::vector<float>& out, long long count)
{
    for (long long k = 0; k < count; ++k)
        out.push_back(stream.ReadFloat());
}

void readPoint(RbStreamReadBinary& stream, SSEPoint& p)
{
    const float x = stream.ReadFloat();
    const float y = stream.ReadFloat();
    const float z = stream.ReadFloat();
    p.x = x;
    p.y = y;
    p.z = z;
    p.w = 0.0f;
}

void writePoint(RbStreamWriteBinary& stream, const SSEPoint& p)
{
    stream.WriteFloat(p.x);
    stream.WriteFloat(p.y);
    stream.WriteFloat(p.z);
}

} // namespace

// Archive form: n, then per group of four points their X, Y and Z lanes, padding included.
void CSSE3dPolygon::Serialize(CArchive& ar)
{
    if (ar.IsStoring()) {
        ar << static_cast<std::int32_t>(m_nNumPoints);
        const int groups = (m_nNumPoints + 3) / 4;
        for (int g = 0; g < groups; ++g) {
            const float* lanes[3] = {m_pX + 4 * g, m_pY + 4 * g, m_pZ + 4 * g};
            for (const float* lane : lanes)
                for (int k = 0; k < 4; ++k)
                    ar << lane[k];
        }
        return;
    }

    Free();
    std::int32_t n = 0;
    ar >> n;
    const unsigned long long groups = n > 0 ? (static_cast<unsigned long long>(n) + 3) / 4 : 0;
    if (n < 0 || groups * c_uiArchiveGroupBytes > ar.GetBytesRemaining())
        throw RbStreamException("CSSE3dPolygon: archive claims " + std::to_string(n) + " points but holds "
                                + std::to_string(ar.GetBytesRemaining()) + " bytes of them");
    Create(n);
    for (unsigned long long g = 0; g < groups; ++g) {
        float* lanes[3] = {m_pX + 4 * g, m_pY + 4 * g, m_pZ + 4 * g};
        for (float* lane : lanes)
            for (int k = 0; k < 4; ++k)
                ar >> lane[k];
    }
    // Files of this format are read back with the last point replaced by its predecessor.
    // A single point has no predecessor and keeps what was read.
    float x = 0.0f, y = 0.0f, z = 0.0f;
    GetPoint(n - 1, x, y, z);
    GetPoint(n - 2, x, y, z);
    SetPoint(n - 1, x, y, z);
    m_bBoundingBoxCalculated = false;
}

void CSSE3dPolygon::Serialize(RbStreamWriteBinary& stream) const
{
    stream.WriteVersion(c_uiStreamVersion);
    stream.WriteInt32(m_nNumPoints);
    for (int i = 0; i < m_nNumPoints; ++i) {
        stream.WriteFloat(m_pX[i]);
        stream.WriteFloat(m_pY[i]);
        stream.WriteFloat(m_pZ[i]);
    }
    for (int i = 0; i < m_nNumPoints; ++i) {
        stream.WriteFloat(m_pXNorm[i]);
        stream.WriteFloat(m_pYNorm[i]);
        stream.WriteFloat(m_pZNorm[i]);
    }
    writePoint(stream, *m_pGeometricCenter);
    stream.WriteBool(m_bBoundingBoxCalculated);
    if (m_bBoundingBoxCalculated) {
        writePoint(stream, *m_pBottomLeft);
        writePoint(stream, *m_pTopRight);
        writePoint(stream, *m_pTopRight2D);
        writePoint(stream, *m_pBottomLeft2D);
    }
}

// Version 1 holds n and the points; version 2 adds the normalized points, the centre, the
// flag and, when the flag is set, the box. Everything is read before the object changes,
// so a stream that fails part way leaves the polygon as it was.
void CSSE3dPolygon::Serialize(RbStreamReadBinary& stream)
{
    const unsigned int version = stream.ReadVersion(c_uiStreamVersion);
    int n = 0;
    if (version >= 1)
        n = stream.ReadInt32();
    if (n < 0)
        throw RbStreamException("CSSE3dPolygon: negative point count " + std::to_string(n) + " in stream");

    std::vector<float> points;
    std::vector<float> normalized;
    readFloats(stream, points, 3LL * n);
    SSEPoint center{};
    SSEPoint box[4] = {};
    bool boxCalculated = false;
    if (version >= 2) {
        readFloats(stream, normalized, 3LL * n);
        readPoint(stream, center);
        boxCalculated = stream.ReadBool();
        if (boxCalculated)
            for (SSEPoint& p : box)
                readPoint(stream, p);
    }

    Create(n);
    for (int i = 0; i < n; ++i) {
        const size_t k = 3 * static_cast<size_t>(i);
        SetPoint(i, points[k], points[k + 1], points[k + 2]);
        if (version >= 2)
            SetPointNormalized(i, normalized[k], normalized[k + 1], normalized[k + 2]);
        else
            SetPointNormalized(i, 0.0f, 0.0f, 0.0f);
    }
    *m_pGeometricCenter = center;
    m_bBoundingBoxCalculated = boxCalculated;
    if (boxCalculated) {
        *m_pBottomLeft = box[0];
        *m_pTopRight = box[1];
        *m_pTopRight2D = box[2];
        *m_pBottomLeft2D = box[3];
    }
}
