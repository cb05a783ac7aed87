#include "qzsse/storage/detail/AtomicFileReplace.h"

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <random>
#include <string>
#include <system_error>

namespace qzsse::detail {
namespace {

namespace fs = std::filesystem;

fs::path ToPath(const CString& utf8)
{
    return fs::path(std::u8string(utf8.begin(), utf8.end()));
}

CString ToCString(const fs::path& path)
{
    const std::u8string text = path.u8string();
    return CString(text.begin(), text.end());
}

// Creates the file only if no file of that name exists, so two writers never share one
// temporary file. Returns false and leaves errno set otherwise.
bool CreateExclusively(const fs::path& path)
{
#if defined(_WIN32)
    std::FILE* f = _wfopen(path.c_str(), L"wbx");
#else
    std::FILE* f = std::fopen(path.c_str(), "wbx");
#endif
    if (!f)
        return false;
    std::fclose(f);
    return true;
}

// A name beside the target that no other writer picks: the target's name, a random
// 64-bit tag and a per-process counter.
fs::path TemporaryNameBeside(const fs::path& target)
{
    static std::atomic<unsigned long long> counter{0};
    thread_local std::mt19937_64 random{std::random_device{}()};
    const unsigned long long tag = random() ^ counter.fetch_add(1);
    char suffix[32];
    std::snprintf(suffix, sizeof suffix, ".%016llx.tmp", tag);
    return target.parent_path() / (target.filename().string() + suffix);
}

void RemoveQuietly(const fs::path& path)
{
    std::error_code ignored;
    fs::remove(path, ignored);
}

} // namespace

bool AtomicFileReplace(const CString& path, const std::function<void(CFile& file)>& write)
{
    const fs::path target = ToPath(path);

    fs::path temporary;
    bool created = false;
    for (int attempt = 0; attempt < 16 && !created; ++attempt) {
        temporary = TemporaryNameBeside(target);
        errno = 0;
        created = CreateExclusively(temporary);
        if (!created && errno != EEXIST)
            return false;
    }
    if (!created)
        return false;

    try {
        CFile file;
        if (!file.Open(ToCString(temporary), CFile::modeCreate | CFile::modeWrite)) {
            RemoveQuietly(temporary);
            return false;
        }
        write(file);
        file.Close();
    } catch (...) {
        RemoveQuietly(temporary);
        throw;
    }

    std::error_code renameError;
    fs::rename(temporary, target, renameError);
    if (renameError) {
        RemoveQuietly(temporary);
        return false;
    }
    return true;
}

} // namespace qzsse::detail
