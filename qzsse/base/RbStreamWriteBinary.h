#pragma once

#include <cstddef>

#include "qzsse/base/CString.h"

// Binary output stream. The typed operations fix the encoding once for every form:
// little-endian, bool one byte 0 or 1, version a uint32, string a uint32 byte count and
// the UTF-8 bytes, raw buffer the bytes alone. A form only says where bytes go.
class RbStreamWriteBinary {
public:
    virtual ~RbStreamWriteBinary();

    void WriteVersion(unsigned int version);
    void WriteInt32(int value);
    void WriteUInt32(unsigned int value);
    void WriteInt64(long long value);
    void WriteFloat(float value);
    void WriteDouble(double value);
    void WriteBool(bool value);
    void WriteString(const CString& text);
    void WriteBuffer(const void* data, size_t size);

protected:
    RbStreamWriteBinary() = default;
    RbStreamWriteBinary(const RbStreamWriteBinary&) = default;
    RbStreamWriteBinary& operator=(const RbStreamWriteBinary&) = default;

    // Appends all size bytes or throws.
    virtual void writeBytes(const void* data, size_t size) = 0;
};
