// The PLY, STL and OBJ readers from memory: the first byte chooses the reader, the rest is the
// file. What is read must write back (its corners are finite).

#include "fuzz/FuzzSupport.h"
#include "fuzz/MeshLimits.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/MeshInterchange.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    using namespace qzsse;
    fuzz::UseMeshFuzzLimits();
    if (size == 0)
        return 0;
    const MeshFileFormat formats[] = {MeshFileFormat::PlyBinary, MeshFileFormat::StlBinary, MeshFileFormat::Obj};
    const MeshFileFormat format = formats[data[0] % 3];
    CHTriangulation mesh;
    try {
        ReadMeshFromMemory(data + 1, size - 1, format, mesh);
    } catch (const RbStreamException&) {
        return 0;
    }
    (void)WriteMeshToString(mesh, format);
    return 0;
}
