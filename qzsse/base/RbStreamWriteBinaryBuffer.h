#pragma once

#include <cstddef>
#include <vector>

#include "qzsse/base/RbStreamWriteBinary.h"

// In-memory output stream; the bytes stay in the object until it is destroyed.
class RbStreamWriteBinaryBuffer : public RbStreamWriteBinary {
public:
    RbStreamWriteBinaryBuffer() = default;
    ~RbStreamWriteBinaryBuffer() override;

    const unsigned char* GetData() const { return m_bytes.data(); }
    size_t GetSize() const { return m_bytes.size(); }
    const std::vector<unsigned char>& GetBytes() const { return m_bytes; }
    void Clear() { m_bytes.clear(); }

protected:
    void writeBytes(const void* data, size_t size) override;

private:
    std::vector<unsigned char> m_bytes;
};
