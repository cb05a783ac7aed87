#pragma once

// The mesh targets' reader limit: small, so that a mesh the fuzzer asks for costs
// milliseconds; the checks are the same, only the number differs.

#include "qzsse/storage/ReaderLimits.h"

namespace qzsse::fuzz {

inline void UseMeshFuzzLimits()
{
    static const bool done = [] {
        ReaderLimits limits = GetReaderLimits();
        limits.maxMeshTriangles = 1 << 16;
        SetReaderLimits(limits);
        return true;
    }();
    (void)done;
}

} // namespace qzsse::fuzz
