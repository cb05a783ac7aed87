#include "qzsse/base/RbStreamReadBinaryBuffer.h"

#include <algorithm>
#include <cstring>

RbStreamReadBinaryBuffer::RbStreamReadBinaryBuffer(const void* data, size_t size)
    : m_data(static_cast<const unsigned char*>(data)), m_size(data ? size : 0)
{
}

RbStreamReadBinaryBuffer::~RbStreamReadBinaryBuffer() = default;

size_t RbStreamReadBinaryBuffer::readBytes(void* data, size_t size)
{
    const size_t take = std::min(size, m_size - m_position);
    if (take > 0)
        std::memcpy(data, m_data + m_position, take);
    m_position += take;
    return take;
}
