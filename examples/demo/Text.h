#pragma once

#include <cstdarg>
#include <cstdio>
#include <string>

namespace qzsse::demo {

// printf into a std::string (the step lines are built from many numbers).
inline std::string Sprintf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
inline std::string Sprintf(const char* fmt, ...)
{
    char buffer[1024];
    va_list args;
    va_start(args, fmt);
    std::vsnprintf(buffer, sizeof buffer, fmt, args);
    va_end(args);
    return buffer;
}

} // namespace qzsse::demo
