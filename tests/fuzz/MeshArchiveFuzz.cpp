// The mesh archive read from a file.

#include "fuzz/FuzzSupport.h"
#include "fuzz/MeshLimits.h"
#include "qzsse/base/CArchive.h"
#include "qzsse/base/CFile.h"
#include "qzsse/mesh/CHTriangulation.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qzsse::fuzz::UseMeshFuzzLimits();
    const std::string path = qzsse::fuzz::WriteScratchFile(data, size, ".mesh");
    CFile file;
    if (!file.Open(CString(path), CFile::modeRead))
        __builtin_trap();
    CHTriangulation mesh;
    try {
        CArchive archive(&file, CArchive::load);
        mesh.Serialize(archive);
        mesh.CalcNeighbours();
    } catch (const RbStreamException&) {
    }
    return 0;
}
