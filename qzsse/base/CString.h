#pragma once

#include <string>

// Ids and paths are plain UTF-8 byte strings. Where a UTF-16 view is needed (archive
// strings, the id hash of RbMap) the bytes are decoded on the fly, see detail/Utf16.h.
using CString = std::string;
