#pragma once

// The demo's output folder. Every file is written under a temporary name beside its final
// name and renamed only when complete, so an interrupted or failed step leaves no partial
// file behind.

#include <filesystem>
#include <functional>
#include <string>
#include <vector>

namespace qzsse::demo {

class OutputFolder {
public:
    explicit OutputFolder(std::filesystem::path directory) : m_directory(std::move(directory)) {}

    // Creates the folder (and its parents) if needed; throws std::runtime_error when it
    // cannot. Called only once the input has been read, so bad arguments create nothing.
    void Create() const;
    const std::filesystem::path& Directory() const { return m_directory; }
    std::filesystem::path PathOf(const std::string& name) const { return m_directory / name; }

    // Calls write with a temporary path in the folder, then renames it to `name`. If write
    // throws, the temporary file is removed and the exception passes on.
    void WriteFile(const std::string& name, const std::function<void(const std::filesystem::path&)>& write);

    // Final names written so far, in order.
    const std::vector<std::string>& Written() const { return m_written; }

private:
    std::filesystem::path m_directory;
    std::vector<std::string> m_written;
};

} // namespace qzsse::demo
