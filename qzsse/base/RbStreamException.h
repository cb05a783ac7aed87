#pragma once

#include <stdexcept>
#include <string>

// Raised by every binary reader of the library when the bytes do not hold what the format
// promises: a read past the end, a version newer than the reader knows, a size that
// cannot be right. The message says what was being read and at which byte offset.
class RbStreamException : public std::runtime_error {
public:
    explicit RbStreamException(const std::string& message) : std::runtime_error(message) {}
};
