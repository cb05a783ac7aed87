#pragma once

#include <cstddef>

#include "qzsse/base/CArchive.h"
#include "qzsse/base/RbStreamWriteBinary.h"

// Output stream that writes through a storing archive's buffer, so archive operators and
// stream operations can be interleaved on one file and land in the order they were made.
class RyStreamWriteBinaryFile : public RbStreamWriteBinary {
public:
    explicit RyStreamWriteBinaryFile(CArchive& archive);
    ~RyStreamWriteBinaryFile() override;

    CArchive& GetArchive() const { return m_archive; }

protected:
    void writeBytes(const void* data, size_t size) override;

private:
    CArchive& m_archive;
};
