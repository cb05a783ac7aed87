#include "demo/PlyWriter.h"

#include <array>
#include <bit>
#include <cstdint>
#include <cstring>
#include <fstream>
#include <stdexcept>
#include <string>
#include <unordered_map>
#include <vector>

#include "qzsse/mesh/CHTriangulation.h"

namespace qzsse::demo {
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

void putLittleEndian(std::vector<char>& out, std::uint32_t v)
{
    for (int i = 0; i < 4; ++i)
        out.push_back(static_cast<char>((v >> (8 * i)) & 0xFFu));
}

} // namespace

PlyCounts WriteMeshPly(const CHTriangulation& mesh, const std::filesystem::path& path)
{
    std::unordered_map<Key, std::int32_t, KeyHash> index;
    std::vector<Key> vertices;
    std::vector<std::int32_t> faces;
    const int triangles = mesh.GetNumTriangles();
    faces.reserve(static_cast<size_t>(triangles) * 3);
    for (int t = 0; t < triangles; ++t) {
        const t_htriangle* tri = mesh.GetTriangle(t);
        for (int k = 0; k < 3; ++k) {
            const SSEPoint& p = *tri->pPoint[k];
            const Key key{std::bit_cast<std::uint32_t>(p.x), std::bit_cast<std::uint32_t>(p.y), std::bit_cast<std::uint32_t>(p.z)};
            auto [it, added] = index.try_emplace(key, static_cast<std::int32_t>(vertices.size()));
            if (added)
                vertices.push_back(key);
            faces.push_back(it->second);
        }
    }

    const std::string header = "ply\nformat binary_little_endian 1.0\ncomment made by qzsse-demo\nelement vertex "
                               + std::to_string(vertices.size())
                               + "\nproperty float x\nproperty float y\nproperty float z\nelement face "
                               + std::to_string(triangles) + "\nproperty list uchar int vertex_indices\nend_header\n";
    std::vector<char> body;
    body.reserve(vertices.size() * 12 + static_cast<size_t>(triangles) * 13);
    for (const Key& v : vertices)
        for (const std::uint32_t bits : v)
            putLittleEndian(body, bits);
    for (int t = 0; t < triangles; ++t) {
        body.push_back(3);
        for (int k = 0; k < 3; ++k)
            putLittleEndian(body, static_cast<std::uint32_t>(faces[static_cast<size_t>(t) * 3 + static_cast<size_t>(k)]));
    }

    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(header.data(), static_cast<std::streamsize>(header.size()));
    out.write(body.data(), static_cast<std::streamsize>(body.size()));
    out.close();
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
    return {static_cast<long long>(vertices.size()), triangles};
}

} // namespace qzsse::demo
