#pragma once

#include <map>
#include <memory>

// One input of each size per program: a benchmark and its peer at the same size read the
// same data, and building it stays out of both timings.
template <class Input>
Input& CachedInput(int n)
{
    static std::map<int, std::unique_ptr<Input>> cache;
    auto& slot = cache[n];
    if (!slot)
        slot = std::make_unique<Input>(n);
    return *slot;
}
