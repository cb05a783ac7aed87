#pragma once

#include <cstddef>
#include <type_traits>
#include <vector>

#include "qzsse/base/CFile.h"
#include "qzsse/base/CString.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/detail/LittleEndian.h"

// Raised by the archive's extraction operators when the file ends early or holds a string
// length that cannot be right. It is an RbStreamException, so a reader that catches
// stream errors catches these too.
class CArchiveException : public RbStreamException {
public:
    using RbStreamException::RbStreamException;
};

namespace qzsse::detail {
// Types the archive writes by their bytes: the fixed-width integers, bool (one byte),
// float and double. wchar_t and long double are refused because their size differs
// between platforms; callers should also prefer std::int32_t etc. over long for that reason.
template <class T>
concept ArchiveScalar = std::is_arithmetic_v<T> && !std::is_same_v<T, wchar_t>
                        && !std::is_same_v<T, long double>;
} // namespace qzsse::detail

// Buffered archive over a CFile, one direction per archive. Values are little-endian.
//
// The file position runs ahead of the archive while loading (read-ahead) and behind it
// while storing (pending bytes). Flush brings them together: storing, it writes the
// pending bytes; loading, it seeks the file back over the unread buffered bytes. After
// a Flush the caller may therefore use or move the file position directly, and the
// archive continues from wherever the file then stands.
class CArchive {
public:
    enum Mode : unsigned { store = 0, load = 1 };

    CArchive(CFile* file, unsigned mode, int bufferSize = 4096);
    CArchive(const CArchive&) = delete;
    CArchive& operator=(const CArchive&) = delete;
    // Flushes as Close does if still open; errors are swallowed here, Close reports them.
    ~CArchive();

    bool IsLoading() const { return m_loading; }
    bool IsStoring() const { return !m_loading; }
    CFile* GetFile() const { return m_file; }

    void Flush();
    // Flushes and detaches from the file; the file itself stays open.
    void Close();

    // Returns the number of bytes read, fewer than count only at the end of the file.
    unsigned Read(void* data, unsigned count);
    void Write(const void* data, unsigned count);

    // Logical position: the file offset the next byte is read from or written to.
    unsigned long long GetPosition() const;
    // Loading: bytes left between the logical position and the end of the file.
    unsigned long long GetBytesRemaining() const;

    template <qzsse::detail::ArchiveScalar T>
    CArchive& operator<<(T value)
    {
        unsigned char bytes[sizeof(T)];
        qzsse::detail::StoreValueLittleEndian(value, bytes);
        Write(bytes, sizeof(T));
        return *this;
    }

    template <qzsse::detail::ArchiveScalar T>
    CArchive& operator>>(T& value)
    {
        value = readScalar<T>("a value");
        return *this;
    }

    // Always written in the wide form: FF FE FF, the UTF-16 length (one byte if < 255,
    // else FF + uint16 if < 0xFFFF, else FF FF FF + uint32), then the UTF-16LE units.
    CArchive& operator<<(const CString& text);
    // Reads the wide form and the narrow form (no FF FE FF; bytes taken as Latin-1).
    CArchive& operator>>(CString& text);

private:
    void requireOpen(bool forLoading, const char* operation) const;
    void readExact(void* data, unsigned count, const char* what);
    template <class T>
    T readScalar(const char* what)
    {
        unsigned char bytes[sizeof(T)];
        readExact(bytes, sizeof(T), what);
        return qzsse::detail::LoadValueLittleEndian<T>(bytes);
    }
    void flushStore();
    // Length prefix of an archive string; wide tells whether the units are UTF-16.
    unsigned long long readStringLength(bool& wide);

    CFile* m_file;
    bool m_loading;
    std::vector<unsigned char> m_buffer;
    // Loading: m_buffer[m_cur, m_end) is read ahead and not yet consumed.
    // Storing: m_buffer[0, m_cur) is pending.
    size_t m_cur = 0;
    size_t m_end = 0;
};
