#pragma once

#include <cstddef>

#include "qzsse/base/RbStreamReadBinary.h"

// In-memory input stream over a byte range the caller owns and keeps alive while reading.
class RbStreamReadBinaryBuffer : public RbStreamReadBinary {
public:
    RbStreamReadBinaryBuffer(const void* data, size_t size);
    ~RbStreamReadBinaryBuffer() override;

    size_t GetPosition() const { return m_position; }
    size_t GetSize() const { return m_size; }
    size_t GetRemaining() const { return m_size - m_position; }

protected:
    size_t readBytes(void* data, size_t size) override;
    std::optional<unsigned long long> bytesRemaining() const override { return GetRemaining(); }
    unsigned long long currentOffset() const override { return m_position; }

private:
    const unsigned char* m_data;
    size_t m_size;
    size_t m_position = 0;
};
