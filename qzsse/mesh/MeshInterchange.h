#pragma once

// Meshes in the forms other mesh software exchanges: an indexed mesh (shared corner points
// and triangles of three indices) and the files mesh tools open (PLY binary and ASCII, STL
// binary and ASCII, OBJ). Plus the bound on what the mesh readers of untrusted bytes may
// allocate, for these files and for the mesh stream and archive.

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

class CHTriangulation;

namespace qzsse {

struct IndexedMesh {
    std::vector<float> positions;      // x, y, z of each corner point
    std::vector<std::int32_t> indices; // three per triangle, numbering the points from 0
};

// Corners whose x, y and z are bit-for-bit equal become one point (so -0.0 and +0.0 stay
// apart), numbered in order of first use; triangles keep the record order and corner order.
IndexedMesh ToIndexedMesh(const CHTriangulation& mesh);
// Replaces mesh's records by one per triangle (w 0); the three vertex normals and the face
// normal are the unit normal of the corner order (right hand; zero without area). S, T, V,
// bounding box and centre are computed; neighbours are not. Scales stay, or are 1 for a mesh
// never initialised. Sizes not a multiple of 3 or an index outside the points throw
// std::invalid_argument before mesh changes.
void FromIndexedMesh(const IndexedMesh& indexed, CHTriangulation& mesh);

enum class MeshFileFormat {
    PlyBinary, // little-endian: vertex float x y z, face list uchar int vertex_indices
    PlyAscii,
    StlBinary, // facet normal = the record's face normal
    StlAscii,
    Obj,       // "v x y z" and "f a b c" (1-based) lines
};

struct MeshFileCounts {
    long long vertices = 0; // points written (STL: three per triangle)
    long long triangles = 0;
};

// Writers: the corners are shared as by ToIndexedMesh in PLY and OBJ; floats are written
// exactly (ASCII forms: the shortest decimal that reads back to the same float). A non-empty
// comment becomes a PLY comment line, an OBJ '#' line or the STL header or solid name (80
// bytes at most, one line). A corner that is not finite throws std::invalid_argument: mesh
// tools cannot read it.
std::string WriteMeshToString(const CHTriangulation& mesh, MeshFileFormat format, const std::string& comment = {});
// Throws std::runtime_error naming the path when the file cannot be written.
MeshFileCounts WriteMeshFile(const CHTriangulation& mesh, const std::filesystem::path& path, MeshFileFormat format,
                             const std::string& comment = {});

// Readers of untrusted bytes. Either PLY form reads PLY in ASCII, binary little- or
// big-endian (vertex x, y, z of any scalar type, other properties and elements skipped,
// faces from the list vertex_indices or vertex_index); either STL form reads binary or ASCII
// STL (binary when the size is exactly 84 + 50 n for the stored n); OBJ reads "v" and "f"
// lines (v/vt/vn and negative indices allowed) and ignores the rest. Polygons of more than
// three corners are split into a fan from their first corner. The mesh is made as by
// FromIndexedMesh, file normals are not used. A count beyond what the remaining bytes can
// hold or beyond GetReaderLimits().maxMeshTriangles (qzsse/storage/ReaderLimits.h), a bad index, a non-finite coordinate or a truncated
// or malformed file throws RbStreamException naming what and where, before mesh changes.
void ReadMeshFromMemory(const void* data, size_t size, MeshFileFormat format, CHTriangulation& mesh);
// Also throws RbStreamException when the file cannot be opened.
void ReadMeshFile(const std::filesystem::path& path, MeshFileFormat format, CHTriangulation& mesh);

} // namespace qzsse
