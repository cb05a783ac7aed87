#pragma once

// The mesh targets' reader limit: small, so that a mesh the fuzzer asks for costs
// milliseconds; the checks are the same, only the number differs.

#include "qzsse/mesh/MeshInterchange.h"

namespace qzsse::fuzz {

inline void UseMeshFuzzLimits()
{
    static const bool done = [] {
        MeshReaderLimits limits;
        limits.maxTriangles = 1 << 16;
        SetMeshReaderLimits(limits);
        return true;
    }();
    (void)done;
}

} // namespace qzsse::fuzz
