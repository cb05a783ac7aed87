// The matrix stream wrapped for archives and files: a type tag in front, and a fallback
// for the untagged, unversioned files of the early format.

#include "qzsse/base/CArchive.h"
#include "qzsse/base/CFile.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RyStreamReadBinaryFile.h"
#include "qzsse/base/RyStreamWriteBinaryFile.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/storage/detail/AtomicFileReplace.h"

namespace qzsse::detail {
namespace {

constexpr const char* kArchiveTag = "CSSEMatrix";
constexpr int kArchiveBufferSize = 4096;

// Reads one archive string as the tag. Untagged data starts with the width, which the
// string reader may take for a length longer than the file: that is no tag either.
bool readArchiveTag(CArchive& archive)
{
    try {
        CString tag;
        archive >> tag;
        return tag == kArchiveTag;
    } catch (const RbStreamException&) {
        return false;
    }
}

} // namespace
} // namespace qzsse::detail

void CSSEMatrix::Serialize(CArchive& archive)
{
    if (archive.IsStoring()) {
        archive << CString(qzsse::detail::kArchiveTag);
        RyStreamWriteBinaryFile stream(archive);
        Serialize(stream);
        return;
    }

    archive.Flush();
    CFile* file = archive.GetFile();
    const unsigned long long start = file->GetPosition();
    if (qzsse::detail::readArchiveTag(archive)) {
        RyStreamReadBinaryFile stream(archive);
        Serialize(stream);
        return;
    }
    archive.Flush();
    file->Seek(static_cast<long long>(start), CFile::begin);
    RyStreamReadBinaryFile stream(archive);
    serialize(stream, 1);
}

bool CSSEMatrix::Store(CString path)
{
    return qzsse::detail::AtomicFileReplace(path, [this](CFile& file) {
        CArchive archive(&file, CArchive::store, qzsse::detail::kArchiveBufferSize);
        Serialize(archive);
        archive.Close();
    });
}

bool CSSEMatrix::Load(CString path)
{
    CFile file;
    if (!file.Open(path, CFile::modeRead))
        return false;
    CArchive archive(&file, CArchive::load, qzsse::detail::kArchiveBufferSize);
    Serialize(archive);
    archive.Close();
    file.Close();
    return true;
}
