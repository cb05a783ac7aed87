#pragma once

// Binary little-endian PLY of a triangle mesh: vertex x y z (float), face vertex_indices
// (uchar count, int indices), the layout mesh viewers open directly. Corners the mesh
// stores once per triangle are merged when their coordinates are bit-for-bit equal.

#include <filesystem>

class CHTriangulation;

namespace qzsse::demo {

struct PlyCounts {
    long long vertices = 0;
    long long faces = 0;
};

// Throws std::runtime_error when the file cannot be written.
PlyCounts WriteMeshPly(const CHTriangulation& mesh, const std::filesystem::path& path);

} // namespace qzsse::demo
