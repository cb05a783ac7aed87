#include <cstring>
#include <string>
#include <vector>

#include "qzsse/base/CArchive.h"
#include "qzsse/base/CString.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinary.h"
#include "qzsse/base/RbStreamWriteBinary.h"
#include "qzsse/base/RyStreamReadBinaryFile.h"
#include "qzsse/base/RyStreamWriteBinaryFile.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/MeshInterchange.h"
#include "qzsse/storage/ReaderLimits.h"

namespace {

constexpr unsigned int c_uiStreamVersion = 1;
constexpr const char* c_szArchiveTag = "CHTriangulation";
// Seven points of three floats, the tag and three neighbour indices.
constexpr unsigned long long c_ullBytesPerTriangle = 7 * 12 + 4 + 3 * 4;

void writeXYZ(RbStreamWriteBinary& stream, const SSEPoint& p)
{
    stream.WriteFloat(p.x);
    stream.WriteFloat(p.y);
    stream.WriteFloat(p.z);
}

void readXYZ(RbStreamReadBinary& stream, float* out)
{
    for (int k = 0; k < 3; ++k)
        out[k] = stream.ReadFloat();
}

[[noreturn]] void refuse(const RbStreamReadBinary& stream, const std::string& what)
{
    throw RbStreamException("CHTriangulation: " + what + " at offset " + std::to_string(stream.GetOffset()));
}

} // namespace

void CHTriangulation::Serialize(RbStreamWriteBinary& stream) const
{
    stream.WriteVersion(c_uiStreamVersion);
    stream.WriteFloat(m_fScaleX);
    stream.WriteFloat(m_fScaleY);
    stream.WriteFloat(m_fScaleZ);
    stream.WriteFloat(m_fScanConvResX);
    stream.WriteFloat(m_fScanConvResY);
    stream.WriteFloat(m_fScanConvResZ);
    stream.WriteInt32(m_iNumTriangles);
    for (int i = 0; i < m_iNumTriangles; ++i) {
        const t_htriangle& t = m_pTriangles[i];
        for (int k = 0; k < 3; ++k)
            writeXYZ(stream, *t.pPoint[k]);
        for (int k = 0; k < 3; ++k)
            writeXYZ(stream, *t.pNormal[k]);
        writeXYZ(stream, *t.pMainNormal);
        stream.WriteInt32(t.iTag);
        for (int k = 0; k < 3; ++k)
            stream.WriteInt32(t.pNeighbour[k] ? static_cast<int>(t.pNeighbour[k] - m_pTriangles) : -1);
    }
    const SSEPoint zero{};
    for (int k = 0; k < 3; ++k)
        writeXYZ(stream, m_pMinPoint ? m_pMinPoint[k] : zero);
}

// Everything is read into plain arrays first, so a stream that fails part way leaves the mesh
// as it was.
void CHTriangulation::Serialize(RbStreamReadBinary& stream)
{
    // Version 1 is the first; 0 was never written.
    if (stream.ReadVersion(c_uiStreamVersion) < 1)
        refuse(stream, "version 0");
    float header[6];
    for (float& f : header)
        f = stream.ReadFloat();
    const int n = stream.ReadInt32();
    if (n < 0)
        refuse(stream, "negative triangle count " + std::to_string(n));
    const long long limit = static_cast<long long>(qzsse::GetReaderLimits().maxMeshTriangles);
    if (n > limit)
        refuse(stream, std::to_string(n) + " triangles exceed the reader limit of " + std::to_string(limit));
    const std::optional<unsigned long long> remaining = stream.GetBytesRemaining();
    if (remaining && static_cast<unsigned long long>(n) * c_ullBytesPerTriangle > *remaining)
        refuse(stream, std::to_string(n) + " triangles claimed but " + std::to_string(*remaining) + " bytes left");

    // Without a known remainder the arrays grow with what actually arrives.
    std::vector<float> points;     // 21 per triangle
    std::vector<int> tags;         // 4 per triangle: tag, three neighbours
    if (remaining) {
        points.reserve(21 * static_cast<size_t>(n));
        tags.reserve(4 * static_cast<size_t>(n));
    }
    for (int i = 0; i < n; ++i) {
        float p[21];
        for (int k = 0; k < 7; ++k)
            readXYZ(stream, p + 3 * k);
        points.insert(points.end(), p, p + 21);
        tags.push_back(stream.ReadInt32());
        for (int k = 0; k < 3; ++k) {
            const int neighbour = stream.ReadInt32();
            if (neighbour < -1 || neighbour >= n)
                refuse(stream, "neighbour " + std::to_string(neighbour) + " of triangle " + std::to_string(i)
                                   + " outside the " + std::to_string(n) + " triangles");
            tags.push_back(neighbour);
        }
    }
    float box[9];
    for (int k = 0; k < 3; ++k)
        readXYZ(stream, box + 3 * k);

    if (m_pMinPoint == nullptr)
        BaseInitialization(header[0], header[1], header[2]);
    CreateTriangulation(n);
    m_fScaleX = header[0];
    m_fScaleY = header[1];
    m_fScaleZ = header[2];
    SetScanConvResolution(header[3], header[4], header[5]);
    for (int i = 0; i < n; ++i) {
        t_htriangle& t = m_pTriangles[i];
        const float* p = &points[21 * static_cast<size_t>(i)];
        SSEPoint* targets[7] = {t.pPoint[0], t.pPoint[1], t.pPoint[2], t.pNormal[0], t.pNormal[1], t.pNormal[2],
                                t.pMainNormal};
        for (int k = 0; k < 7; ++k)
            targets[k]->m = _mm_setr_ps(p[3 * k], p[3 * k + 1], p[3 * k + 2], 0.0f);
        const int* q = &tags[4 * static_cast<size_t>(i)];
        t.iTag = q[0];
        for (int k = 0; k < 3; ++k)
            t.pNeighbour[k] = q[k + 1] >= 0 ? &m_pTriangles[q[k + 1]] : nullptr;
    }
    for (int k = 0; k < 3; ++k)
        m_pMinPoint[k].m = _mm_setr_ps(box[3 * k], box[3 * k + 1], box[3 * k + 2], 0.0f);
    CalcSTV();
}

void CHTriangulation::Serialize(CArchive& archive)
{
    if (archive.IsStoring()) {
        archive << CString(c_szArchiveTag);
        RyStreamWriteBinaryFile stream(archive);
        Serialize(stream);
        return;
    }
    CString tag;
    archive >> tag;
    if (!(tag == c_szArchiveTag))
        throw RbStreamException("CHTriangulation: the archive holds no mesh (no \"CHTriangulation\" tag)");
    RyStreamReadBinaryFile stream(archive);
    Serialize(stream);
}
