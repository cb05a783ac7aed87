// The matrix stream read from memory.

#include "fuzz/FuzzSupport.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/matrix/CSSEMatrix.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qzsse::fuzz::UseFuzzLimits();
    RbStreamReadBinaryBuffer stream(data, size);
    CSSEMatrix matrix;
    try {
        matrix.Serialize(stream);
    } catch (const RbStreamException&) {
    }
    return 0;
}
