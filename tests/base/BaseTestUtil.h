#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

#include "qzsse/base/RbStreamException.h"

using Bytes = std::vector<unsigned char>;

// A unique path in the system's temp directory, removed when the object goes away.
class TempFile {
public:
    TempFile() = default;
    TempFile(const TempFile&) = delete;
    ~TempFile() { std::filesystem::remove(m_path, m_ignored); }

    std::string Path() const { return m_path.string(); }
    void WriteBytes(const Bytes& b) const
    {
        std::ofstream(m_path, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), std::ssize(b));
    }
    Bytes ReadBytes() const
    {
        std::ifstream in(m_path, std::ios::binary);
        return Bytes(std::istreambuf_iterator<char>(in), {});
    }

private:
    static inline std::atomic<int> s_count{0};
    std::filesystem::path m_path = std::filesystem::temp_directory_path()
        / ("qzsse_base_" + std::to_string(::getpid()) + "_" + std::to_string(s_count++) + ".bin");
    std::error_code m_ignored;
};

// The message of the RbStreamException that read() throws, or "" when it throws none.
template <class Read>
std::string StreamError(Read&& read)
{
    try {
        read();
    } catch (const RbStreamException& e) {
        return e.what();
    }
    return "";
}

inline bool Contains(const std::string& text, const char* part) { return text.find(part) != std::string::npos; }
