#include "qzsse/base/RbStreamWriteBinaryBuffer.h"

RbStreamWriteBinaryBuffer::~RbStreamWriteBinaryBuffer() = default;

void RbStreamWriteBinaryBuffer::writeBytes(const void* data, size_t size)
{
    const auto* bytes = static_cast<const unsigned char*>(data);
    m_bytes.insert(m_bytes.end(), bytes, bytes + size);
}
