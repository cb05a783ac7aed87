#pragma once

#include <atomic>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <unistd.h>

// A unique path in the system's temp directory, removed when the object goes away.
class TempFile {
public:
    TempFile()
    {
        static std::atomic<int> counter{0};
        m_path = std::filesystem::temp_directory_path()
                 / ("qzsse_base_" + std::to_string(::getpid()) + "_" + std::to_string(counter++) + ".bin");
    }
    ~TempFile()
    {
        std::error_code ec;
        std::filesystem::remove(m_path, ec);
    }
    TempFile(const TempFile&) = delete;
    TempFile& operator=(const TempFile&) = delete;

    std::string Path() const { return m_path.string(); }

    void WriteBytes(const std::vector<unsigned char>& bytes) const
    {
        std::ofstream out(m_path, std::ios::binary | std::ios::trunc);
        out.write(reinterpret_cast<const char*>(bytes.data()), static_cast<std::streamsize>(bytes.size()));
    }

    std::vector<unsigned char> ReadBytes() const
    {
        std::ifstream in(m_path, std::ios::binary);
        return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

private:
    std::filesystem::path m_path;
};
