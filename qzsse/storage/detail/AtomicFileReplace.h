#pragma once

#include <functional>

#include "qzsse/base/CFile.h"
#include "qzsse/base/CString.h"

namespace qzsse::detail {

// Replaces the file at `path` as a whole or not at all, so that a failed write never leaves
// a partial file and a file can be stored over the one it is being read from.
//
// A fresh, uniquely named temporary file is created in the directory of `path` and handed
// to `write` open for writing (CFile::modeCreate | CFile::modeWrite). When `write` returns,
// the file is closed and renamed over `path`.
//
// Returns false, with `path` untouched and no temporary file left, when the temporary file
// cannot be created (directory missing or not writable) or the rename fails (for instance
// when `path` names a directory). An exception from `write` or from closing the file is
// rethrown after the temporary file has been removed; `path` is untouched then too.
bool AtomicFileReplace(const CString& path, const std::function<void(CFile& file)>& write);

} // namespace qzsse::detail
