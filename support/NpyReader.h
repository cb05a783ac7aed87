#pragma once

// A minimal reader for the 2-D .npy height grids the tests and benchmarks run on: little-endian int16,
// float32 or float64 in C order, header versions 1 to 3. Anything else is refused with a
// message rather than guessed at.

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

namespace qzsse::detail {

struct NpyGrid {
    int width = 0;    // columns: the second shape entry
    int height = 0;   // rows: the first shape entry
    std::vector<float> values;   // row-major
    float at(int x, int y) const { return values[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)]; }
};

namespace npy {

inline std::uint64_t LittleEndian(const unsigned char* p, int bytes)
{
    std::uint64_t v = 0;
    for (int i = bytes - 1; i >= 0; --i)
        v = (v << 8) | p[i];
    return v;
}

// The value of `key` in the header's Python dict literal, up to the next comma outside
// parentheses.
inline std::string DictValue(const std::string& header, const std::string& key)
{
    const size_t at = header.find("'" + key + "'");
    if (at == std::string::npos)
        return {};
    size_t pos = header.find(':', at);
    if (pos == std::string::npos)
        return {};
    ++pos;
    int depth = 0;
    std::string value;
    for (; pos < header.size(); ++pos) {
        const char c = header[pos];
        if (c == '(')
            ++depth;
        else if (c == ')')
            --depth;
        else if ((c == ',' && depth == 0) || c == '}')
            break;
        if (c != ' ')
            value += c;
    }
    return value;
}

} // namespace npy

inline NpyGrid ReadNpy(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    if (!in)
        throw std::runtime_error("cannot open " + path.string());
    const std::vector<unsigned char> b(std::istreambuf_iterator<char>(in), {});
    const std::string where = " in " + path.string();
    if (b.size() < 10 || std::memcmp(b.data(), "\x93NUMPY", 6) != 0)
        throw std::runtime_error("no .npy magic" + where);
    const int major = b[6];
    if (major < 1 || major > 3)
        throw std::runtime_error("unknown .npy version" + where);
    const size_t lengthBytes = major == 1 ? 2 : 4;
    if (b.size() < 8 + lengthBytes)
        throw std::runtime_error("short .npy header" + where);
    const size_t headerStart = 8 + lengthBytes;
    const size_t headerLength = static_cast<size_t>(npy::LittleEndian(b.data() + 8, static_cast<int>(lengthBytes)));
    if (headerLength > b.size() - headerStart)
        throw std::runtime_error("short .npy header" + where);
    const std::string header(b.begin() + static_cast<std::ptrdiff_t>(headerStart),
                             b.begin() + static_cast<std::ptrdiff_t>(headerStart + headerLength));

    const std::string descr = npy::DictValue(header, "descr");
    int elementBytes = 0;
    if (descr == "'<i2'")
        elementBytes = 2;
    else if (descr == "'<f4'")
        elementBytes = 4;
    else if (descr == "'<f8'")
        elementBytes = 8;
    else
        throw std::runtime_error("unsupported element type " + descr + where);
    if (npy::DictValue(header, "fortran_order") != "False")
        throw std::runtime_error("only C order is supported" + where);

    long long rows = -1, columns = -1;
    const std::string shape = npy::DictValue(header, "shape");
    // %n proves the closing parenthesis follows the second entry, so (2,3,4) is refused.
    int consumed = 0;
    if (std::sscanf(shape.c_str(), "(%lld,%lld)%n", &rows, &columns, &consumed) != 2 || consumed == 0
        || rows < 0 || columns < 0
        || rows > (1 << 20) || columns > (1 << 20))
        throw std::runtime_error("not a 2-D shape " + shape + where);

    const size_t count = static_cast<size_t>(rows) * static_cast<size_t>(columns);
    const size_t dataStart = headerStart + headerLength;
    if ((b.size() - dataStart) / static_cast<size_t>(elementBytes) < count)
        throw std::runtime_error("short .npy data" + where);

    NpyGrid grid;
    grid.width = static_cast<int>(columns);
    grid.height = static_cast<int>(rows);
    grid.values.resize(count);
    const unsigned char* data = b.data() + dataStart;
    for (size_t i = 0; i < count; ++i) {
        const std::uint64_t bits = npy::LittleEndian(data + i * static_cast<size_t>(elementBytes), elementBytes);
        if (elementBytes == 2) {
            grid.values[i] = static_cast<float>(static_cast<std::int16_t>(static_cast<std::uint16_t>(bits)));
        } else if (elementBytes == 4) {
            const auto u = static_cast<std::uint32_t>(bits);
            std::memcpy(&grid.values[i], &u, 4);
        } else {
            double d;
            std::memcpy(&d, &bits, 8);
            grid.values[i] = static_cast<float>(d);
        }
    }
    return grid;
}

} // namespace qzsse::detail
