// The polygon archive read from a file.

#include "fuzz/FuzzSupport.h"
#include "qzsse/base/CArchive.h"
#include "qzsse/base/CFile.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const std::string path = qzsse::fuzz::WriteScratchFile(data, size, ".poly");
    CFile file;
    if (!file.Open(CString(path), CFile::modeRead))
        __builtin_trap();
    CSSE3dPolygon polygon;
    try {
        CArchive archive(&file, CArchive::load);
        polygon.Serialize(archive);
        polygon.CalcBoundingBox();
    } catch (const RbStreamException&) {
    }
    return 0;
}
