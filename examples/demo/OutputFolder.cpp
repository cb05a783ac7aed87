#include "demo/OutputFolder.h"

#include <stdexcept>
#include <system_error>

#include <unistd.h>

namespace qzsse::demo {

void OutputFolder::Create() const
{
    std::error_code ec;
    std::filesystem::create_directories(m_directory, ec);
    if (ec || !std::filesystem::is_directory(m_directory))
        throw std::runtime_error("cannot create the output folder " + m_directory.string()
                                 + (ec ? " (" + ec.message() + ")" : std::string()));
}

void OutputFolder::WriteFile(const std::string& name, const std::function<void(const std::filesystem::path&)>& write)
{
    const std::filesystem::path target = PathOf(name);
    const std::filesystem::path temporary = PathOf("." + name + ".partial-" + std::to_string(::getpid()));
    std::error_code ignored;
    try {
        write(temporary);
    } catch (...) {
        std::filesystem::remove(temporary, ignored);
        throw;
    }
    std::error_code ec;
    std::filesystem::rename(temporary, target, ec);
    if (ec) {
        std::filesystem::remove(temporary, ignored);
        throw std::runtime_error("cannot rename the finished " + name + " into place (" + ec.message() + ")");
    }
    m_written.push_back(name);
}

} // namespace qzsse::demo
