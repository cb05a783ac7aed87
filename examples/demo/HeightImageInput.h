#pragma once

// Reading a height image from a file into a row-major float grid. Supported: 2-D .npy
// (little-endian float32, float64 or int16), 8- or 16-bit greyscale PNG and 32-bit float
// TIFF with one sample per pixel. File bytes are untrusted: every size is checked before
// anything is allocated for it.

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace qzsse::demo {

// Why an input cannot be used, worded for the person who named the file.
class InputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

struct HeightImage {
    int width = 0;
    int height = 0;
    std::vector<float> values;   // row-major, width * height
    std::string format;          // e.g. "16-bit PNG"
    int replacedNoData = 0;      // non-finite samples set to the lowest finite height
};

// Images must have at least this many rows and columns (the contour trace keeps a frame
// of three columns and four rows clear) and at most kMaxSide of either.
constexpr int kMinSide = 16;
constexpr int kMaxSide = 8192;

// Throws InputError for a missing file, an unknown extension, a damaged or truncated file,
// an unsupported sample type, a shape that is not 2-D or sides outside [kMinSide, kMaxSide].
// NaN and infinite samples (no-data) become the lowest finite height and are counted.
HeightImage LoadHeightImage(const std::filesystem::path& path);

} // namespace qzsse::demo
