#pragma once

#include <cstddef>

#include "qzsse/base/CArchive.h"
#include "qzsse/base/RbStreamReadBinary.h"

// Input stream that reads through a loading archive's buffer, so archive operators and
// stream operations can be interleaved on one file. Offsets in its errors are file offsets.
class RyStreamReadBinaryFile : public RbStreamReadBinary {
public:
    explicit RyStreamReadBinaryFile(CArchive& archive);
    ~RyStreamReadBinaryFile() override;

    CArchive& GetArchive() const { return m_archive; }

protected:
    size_t readBytes(void* data, size_t size) override;
    std::optional<unsigned long long> bytesRemaining() const override;
    unsigned long long currentOffset() const override;

private:
    CArchive& m_archive;
};
