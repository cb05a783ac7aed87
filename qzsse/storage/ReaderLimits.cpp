#include "qzsse/storage/ReaderLimits.h"

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <string>

#include "qzsse/base/RbStreamException.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"

namespace qzsse {
namespace {

std::atomic<unsigned long long> g_maxMatrixPixels{ReaderLimits::c_ullDefaultMaxMatrixPixels};
std::atomic<unsigned long long> g_maxDecodedBytes{ReaderLimits::c_ullDefaultMaxDecodedBytes};
std::atomic<unsigned long long> g_maxMeshTriangles{ReaderLimits::c_ullDefaultMaxMeshTriangles};

} // namespace

void SetReaderLimits(const ReaderLimits& limits)
{
    g_maxMatrixPixels = limits.maxMatrixPixels ? limits.maxMatrixPixels : ReaderLimits::c_ullDefaultMaxMatrixPixels;
    g_maxDecodedBytes = limits.maxDecodedBytes ? limits.maxDecodedBytes : ReaderLimits::c_ullDefaultMaxDecodedBytes;
    constexpr unsigned long long c_ullMostTriangles = INT32_MAX / 3;
    g_maxMeshTriangles = limits.maxMeshTriangles ? std::min(limits.maxMeshTriangles, c_ullMostTriangles)
                                                 : ReaderLimits::c_ullDefaultMaxMeshTriangles;
}

ReaderLimits GetReaderLimits()
{
    ReaderLimits limits;
    limits.maxMatrixPixels = g_maxMatrixPixels;
    limits.maxDecodedBytes = g_maxDecodedBytes;
    limits.maxMeshTriangles = g_maxMeshTriangles;
    return limits;
}

namespace detail {

void CheckMatrixSizeWithinLimit(const char* reader, long long width, long long height, unsigned long long offset)
{
    const unsigned long long limit = g_maxMatrixPixels;
    if (width < 0 || height < 0)
        return;
    // Storage holds whole bands of four rows and one band of padding below the image, so a
    // matrix without rows still costs a band per column.
    const unsigned long long rows = 4 * (static_cast<unsigned long long>(height) / 4 + 1);
    const unsigned long long pixels = static_cast<unsigned long long>(width) * rows;
    if (pixels > limit)
        throw RbStreamException(std::string(reader) + ": a " + std::to_string(width) + " x " + std::to_string(height)
                                + " matrix (" + std::to_string(pixels) + " stored pixels) read before offset "
                                + std::to_string(offset) + " is above the reader limit of "
                                + std::to_string(limit) + " pixels");
}

unsigned long long MaxDecodedBytes() { return g_maxDecodedBytes; }

} // namespace detail
} // namespace qzsse
