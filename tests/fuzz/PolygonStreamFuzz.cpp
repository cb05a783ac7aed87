// The polygon stream read from memory.

#include "fuzz/FuzzSupport.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    RbStreamReadBinaryBuffer stream(data, size);
    CSSE3dPolygon polygon;
    try {
        polygon.Serialize(stream);
        polygon.CalcBoundingBox();
    } catch (const RbStreamException&) {
    }
    return 0;
}
