#pragma once

#include <chrono>

namespace qzsse::demo {

class Stopwatch {
public:
    double Milliseconds() const
    {
        return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - m_start).count();
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

} // namespace qzsse::demo
