#pragma once

// The readers of PLY, STL and OBJ bytes behind ReadMeshFromMemory. Each returns the file's
// points and triangles (polygons split into fans) or throws RbStreamException; nothing is
// allocated beyond what the bytes read so far or the counts checked against the remaining
// bytes justify, and never beyond maxTriangles triangles and 3 * maxTriangles points.

#include <cstddef>

#include "qzsse/mesh/MeshInterchange.h"

namespace qzsse::detail {

struct MeshBytes {
    const unsigned char* data;
    size_t size;
};

IndexedMesh ReadPly(const MeshBytes& bytes, long long maxTriangles);
IndexedMesh ReadStl(const MeshBytes& bytes, long long maxTriangles);
IndexedMesh ReadObj(const MeshBytes& bytes, long long maxTriangles);

} // namespace qzsse::detail
