#pragma once

#include <filesystem>
#include <string>
#include <system_error>

#include "qzsse/base/CString.h"

// File-system queries of the base library.
class QzCDirectory {
public:
    // True only for an existing regular file: a directory, a missing path or a path that
    // cannot be examined (permissions, invalid name) all answer false, never throw.
    static bool FileExist(const CString& path)
    {
        std::error_code error;
        const std::filesystem::path p(std::u8string(path.begin(), path.end()));
        return std::filesystem::is_regular_file(p, error);
    }
};
