// The store file: the position map, then every entry, references included.

#include "fuzz/FuzzSupport.h"
#include "qzsse/base/CFile.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/storage/QzCSSEMatrixLibrary.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qzsse::fuzz::UseFuzzLimits();
    const std::string path = qzsse::fuzz::WriteScratchFile(data, size, ".sselib");
    QzCSSEMatrixLibrary library;
    try {
        if (!library.Init(CString(path)))
            return 0;
        const RbArray<CString> ids = library.GetIDs();
        for (std::ptrdiff_t i = 0; i < ids.GetSize(); ++i) {
            CSSEMatrix matrix;
            library.LoadSSEMatrix(ids[i], matrix);
        }
    } catch (const RbStreamException&) {
    } catch (const CFileException&) {
    }
    return 0;
}
