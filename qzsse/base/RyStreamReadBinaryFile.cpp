#include "qzsse/base/RyStreamReadBinaryFile.h"

#include <algorithm>
#include <stdexcept>

RyStreamReadBinaryFile::RyStreamReadBinaryFile(CArchive& archive) : m_archive(archive)
{
    if (!archive.IsLoading())
        throw std::logic_error("RyStreamReadBinaryFile needs an archive in load mode");
}

RyStreamReadBinaryFile::~RyStreamReadBinaryFile() = default;

size_t RyStreamReadBinaryFile::readBytes(void* data, size_t size)
{
    constexpr size_t kSlice = size_t{1} << 30;
    auto* bytes = static_cast<unsigned char*>(data);
    size_t done = 0;
    while (done < size) {
        const auto want = static_cast<unsigned>(std::min(size - done, kSlice));
        const unsigned got = m_archive.Read(bytes + done, want);
        done += got;
        if (got < want)
            break;
    }
    return done;
}

std::optional<unsigned long long> RyStreamReadBinaryFile::bytesRemaining() const
{
    return m_archive.GetBytesRemaining();
}

unsigned long long RyStreamReadBinaryFile::currentOffset() const { return m_archive.GetPosition(); }
