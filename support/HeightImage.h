#pragma once

// Reading a height image from a file into a row-major float grid, for the demo and any tool
// that takes the height images users have:
// - .npy: 2-D, little-endian float32, float64 or int16;
// - PNG: 8- or 16-bit greyscale;
// - TIFF / GeoTIFF: one sample per pixel of 8, 16 or 32-bit integers (signed or unsigned)
//   or 32 or 64-bit floats, in strips or tiles, with any compression libtiff decodes; the
//   GDAL no-data tag (42113) is honoured.
// File bytes are untrusted: every size is checked before anything is allocated for it.
// Library: qzsse_height_image (support/CMakeLists.txt).

#include <filesystem>
#include <stdexcept>
#include <string>
#include <vector>

namespace qzsse::support {

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
    int replacedNoData = 0;      // no-data samples set to the lowest valid height
};

// Images must have at least this many rows and columns (the contour trace keeps a frame
// of three columns and four rows clear) and at most kMaxSide of either.
constexpr int kMinSide = 16;
constexpr int kMaxSide = 8192;

// Throws InputError for a missing file, an unknown extension, a damaged or truncated file,
// an unsupported sample type, a shape that is not 2-D or sides outside [kMinSide, kMaxSide].
// No-data samples (NaN, infinities, and in a TIFF the value of its no-data tag) become the
// lowest valid height and are counted.
HeightImage LoadHeightImage(const std::filesystem::path& path);

} // namespace qzsse::support
