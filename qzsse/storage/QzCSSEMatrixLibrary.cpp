#include "qzsse/storage/QzCSSEMatrixLibrary.h"

#include <exception>
#include <string>

#include "qzsse/base/CArchive.h"
#include "qzsse/base/QzCDirectory.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/base/RyStreamReadBinaryFile.h"
#include "qzsse/base/RyStreamWriteBinaryFile.h"
#include "qzsse/storage/detail/AtomicFileReplace.h"

namespace qzsse::detail {
namespace {

const CString kStoreMagic = "SSEMatrixLibrary";
constexpr int kArchiveBufferSize = 4096;

// Thrown inside the atomic write to abandon it when an entry cannot be loaded or written.
struct StoreAbandoned {};

// One level of loadSSEMatrix nesting, for as long as it lives.
class NestingLevel {
public:
    explicit NestingLevel(int& depth) : m_depth(depth) { ++m_depth; }
    ~NestingLevel() { --m_depth; }
    NestingLevel(const NestingLevel&) = delete;
    NestingLevel& operator=(const NestingLevel&) = delete;

private:
    int& m_depth;
};

// Smallest position-map record of a version: id length, position, reference length.
unsigned long long MinimumRecordSize(unsigned int version)
{
    return 4 + (version >= 1 ? 8 : 0) + (version >= 2 ? 4 : 0);
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

QzCSSEMatrixLibrary::QzCSSEMatrixLibrary() = default;

QzCSSEMatrixLibrary::~QzCSSEMatrixLibrary() = default;

bool QzCSSEMatrixLibrary::Init(const CString& path)
{
    if (!m_File.Open(path, CFile::modeRead | CFile::shareDenyWrite | CFile::osRandomAccess))
        return false;
    CArchive archive(&m_File, CArchive::load, kArchiveBufferSize);
    RyStreamReadBinaryFile stream(archive);
    // A file too short for the magic, or with an absurd length in its place, is simply not
    // a store file.
    CString magic;
    try {
        magic = stream.ReadString();
    } catch (const RbStreamException&) {
        return false;
    }
    if (magic != kStoreMagic)
        return false;
    m_uiStoreVersion = stream.ReadVersion(c_uiStoreVersion);
    serializePositionMap(stream, m_uiStoreVersion);
    return true;
}

bool QzCSSEMatrixLibrary::AddSSEMatrix(const CString& id, const CString& path, const CString& referenceId,
                                       const QzSCompressionParameters& params)
{
    if (m_PositionMap.PLookup(id) != nullptr)
        return false;
    if (!QzCDirectory::FileExist(path))
        return false;
    if (!referenceId.empty() && m_PositionMap.PLookup(referenceId) == nullptr)
        return false;
    SFileInfo entry;
    entry.m_iPosition = -1;
    entry.m_strPath = path;
    entry.m_strReferenceId = referenceId;
    entry.m_bHasOwnParameters = true;
    entry.m_Parameters = params;
    m_PositionMap.SetAt(id, entry);
    return true;
}

bool QzCSSEMatrixLibrary::AddSSEMatrix(const CString& id, const CString& path,
                                       const CSSEMatrix::QzSCompressionParameters& params)
{
    return AddSSEMatrix(id, path, CString(), QzSCompressionParameters(params));
}

bool QzCSSEMatrixLibrary::AddSSEMatrix(const CString& id, const CString& path)
{
    return AddSSEMatrix(id, path, static_cast<const CSSEMatrix::QzSCompressionParameters&>(m_DefaultParameters));
}

bool QzCSSEMatrixLibrary::LoadSSEMatrix(const CString& id, CSSEMatrix& matrix)
{
    return loadSSEMatrix(id, matrix, false);
}

RbArray<CString> QzCSSEMatrixLibrary::GetIDs() const
{
    RbArray<CString> ids;
    for (const auto& entry : m_PositionMap)
        ids.Add(entry.first);
    return ids;
}

unsigned int QzCSSEMatrixLibrary::GetNumberOfEntries() const
{
    return static_cast<unsigned int>(m_PositionMap.GetCount());
}

const QzCSSEMatrixLibrary::QzSCompressionParameters& QzCSSEMatrixLibrary::GetDefaultCompressionParameters() const
{
    return m_DefaultParameters;
}

void QzCSSEMatrixLibrary::SetDefaultCompressionParameters(const QzSCompressionParameters& params)
{
    m_DefaultParameters = params;
}

float QzCSSEMatrixLibrary::GetMaxAbsCompressionError() const
{
    return m_fMaxAbsCompressionError;
}

bool QzCSSEMatrixLibrary::Store(const CString& path) const
{
    auto write = [this](CFile& file) {
        CArchive archive(&file, CArchive::store, kArchiveBufferSize);
        RyStreamWriteBinaryFile stream(archive);
        stream.WriteString(kStoreMagic);
        stream.WriteVersion(c_uiStoreVersion);
        archive.Flush();
        const unsigned long long mapPosition = file.GetPosition();

        // The map goes first with the old positions, so that its length is already final
        // when the real positions are written over it at the end.
        PositionMap positions(m_PositionMap);
        serializePositionMap(stream, positions);

        m_fMaxAbsCompressionError = 0.0f;
        for (auto& [id, entry] : positions) {
            archive.Flush();
            entry.m_iPosition = static_cast<long long>(file.GetPosition());
            CSSEMatrix matrix;
            if (!loadSSEMatrix(id, matrix, false))
                throw StoreAbandoned{};
            float error = 0.0f;
            if (!serializeMatrix(stream, matrix, entry, error))
                throw StoreAbandoned{};
            if (error > m_fMaxAbsCompressionError)
                m_fMaxAbsCompressionError = error;
        }

        archive.Flush();
        file.Seek(static_cast<long long>(mapPosition), CFile::begin);
        serializePositionMap(stream, positions);
        archive.Close();
    };
    try {
        return AtomicFileReplace(path, write);
    } catch (const StoreAbandoned&) {
        return false;
    } catch (const std::exception&) {
        // Unreadable source entries, file errors, matrices the codecs cannot hold, memory.
        return false;
    }
}

bool QzCSSEMatrixLibrary::loadSSEMatrix(const CString& id, CSSEMatrix& matrix, bool asStored) const
{
    const SFileInfo* entry = m_PositionMap.PLookup(id);
    if (entry == nullptr)
        return false;
    if (m_iLoadDepth >= c_iMaxReferenceDepth)
        return false;
    const NestingLevel level(m_iLoadDepth);

    if (entry->m_iPosition < 0) {
        if (entry->m_strPath.empty())
            return false;
        if (!matrix.Load(entry->m_strPath))
            return false;
        if (!asStored)
            return true;
        // Through the coder and back, so the caller sees what a reader of the store will.
        RbStreamWriteBinaryBuffer coded;
        float error = 0.0f;
        if (!serializeMatrix(coded, matrix, *entry, error))
            return false;
        RbStreamReadBinaryBuffer decoded(coded.GetData(), coded.GetSize());
        return serializeMatrix(decoded, matrix, entry->m_strReferenceId);
    }

    if (!m_File.IsOpen())
        return false;
    CArchive archive(&m_File, CArchive::load, kArchiveBufferSize);
    if (m_uiStoreVersion < 2) {
        m_File.Seek(entry->m_iPosition, CFile::begin);
        matrix.Serialize(archive);
        return true;
    }
    // A reference is read while the entry that needs it is half read: the file position
    // goes back to where the outer read's buffer expects it.
    const unsigned long long resumeAt = m_File.GetPosition();
    m_File.Seek(entry->m_iPosition, CFile::begin);
    {
        RyStreamReadBinaryFile stream(archive);
        // Deliberately not passed on: a stored entry counts as loaded once its bytes were read.
        serializeMatrix(stream, matrix, entry->m_strReferenceId);
    }
    archive.Flush();
    m_File.Seek(static_cast<long long>(resumeAt), CFile::begin);
    return true;
}

void QzCSSEMatrixLibrary::serializePositionMap(RbStreamWriteBinary& stream, const PositionMap& map)
{
    stream.WriteUInt32(static_cast<unsigned int>(map.GetCount()));
    for (const auto& [id, entry] : map) {
        stream.WriteString(id);
        stream.WriteInt64(entry.m_iPosition);
        stream.WriteString(entry.m_strReferenceId);
    }
}

void QzCSSEMatrixLibrary::serializePositionMap(RbStreamReadBinary& stream, unsigned int version)
{
    m_PositionMap.RemoveAll();
    // Entries may point anywhere inside the store file, nowhere outside it.
    const unsigned long long fileLength = m_File.IsOpen() ? m_File.GetLength() : ~0ull;
    const unsigned int count = stream.ReadUInt32();
    if (count > fileLength / MinimumRecordSize(version))
        throw RbStreamException("store file: the position map claims " + std::to_string(count)
                                + " entries, more than a file of " + std::to_string(fileLength)
                                + " bytes can hold");
    PositionMap map(m_PositionMap.GetHashTableSize());
    for (unsigned int i = 0; i < count; ++i) {
        SFileInfo entry;
        const CString id = stream.ReadString();
        entry.m_iPosition = version >= 1 ? stream.ReadInt64() : 0;
        if (version >= 2)
            entry.m_strReferenceId = stream.ReadString();
        if (entry.m_iPosition < 0 || static_cast<unsigned long long>(entry.m_iPosition) >= fileLength)
            throw RbStreamException("store file: entry '" + id + "' has position "
                                    + std::to_string(entry.m_iPosition) + ", outside the file of "
                                    + std::to_string(fileLength) + " bytes");
        entry.m_bHasOwnParameters = false;
        map.SetAt(id, entry);
    }
    m_PositionMap.swap(map);
}

bool QzCSSEMatrixLibrary::serializeMatrix(RbStreamWriteBinary& stream, const CSSEMatrix& matrix,
                                          const SFileInfo& entry, float& error) const
{
    const QzSCompressionParameters& params = entry.m_bHasOwnParameters ? entry.m_Parameters : m_DefaultParameters;
    if (entry.m_strReferenceId.empty())
        return serializeMatrix(stream, matrix, static_cast<const CSSEMatrix::QzSCompressionParameters&>(params), error);
    // The reference as a reader will reconstruct it, so writer and reader take the
    // difference against identical values.
    CSSEMatrix reference;
    if (!loadSSEMatrix(entry.m_strReferenceId, reference, true))
        return false;
    return serializeMatrix(stream, matrix, reference, params, error);
}

bool QzCSSEMatrixLibrary::serializeMatrix(RbStreamReadBinary& stream, CSSEMatrix& matrix,
                                          const CString& referenceId) const
{
    if (referenceId.empty())
        return serializeMatrix(stream, matrix);
    CSSEMatrix reference;
    if (!loadSSEMatrix(referenceId, reference, true))
        return false;
    return serializeMatrix(stream, matrix, reference);
}

bool QzCSSEMatrixLibrary::serializeMatrix(RbStreamWriteBinary& stream, const CSSEMatrix& matrix,
                                          const CSSEMatrix::QzSCompressionParameters& params, float& error)
{
    CSSEMatrix coded(matrix);
    coded.SetCompressionParameters(params);
    coded.Serialize(stream);
    error = coded.GetMaxAbsCompressionError();
    return true;
}

bool QzCSSEMatrixLibrary::serializeMatrix(RbStreamReadBinary& stream, CSSEMatrix& matrix)
{
    matrix.Serialize(stream);
    return true;
}
