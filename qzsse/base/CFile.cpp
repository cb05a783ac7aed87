#include "qzsse/base/CFile.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <sys/stat.h>
#include <sys/types.h>

namespace {

int SeekFile(std::FILE* f, long long offset, int origin)
{
#if defined(_WIN32)
    return _fseeki64(f, offset, origin);
#else
    return fseeko(f, static_cast<off_t>(offset), origin);
#endif
}

long long TellFile(std::FILE* f)
{
#if defined(_WIN32)
    return _ftelli64(f);
#else
    return static_cast<long long>(ftello(f));
#endif
}

std::FILE* OpenFile(const CString& path, const char* mode)
{
#if defined(_WIN32)
    // Paths are UTF-8; the wide API is the one that takes every name.
    std::filesystem::path p(std::u8string(path.begin(), path.end()));
    return _wfopen(p.c_str(), std::wstring(mode, mode + std::strlen(mode)).c_str());
#else
    return std::fopen(path.c_str(), mode);
#endif
}

// Size and kind of the open file, asked through the handle: the name may meanwhile refer
// to another file (a store written beside it and renamed over it).
bool StatFile(std::FILE* f, long long& size, bool& isDirectory)
{
#if defined(_WIN32)
    struct _stat64 st;
    if (_fstat64(_fileno(f), &st) != 0)
        return false;
    isDirectory = (st.st_mode & _S_IFDIR) != 0;
#else
    struct stat st;
    if (fstat(fileno(f), &st) != 0)
        return false;
    isDirectory = S_ISDIR(st.st_mode);
#endif
    size = static_cast<long long>(st.st_size);
    return true;
}

} // namespace

CFile::~CFile()
{
    if (m_file)
        std::fclose(m_file);
}

bool CFile::Open(const CString& path, unsigned flags)
{
    if (m_file) {
        std::fclose(m_file);
        m_file = nullptr;
    }
    const unsigned access = flags & 0x3u;
    const bool create = (flags & modeCreate) != 0;
    const bool truncate = create && (flags & modeNoTruncate) == 0;
    const bool wantsWrite = access == modeWrite || access == modeReadWrite;

    std::FILE* f = nullptr;
    if (truncate) {
        f = OpenFile(path, access == modeWrite ? "wb" : "w+b");
    } else {
        f = OpenFile(path, wantsWrite ? "r+b" : "rb");
        if (!f && create)
            f = OpenFile(path, access == modeWrite ? "wb" : "w+b");
    }
    if (!f)
        return false;
    long long size = 0;
    bool isDirectory = false;
    if (!StatFile(f, size, isDirectory) || isDirectory) {
        std::fclose(f);
        return false;
    }
    m_file = f;
    m_path = path;
    m_lastOp = LastOp::none;
    return true;
}

void CFile::Close()
{
    if (!m_file)
        return;
    std::FILE* f = m_file;
    m_file = nullptr;
    if (std::fclose(f) != 0)
        throw CFileException("CFile: closing '" + m_path + "' failed: " + std::strerror(errno));
}

unsigned CFile::Read(void* buffer, unsigned count)
{
    requireOpen("read");
    if (count == 0)
        return 0;
    switchTo(LastOp::read);
    const size_t got = std::fread(buffer, 1, count, m_file);
    if (got < count && std::ferror(m_file))
        fail("read");
    return static_cast<unsigned>(got);
}

void CFile::Write(const void* buffer, unsigned count)
{
    requireOpen("write");
    if (count == 0)
        return;
    switchTo(LastOp::write);
    if (std::fwrite(buffer, 1, count, m_file) != count)
        fail("write");
}

unsigned long long CFile::Seek(long long offset, unsigned from)
{
    requireOpen("seek");
    if (from > end)
        throw CFileException("CFile: bad seek origin on '" + m_path + "'");
    const int origin = from == begin ? SEEK_SET : (from == current ? SEEK_CUR : SEEK_END);
    const long long base = from == begin ? 0 : (from == current ? TellFile(m_file)
                                                                : static_cast<long long>(GetLength()));
    if (base < 0 || (offset < 0 && base + offset < 0))
        throw CFileException("CFile: seek before the start of '" + m_path + "'");
    if (SeekFile(m_file, offset, origin) != 0)
        fail("seek");
    m_lastOp = LastOp::none;
    return GetPosition();
}

unsigned long long CFile::GetPosition() const
{
    requireOpen("tell");
    const long long pos = TellFile(m_file);
    if (pos < 0)
        fail("tell");
    return static_cast<unsigned long long>(pos);
}

unsigned long long CFile::GetLength() const
{
    requireOpen("query the length of");
    // Pending buffered writes count towards the length.
    if (m_lastOp == LastOp::write && std::fflush(m_file) != 0)
        fail("flush");
    long long size = 0;
    bool isDirectory = false;
    if (!StatFile(m_file, size, isDirectory))
        fail("measure");
    return static_cast<unsigned long long>(size);
}

void CFile::Flush()
{
    requireOpen("flush");
    // Only written data needs pushing out; flushing an input stream is not portable.
    if (m_lastOp == LastOp::write && std::fflush(m_file) != 0)
        fail("flush");
}

void CFile::switchTo(LastOp op)
{
    if (m_lastOp != LastOp::none && m_lastOp != op && SeekFile(m_file, 0, SEEK_CUR) != 0)
        fail("switch direction on");
    m_lastOp = op;
}

void CFile::requireOpen(const char* operation) const
{
    if (!m_file)
        throw CFileException(std::string("CFile: cannot ") + operation + " a file that is not open");
}

void CFile::fail(const char* operation) const
{
    const int err = errno;
    throw CFileException(std::string("CFile: ") + operation + " '" + m_path + "' failed"
                         + (err ? std::string(": ") + std::strerror(err) : std::string()));
}
