#pragma once

// Shared by the fuzz targets: the inputs as files for the readers that take paths, and the
// reader limits every target runs under.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <set>
#include <string>
#include <unistd.h>

#include "qzsse/storage/ReaderLimits.h"

namespace qzsse::fuzz {

// Smaller than the defaults so that a matrix the fuzzer asks for costs milliseconds: the
// checks are the same, only the numbers differ.
inline void UseFuzzLimits()
{
    static const bool done = [] {
        ReaderLimits limits;
        limits.maxMatrixPixels = 1ull << 20;
        limits.maxDecodedBytes = 1ull << 20;
        SetReaderLimits(limits);
        return true;
    }();
    (void)done;
}

// One scratch file per process, rewritten for every input and removed at exit.
inline std::string WriteScratchFile(const uint8_t* data, size_t size, const char* extension)
{
    static std::set<std::string> written;
    const char* dir = std::getenv("TMPDIR");
    const std::string path =
        std::string(dir && *dir ? dir : "/tmp") + "/qzsse-fuzz-" + std::to_string(getpid()) + extension;
    if (written.empty())
        std::atexit([] {
            for (const std::string& p : written)
                std::remove(p.c_str());
        });
    written.insert(path);
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f == nullptr)
        __builtin_trap();
    if (size && std::fwrite(data, 1, size, f) != size)
        __builtin_trap();
    std::fclose(f);
    return path;
}

} // namespace qzsse::fuzz
