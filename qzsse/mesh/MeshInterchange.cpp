#include "qzsse/mesh/MeshInterchange.h"

#include <algorithm>
#include <array>
#include <bit>
#include <charconv>
#include <climits>
#include <cstdint>
#include <cmath>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <unordered_map>

#include "qzsse/base/RbStreamException.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/detail/FaceNormal.h"
#include "qzsse/mesh/detail/MeshFileReaders.h"
#include "qzsse/storage/ReaderLimits.h"

namespace qzsse {
namespace {

using Key = std::array<std::uint32_t, 3>;

struct KeyHash {
    size_t operator()(const Key& k) const
    {
        std::uint64_t h = 1469598103934665603ull;
        for (const std::uint32_t v : k)
            h = (h ^ v) * 1099511628211ull;
        return static_cast<size_t>(h);
    }
};

void requireFinite(const CHTriangulation& mesh)
{
    const SSEPoint* corners = mesh.GetEdgeArray();
    const long long n = 3LL * mesh.GetNumTriangles();
    for (long long i = 0; i < n; ++i)
        if (!std::isfinite(corners[i].x) || !std::isfinite(corners[i].y) || !std::isfinite(corners[i].z))
            throw std::invalid_argument("mesh export: corner " + std::to_string(i % 3) + " of triangle "
                                        + std::to_string(i / 3) + " is not finite");
}

void appendFloat(std::string& out, float v)
{
    char buffer[32];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
    out.append(buffer, result.ptr);
}

void appendInt(std::string& out, long long v)
{
    char buffer[24];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, v);
    out.append(buffer, result.ptr);
}

template <class T>
void appendLittleEndian(std::string& out, T value)
{
    static_assert(sizeof(T) == 4 || sizeof(T) == 2);
    using U = std::conditional_t<sizeof(T) == 4, std::uint32_t, std::uint16_t>;
    const U bits = std::bit_cast<U>(value);
    for (size_t i = 0; i < sizeof(T); ++i)
        out.push_back(static_cast<char>((bits >> (8 * i)) & 0xFFu));
}

// One line of the comment, as every format keeps comments to a line.
std::string oneLine(const std::string& comment)
{
    return comment.substr(0, comment.find_first_of("\r\n"));
}

std::string writePly(const IndexedMesh& m, bool binary, const std::string& comment)
{
    const size_t points = m.positions.size() / 3, triangles = m.indices.size() / 3;
    std::string out = binary ? "ply\nformat binary_little_endian 1.0\n" : "ply\nformat ascii 1.0\n";
    if (!comment.empty())
        out += "comment " + oneLine(comment) + "\n";
    out += "element vertex " + std::to_string(points)
           + "\nproperty float x\nproperty float y\nproperty float z\nelement face " + std::to_string(triangles)
           + "\nproperty list uchar int vertex_indices\nend_header\n";
    if (binary) {
        out.reserve(out.size() + points * 12 + triangles * 13);
        for (const float v : m.positions)
            appendLittleEndian(out, v);
        for (size_t t = 0; t < triangles; ++t) {
            out.push_back(3);
            for (size_t k = 0; k < 3; ++k)
                appendLittleEndian(out, m.indices[3 * t + k]);
        }
        return out;
    }
    for (size_t p = 0; p < points; ++p) {
        for (size_t k = 0; k < 3; ++k) {
            appendFloat(out, m.positions[3 * p + k]);
            out.push_back(k < 2 ? ' ' : '\n');
        }
    }
    for (size_t t = 0; t < triangles; ++t) {
        out += "3";
        for (size_t k = 0; k < 3; ++k) {
            out.push_back(' ');
            appendInt(out, m.indices[3 * t + k]);
        }
        out.push_back('\n');
    }
    return out;
}

std::string writeObj(const IndexedMesh& m, const std::string& comment)
{
    std::string out;
    if (!comment.empty())
        out += "# " + oneLine(comment) + "\n";
    for (size_t p = 0; p < m.positions.size(); p += 3) {
        out += "v";
        for (size_t k = 0; k < 3; ++k) {
            out.push_back(' ');
            appendFloat(out, m.positions[p + k]);
        }
        out.push_back('\n');
    }
    for (size_t t = 0; t < m.indices.size(); t += 3) {
        out += "f";
        for (size_t k = 0; k < 3; ++k) {
            out.push_back(' ');
            appendInt(out, static_cast<long long>(m.indices[t + k]) + 1);
        }
        out.push_back('\n');
    }
    return out;
}

std::string writeStl(const CHTriangulation& mesh, bool binary, const std::string& comment)
{
    const int triangles = mesh.GetNumTriangles();
    std::string out;
    if (binary) {
        // The header must not start with "solid", or readers take the file for ASCII.
        std::string header = oneLine(comment).substr(0, 80);
        if (header.rfind("solid", 0) == 0)
            header[0] = 'S';
        header.resize(80, '\0');
        out = header;
        out.reserve(84 + 50 * static_cast<size_t>(triangles));
        appendLittleEndian(out, static_cast<std::uint32_t>(triangles));
        for (int t = 0; t < triangles; ++t) {
            const t_htriangle* r = mesh.GetTriangle(t);
            const SSEPoint* points[4] = {r->pMainNormal, r->pPoint[0], r->pPoint[1], r->pPoint[2]};
            for (const SSEPoint* p : points) {
                appendLittleEndian(out, p->x);
                appendLittleEndian(out, p->y);
                appendLittleEndian(out, p->z);
            }
            appendLittleEndian(out, static_cast<std::uint16_t>(0));
        }
        return out;
    }
    const std::string name = oneLine(comment);
    out = "solid " + name + "\n";
    for (int t = 0; t < triangles; ++t) {
        const t_htriangle* r = mesh.GetTriangle(t);
        auto put = [&out](const SSEPoint& p) {
            appendFloat(out, p.x);
            out.push_back(' ');
            appendFloat(out, p.y);
            out.push_back(' ');
            appendFloat(out, p.z);
            out.push_back('\n');
        };
        out += "facet normal ";
        put(*r->pMainNormal);
        out += "outer loop\n";
        for (int k = 0; k < 3; ++k) {
            out += "vertex ";
            put(*r->pPoint[k]);
        }
        out += "endloop\nendfacet\n";
    }
    out += "endsolid " + name + "\n";
    return out;
}

} // namespace

IndexedMesh ToIndexedMesh(const CHTriangulation& mesh)
{
    IndexedMesh out;
    const int triangles = mesh.GetNumTriangles();
    std::unordered_map<Key, std::int32_t, KeyHash> index;
    out.indices.reserve(3 * static_cast<size_t>(triangles));
    for (int t = 0; t < triangles; ++t) {
        const t_htriangle* r = mesh.GetTriangle(t);
        for (int k = 0; k < 3; ++k) {
            const SSEPoint& p = *r->pPoint[k];
            const Key key{std::bit_cast<std::uint32_t>(p.x), std::bit_cast<std::uint32_t>(p.y),
                          std::bit_cast<std::uint32_t>(p.z)};
            const auto [it, added] = index.try_emplace(key, static_cast<std::int32_t>(out.positions.size() / 3));
            if (added)
                out.positions.insert(out.positions.end(), {p.x, p.y, p.z});
            out.indices.push_back(it->second);
        }
    }
    return out;
}

void FromIndexedMesh(const IndexedMesh& indexed, CHTriangulation& mesh)
{
    if (indexed.positions.size() % 3 != 0 || indexed.indices.size() % 3 != 0)
        throw std::invalid_argument("FromIndexedMesh: " + std::to_string(indexed.positions.size()) + " coordinates and "
                                    + std::to_string(indexed.indices.size())
                                    + " indices; both must be multiples of 3");
    const size_t points = indexed.positions.size() / 3;
    const size_t triangles = indexed.indices.size() / 3;
    if (triangles > static_cast<size_t>(INT32_MAX))
        throw std::invalid_argument("FromIndexedMesh: more triangles than a mesh holds");
    for (size_t i = 0; i < indexed.indices.size(); ++i)
        if (indexed.indices[i] < 0 || static_cast<size_t>(indexed.indices[i]) >= points)
            throw std::invalid_argument("FromIndexedMesh: index " + std::to_string(indexed.indices[i]) + " of triangle "
                                        + std::to_string(i / 3) + " is outside the " + std::to_string(points)
                                        + " points");

    if (mesh.GetPointArray() == nullptr)
        mesh.BaseInitialization(1.0f, 1.0f, 1.0f);
    mesh.CreateTriangulation(static_cast<int>(triangles));
    t_htriangle* records = mesh.GetTriangles();
    for (size_t t = 0; t < triangles; ++t) {
        t_htriangle& r = records[t];
        for (int k = 0; k < 3; ++k) {
            const float* p = &indexed.positions[3 * static_cast<size_t>(indexed.indices[3 * t + k])];
            r.pPoint[k]->m = _mm_setr_ps(p[0], p[1], p[2], 0.0f);
        }
        detail::SetFaceNormalEverywhere(r);
    }
    mesh.CalcSTV();
    mesh.CalcBoundingBox();
    if (triangles > 0)
        mesh.CalcCenterPoint();
}

std::string WriteMeshToString(const CHTriangulation& mesh, MeshFileFormat format, const std::string& comment)
{
    requireFinite(mesh);
    switch (format) {
    case MeshFileFormat::PlyBinary:
        return writePly(ToIndexedMesh(mesh), true, comment);
    case MeshFileFormat::PlyAscii:
        return writePly(ToIndexedMesh(mesh), false, comment);
    case MeshFileFormat::StlBinary:
        return writeStl(mesh, true, comment);
    case MeshFileFormat::StlAscii:
        return writeStl(mesh, false, comment);
    case MeshFileFormat::Obj:
        return writeObj(ToIndexedMesh(mesh), comment);
    }
    throw std::invalid_argument("WriteMeshToString: unknown format");
}

MeshFileCounts WriteMeshFile(const CHTriangulation& mesh, const std::filesystem::path& path, MeshFileFormat format,
                             const std::string& comment)
{
    requireFinite(mesh);
    MeshFileCounts counts;
    counts.triangles = mesh.GetNumTriangles();
    std::string bytes;
    if (format == MeshFileFormat::StlBinary || format == MeshFileFormat::StlAscii) {
        bytes = writeStl(mesh, format == MeshFileFormat::StlBinary, comment);
        counts.vertices = 3 * counts.triangles;
    } else {
        const IndexedMesh indexed = ToIndexedMesh(mesh);
        counts.vertices = static_cast<long long>(indexed.positions.size() / 3);
        bytes = format == MeshFileFormat::Obj ? writeObj(indexed, comment)
                                              : writePly(indexed, format == MeshFileFormat::PlyBinary, comment);
    }
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
    return counts;
}

void ReadMeshFromMemory(const void* data, size_t size, MeshFileFormat format, CHTriangulation& mesh)
{
    const detail::MeshBytes bytes{static_cast<const unsigned char*>(data), size};
    const auto limit = static_cast<long long>(GetReaderLimits().maxMeshTriangles);
    IndexedMesh indexed;
    switch (format) {
    case MeshFileFormat::PlyBinary:
    case MeshFileFormat::PlyAscii:
        indexed = detail::ReadPly(bytes, limit);
        break;
    case MeshFileFormat::StlBinary:
    case MeshFileFormat::StlAscii:
        indexed = detail::ReadStl(bytes, limit);
        break;
    case MeshFileFormat::Obj:
        indexed = detail::ReadObj(bytes, limit);
        break;
    }
    FromIndexedMesh(indexed, mesh);
}

void ReadMeshFile(const std::filesystem::path& path, MeshFileFormat format, CHTriangulation& mesh)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw RbStreamException("mesh reader: cannot open " + path.string());
    std::string bytes((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (in.bad())
        throw RbStreamException("mesh reader: cannot read " + path.string());
    ReadMeshFromMemory(bytes.data(), bytes.size(), format, mesh);
}

} // namespace qzsse
