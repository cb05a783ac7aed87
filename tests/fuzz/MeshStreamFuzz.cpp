// The mesh stream read from memory.

#include "fuzz/FuzzSupport.h"
#include "fuzz/MeshLimits.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/mesh/CHTriangulation.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qzsse::fuzz::UseMeshFuzzLimits();
    RbStreamReadBinaryBuffer stream(data, size);
    CHTriangulation mesh;
    try {
        mesh.Serialize(stream);
        mesh.CalcNeighbours();
        mesh.CalcBoundingBox();
    } catch (const RbStreamException&) {
    }
    return 0;
}
