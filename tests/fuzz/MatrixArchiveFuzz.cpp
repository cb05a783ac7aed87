// The matrix archive (tagged or early untagged form) read from a file.

#include "fuzz/FuzzSupport.h"
#include "qzsse/base/CFile.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/matrix/CSSEMatrix.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qzsse::fuzz::UseFuzzLimits();
    const std::string path = qzsse::fuzz::WriteScratchFile(data, size, ".ssem");
    CSSEMatrix matrix;
    try {
        matrix.Load(CString(path));
    } catch (const RbStreamException&) {
    }
    return 0;
}
