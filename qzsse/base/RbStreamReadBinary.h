#pragma once

#include <cstddef>
#include <optional>

#include "qzsse/base/CString.h"
#include "qzsse/base/RbStreamException.h"

// Binary input stream, the inverse of RbStreamWriteBinary. The bytes are untrusted: a
// read past the end, a version newer than the caller knows or a string longer than what
// is left throws RbStreamException naming the item and its offset, and no read allocates
// more than the stream can still deliver.
class RbStreamReadBinary {
public:
    virtual ~RbStreamReadBinary();

    // Throws when the stored version is newer than newestKnown.
    unsigned int ReadVersion(unsigned int newestKnown);
    int ReadInt32();
    unsigned int ReadUInt32();
    long long ReadInt64();
    float ReadFloat();
    double ReadDouble();
    bool ReadBool();
    CString ReadString();
    void ReadBuffer(void* data, size_t size);

    // Bytes left, when the form knows; readers use it to refuse sizes the data cannot hold
    // before they allocate for them.
    std::optional<unsigned long long> GetBytesRemaining() const { return bytesRemaining(); }
    // Offset of the next byte, as quoted in error messages.
    unsigned long long GetOffset() const { return currentOffset(); }

protected:
    RbStreamReadBinary() = default;
    RbStreamReadBinary(const RbStreamReadBinary&) = default;
    RbStreamReadBinary& operator=(const RbStreamReadBinary&) = default;

    // Delivers up to size bytes; fewer only at the end of the data.
    virtual size_t readBytes(void* data, size_t size) = 0;
    // Bytes left, if the form knows; lets an absurd length fail before anything is read.
    virtual std::optional<unsigned long long> bytesRemaining() const = 0;
    // Offset quoted in error messages; by default the bytes consumed through this object.
    virtual unsigned long long currentOffset() const { return m_consumed; }

private:
    void readExact(void* data, size_t size, const char* what);
    template <class T>
    T readValue(const char* what);

    unsigned long long m_consumed = 0;
};
