#pragma once

// Files for the demo's tests: height images written in every input format (and damaged
// ones), and readers for what the demo writes (PNG size, PLY mesh).

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace demotest {

namespace fs = std::filesystem;

// A row-major grid of heights.
struct Grid {
    int width = 0;
    int height = 0;
    std::vector<float> values;
    float at(int x, int y) const { return values[static_cast<size_t>(y) * static_cast<size_t>(width) + static_cast<size_t>(x)]; }
};

// .npy version 1.0 with the given dtype ('<f4', '<f8' or '<i2') and shape; the values of
// the grid are written in C order (as many as the shape holds, repeating the grid).
void WriteNpy(const fs::path& path, const Grid& grid, const std::string& dtype, const std::vector<int>& shape);
// Greyscale PNG of 8 or 16 bits (values rounded and clamped), or an RGB PNG.
void WritePngGrey(const fs::path& path, const Grid& grid, int bitDepth);
void WritePngRgb(const fs::path& path, int width, int height);
// Single-sample 32-bit float TIFF in strips.
void WriteTiffFloat(const fs::path& path, const Grid& grid);
// Keeps the first `keep` bytes of a file.
void Truncate(const fs::path& path, std::uintmax_t keep);

// Width and height of a PNG that decodes completely; {-1, -1} if it does not.
std::pair<int, int> DecodePngSize(const fs::path& path);

struct PlyMesh {
    std::vector<float> xyz;               // 3 per vertex
    std::vector<std::int32_t> corners;    // 3 per face
    std::string error;                    // empty when the file parsed
};
// Parses a binary little-endian PLY with float x, y, z vertices and uchar/int faces of
// three corners, requiring the body to be exactly as long as the header says.
PlyMesh ReadPly(const fs::path& path);

} // namespace demotest
