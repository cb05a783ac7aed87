#include "qzsse/base/RyStreamWriteBinaryFile.h"

#include <algorithm>
#include <stdexcept>

RyStreamWriteBinaryFile::RyStreamWriteBinaryFile(CArchive& archive) : m_archive(archive)
{
    if (!archive.IsStoring())
        throw std::logic_error("RyStreamWriteBinaryFile needs an archive in store mode");
}

RyStreamWriteBinaryFile::~RyStreamWriteBinaryFile() = default;

void RyStreamWriteBinaryFile::writeBytes(const void* data, size_t size)
{
    // The archive counts in 32 bits; larger buffers go in slices.
    constexpr size_t kSlice = size_t{1} << 30;
    const auto* bytes = static_cast<const unsigned char*>(data);
    for (size_t done = 0; done < size; done += kSlice)
        m_archive.Write(bytes + done, static_cast<unsigned>(std::min(size - done, kSlice)));
}
