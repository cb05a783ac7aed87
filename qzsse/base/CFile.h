#pragma once

#include <cstdio>
#include <stdexcept>
#include <string>

#include "qzsse/base/CString.h"

// Raised when an operation on an open file fails (read or write error, bad seek, a call
// on a closed file). Opening reports failure through its result instead.
class CFileException : public std::runtime_error {
public:
    explicit CFileException(const std::string& message) : std::runtime_error(message) {}
};

// Binary file with the platform's open flags. The share and access hints are accepted and
// ignored: the library relies on nothing they would enforce.
class CFile {
public:
    enum OpenFlags : unsigned {
        modeRead = 0x00000,
        modeWrite = 0x00001,
        modeReadWrite = 0x00002,
        shareExclusive = 0x00010,
        shareDenyWrite = 0x00020,
        shareDenyNone = 0x00040,
        modeCreate = 0x01000,
        modeNoTruncate = 0x02000,
        typeBinary = 0x08000,
        osRandomAccess = 0x40000,
        osSequentialScan = 0x80000,
    };
    enum SeekPosition { begin = 0, current = 1, end = 2 };

    CFile() = default;
    CFile(const CFile&) = delete;
    CFile& operator=(const CFile&) = delete;
    // Closes without reporting errors; call Close to see them.
    virtual ~CFile();

    // modeCreate creates the file or truncates it (unless modeNoTruncate); without it the
    // file must exist. Returns false if the file cannot be opened or names a directory.
    virtual bool Open(const CString& path, unsigned flags);
    virtual void Close();
    bool IsOpen() const { return m_file != nullptr; }
    const CString& GetFilePath() const { return m_path; }

    // Returns the number of bytes read, fewer than count only at the end of the file.
    virtual unsigned Read(void* buffer, unsigned count);
    virtual void Write(const void* buffer, unsigned count);
    // Returns the new position; a resulting position before the start throws.
    virtual unsigned long long Seek(long long offset, unsigned from);
    unsigned long long SeekToBegin() { return Seek(0, begin); }
    unsigned long long SeekToEnd() { return Seek(0, end); }
    virtual unsigned long long GetPosition() const;
    virtual unsigned long long GetLength() const;
    virtual void Flush();

private:
    // The C streams need a flush or seek between a write and a following read and vice
    // versa; the file tracks the last direction and inserts one when it changes.
    enum class LastOp { none, read, write };
    void switchTo(LastOp op);
    void requireOpen(const char* operation) const;
    [[noreturn]] void fail(const char* operation) const;

    std::FILE* m_file = nullptr;
    CString m_path;
    LastOp m_lastOp = LastOp::none;
};
