#include "qzsse/base/RbStreamWriteBinary.h"

#include <cstdint>
#include <limits>
#include <stdexcept>

#include "qzsse/base/detail/LittleEndian.h"

namespace {

template <class T>
void WriteValue(RbStreamWriteBinary& stream, T value)
{
    unsigned char bytes[sizeof(T)];
    qzsse::detail::StoreValueLittleEndian(value, bytes);
    stream.WriteBuffer(bytes, sizeof(T));
}

} // namespace

RbStreamWriteBinary::~RbStreamWriteBinary() = default;

void RbStreamWriteBinary::WriteVersion(unsigned int version) { WriteValue<std::uint32_t>(*this, version); }
void RbStreamWriteBinary::WriteInt32(int value) { WriteValue<std::int32_t>(*this, value); }
void RbStreamWriteBinary::WriteUInt32(unsigned int value) { WriteValue<std::uint32_t>(*this, value); }
void RbStreamWriteBinary::WriteInt64(long long value) { WriteValue<std::int64_t>(*this, value); }
void RbStreamWriteBinary::WriteFloat(float value) { WriteValue(*this, value); }
void RbStreamWriteBinary::WriteDouble(double value) { WriteValue(*this, value); }
void RbStreamWriteBinary::WriteBool(bool value) { WriteValue(*this, value); }

void RbStreamWriteBinary::WriteString(const CString& text)
{
    if (text.size() > std::numeric_limits<std::uint32_t>::max())
        throw std::length_error("RbStreamWriteBinary: string longer than a uint32 byte count");
    WriteUInt32(static_cast<unsigned int>(text.size()));
    WriteBuffer(text.data(), text.size());
}

void RbStreamWriteBinary::WriteBuffer(const void* data, size_t size)
{
    if (size > 0)
        writeBytes(data, size);
}
