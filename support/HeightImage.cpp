#include "support/HeightImage.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <csetjmp>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <cstdarg>
#include <limits>
#include <memory>

#include <png.h>
#include <tiffio.h>

#include "support/PngErrors.h"
#include "support/NpyReader.h"

namespace qzsse::support {
namespace {

namespace fs = std::filesystem;

std::string lowerExtension(const fs::path& path)
{
    std::string ext = path.extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    return ext;
}

void checkSides(long long width, long long height, const std::string& what)
{
    if (width < kMinSide || height < kMinSide || width > kMaxSide || height > kMaxSide)
        throw InputError(what + " is " + std::to_string(width) + " x " + std::to_string(height)
                         + "; the demo needs between " + std::to_string(kMinSide) + " and "
                         + std::to_string(kMaxSide) + " columns and rows");
}

// --- .npy -----------------------------------------------------------------------------------

// The shared reader accepts any shape whose first two entries parse, so the header is
// checked here first: exactly two dimensions, sides within limits, and no more bytes than
// the data needs (the reader loads the whole file before it looks at the data).
void checkNpyHeader(const fs::path& path)
{
    std::ifstream in(path, std::ios::binary);
    unsigned char prefix[12] = {};
    in.read(reinterpret_cast<char*>(prefix), sizeof prefix);
    if (in.gcount() < 10 || std::memcmp(prefix, "\x93NUMPY", 6) != 0)
        throw InputError(path.string() + " is not a .npy file (no .npy magic)");
    const int major = prefix[6];
    if (major < 1 || major > 3)
        throw InputError(path.string() + ": unknown .npy version " + std::to_string(major));
    const size_t lengthBytes = major == 1 ? 2 : 4;
    if (static_cast<size_t>(in.gcount()) < 8 + lengthBytes)
        throw InputError(path.string() + ": truncated .npy header");
    const size_t headerLength = static_cast<size_t>(qzsse::detail::npy::LittleEndian(prefix + 8, static_cast<int>(lengthBytes)));
    if (headerLength > 65536)
        throw InputError(path.string() + ": implausible .npy header length");
    const size_t headerStart = 8 + lengthBytes;
    std::string header(headerLength, '\0');
    in.clear();
    in.seekg(static_cast<std::streamoff>(headerStart));
    in.read(header.data(), static_cast<std::streamsize>(headerLength));
    if (static_cast<size_t>(in.gcount()) != headerLength)
        throw InputError(path.string() + ": truncated .npy header");

    const std::string shape = qzsse::detail::npy::DictValue(header, "shape");
    if (shape.size() < 2 || shape.front() != '(' || shape.back() != ')')
        throw InputError(path.string() + ": cannot read the .npy shape");
    std::vector<long long> sides;
    std::string item;
    for (size_t i = 1; i + 1 <= shape.size(); ++i) {
        const char c = i + 1 == shape.size() ? ',' : shape[i];
        if (c == ',') {
            if (!item.empty()) {
                if (item.size() > 12 || !std::all_of(item.begin(), item.end(), [](unsigned char d) { return std::isdigit(d); }))
                    throw InputError(path.string() + ": cannot read the .npy shape " + shape);
                sides.push_back(std::stoll(item));
            }
            item.clear();
        } else {
            item += c;
        }
    }
    if (sides.size() != 2)
        throw InputError(path.string() + " holds a " + std::to_string(sides.size()) + "-D array " + shape
                         + "; a height image must be 2-D (rows, columns)");
    checkSides(sides[1], sides[0], path.string());

    const std::string descr = qzsse::detail::npy::DictValue(header, "descr");
    const long long elementBytes = descr == "'<i2'" ? 2 : descr == "'<f4'" ? 4 : descr == "'<f8'" ? 8 : 0;
    if (elementBytes == 0)
        throw InputError(path.string() + ": unsupported .npy element type " + descr
                         + " (use little-endian float32, float64 or int16)");
    const auto fileSize = static_cast<long long>(fs::file_size(path));
    const long long needed = static_cast<long long>(headerStart + headerLength) + sides[0] * sides[1] * elementBytes;
    if (fileSize < needed)
        throw InputError(path.string() + ": truncated .npy data (" + std::to_string(fileSize) + " of "
                         + std::to_string(needed) + " bytes)");
    if (fileSize > needed + 4096)
        throw InputError(path.string() + ": " + std::to_string(fileSize - needed)
                         + " unexpected bytes after the .npy data");
}

HeightImage loadNpy(const fs::path& path)
{
    checkNpyHeader(path);
    qzsse::detail::NpyGrid grid;
    try {
        grid = qzsse::detail::ReadNpy(path);
    } catch (const std::runtime_error& e) {
        throw InputError(e.what());
    }
    HeightImage image;
    image.width = grid.width;
    image.height = grid.height;
    image.values = std::move(grid.values);
    image.format = ".npy array";
    return image;
}

// --- PNG --------------------------------------------------------------------------------------

// Everything that lives across setjmp is created before it, so a longjmp out of libpng
// skips no destructor.
HeightImage loadPng(const fs::path& path)
{
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    if (!file)
        throw InputError("cannot open " + path.string());
    unsigned char signature[8] = {};
    if (std::fread(signature, 1, 8, file.get()) != 8 || png_sig_cmp(signature, 0, 8) != 0)
        throw InputError(path.string() + " is not a PNG file (no PNG signature)");

    PngErrorState errors;
    png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, &errors, pngError, pngWarning);
    if (!png)
        throw std::bad_alloc();
    png_infop info = png_create_info_struct(png);
    HeightImage image;
    std::vector<unsigned char> pixels;
    std::vector<png_bytep> rows;
    std::string refusal;
    if (setjmp(png_jmpbuf(png))) {
        png_destroy_read_struct(&png, &info, nullptr);
        throw InputError(path.string() + ": damaged or truncated PNG (" + errors.message + ")");
    }
    if (!info)
        png_error(png, "out of memory");
    png_set_user_limits(png, kMaxSide, kMaxSide);
    png_init_io(png, file.get());
    png_set_sig_bytes(png, 8);
    png_read_info(png, info);
    const png_uint_32 width = png_get_image_width(png, info);
    const png_uint_32 height = png_get_image_height(png, info);
    const int colorType = png_get_color_type(png, info);
    const int bitDepth = png_get_bit_depth(png, info);
    if (colorType != PNG_COLOR_TYPE_GRAY) {
        refusal = path.string() + " is a colour or grey+alpha PNG; a height image must be single-channel greyscale";
    } else if (bitDepth != 8 && bitDepth != 16) {
        refusal = path.string() + " is a " + std::to_string(bitDepth)
                  + "-bit greyscale PNG; only 8- and 16-bit samples are read as heights";
    } else if (width < kMinSide || height < kMinSide) {
        refusal = "small";
    }
    if (refusal.empty()) {
        png_set_interlace_handling(png);
        png_read_update_info(png, info);
        const size_t rowBytes = png_get_rowbytes(png, info);
        pixels.resize(rowBytes * height);
        rows.resize(height);
        for (png_uint_32 y = 0; y < height; ++y)
            rows[y] = pixels.data() + rowBytes * y;
        png_read_image(png, rows.data());
        png_read_end(png, nullptr);
    }
    png_destroy_read_struct(&png, &info, nullptr);
    if (refusal == "small")
        checkSides(width, height, path.string());
    if (!refusal.empty())
        throw InputError(refusal);

    image.width = static_cast<int>(width);
    image.height = static_cast<int>(height);
    image.values.resize(static_cast<size_t>(width) * height);
    for (size_t i = 0; i < image.values.size(); ++i)
        image.values[i] = bitDepth == 8 ? static_cast<float>(pixels[i])
                                        : static_cast<float>((pixels[2 * i] << 8) | pixels[2 * i + 1]);
    image.format = std::to_string(bitDepth) + "-bit greyscale PNG";
    return image;
}

// --- TIFF -------------------------------------------------------------------------------------

// GDAL keeps the no-data value as ASCII text in a private tag, which libtiff must be told
// about before it opens a file, or it drops the tag as unknown.
constexpr ttag_t kGdalNoDataTag = TIFFTAG_GDAL_NODATA;
TIFFExtendProc g_parentExtender = nullptr;

void addNoDataTag(TIFF* tif)
{
    static const TIFFFieldInfo noData[] = {
        {kGdalNoDataTag, -1, -1, TIFF_ASCII, FIELD_CUSTOM, 1, 0, const_cast<char*>("GDALNoDataValue")}};
    TIFFMergeFieldInfo(tif, noData, 1);
    if (g_parentExtender)
        g_parentExtender(tif);
}

void registerNoDataTag()
{
    static const bool registered = [] {
        g_parentExtender = TIFFSetTagExtender(addNoDataTag);
        return true;
    }();
    (void)registered;
}

// libtiff's messages for one handle: the first error is kept for the exception.
int keepTiffError(TIFF*, void* user, const char* module, const char* format, va_list args)
{
    auto* error = static_cast<std::string*>(user);
    if (error->empty()) {
        char buffer[512];
        std::vsnprintf(buffer, sizeof buffer, format, args);
        *error = std::string(module ? module : "TIFF") + ": " + buffer;
    }
    return 1;
}
int ignoreTiffWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

struct TiffCloser {
    void operator()(TIFF* t) const { TIFFClose(t); }
};
struct TiffOptionsFree {
    void operator()(TIFFOpenOptions* o) const { TIFFOpenOptionsFree(o); }
};

// A sample of the file's type at p, as a double (exact for every supported type).
using SampleReader = double (*)(const unsigned char* p);
template <class T>
double readSample(const unsigned char* p)
{
    T v;
    std::memcpy(&v, p, sizeof v);
    return static_cast<double>(v);
}

SampleReader sampleReader(uint16_t format, uint16_t bits)
{
    if (format == SAMPLEFORMAT_UINT) {
        switch (bits) {
        case 8: return readSample<uint8_t>;
        case 16: return readSample<uint16_t>;
        case 32: return readSample<uint32_t>;
        }
    } else if (format == SAMPLEFORMAT_INT) {
        switch (bits) {
        case 8: return readSample<int8_t>;
        case 16: return readSample<int16_t>;
        case 32: return readSample<int32_t>;
        }
    } else if (format == SAMPLEFORMAT_IEEEFP) {
        switch (bits) {
        case 32: return readSample<float>;
        case 64: return readSample<double>;
        }
    }
    return nullptr;
}

std::string sampleName(uint16_t format, uint16_t bits)
{
    const char* kind = format == SAMPLEFORMAT_IEEEFP ? "float" : format == SAMPLEFORMAT_INT ? "signed integer" : "unsigned integer";
    return std::to_string(bits) + "-bit " + kind;
}

// The tag's text as a number; a tag that does not parse as one is ignored, as GDAL does.
bool parseNoData(const char* text, double& value)
{
    if (text == nullptr)
        return false;
    char* end = nullptr;
    value = std::strtod(text, &end);
    if (end == text)
        return false;
    while (std::isspace(static_cast<unsigned char>(*end)))
        ++end;
    return *end == '\0';
}

HeightImage loadTiff(const fs::path& path)
{
    registerNoDataTag();
    std::string error;
    std::unique_ptr<TIFFOpenOptions, TiffOptionsFree> options(TIFFOpenOptionsAlloc());
    if (!options)
        throw std::bad_alloc();
    TIFFOpenOptionsSetErrorHandlerExtR(options.get(), keepTiffError, &error);
    TIFFOpenOptionsSetWarningHandlerExtR(options.get(), ignoreTiffWarning, nullptr);
    // A strip or tile of the largest accepted image in 64-bit samples; more is damage.
    TIFFOpenOptionsSetMaxSingleMemAlloc(options.get(), tmsize_t{8} * kMaxSide * kMaxSide);
    std::unique_ptr<TIFF, TiffCloser> tif(TIFFOpenExt(path.c_str(), "r", options.get()));
    if (!tif)
        throw InputError("cannot read " + path.string() + " as TIFF" + (error.empty() ? std::string() : " (" + error + ")"));
    TIFF* t = tif.get();
    uint32_t width = 0, height = 0;
    uint16_t samples = 1, bits = 1, format = SAMPLEFORMAT_UINT;
    TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLEFORMAT, &format);
    const SampleReader read = samples == 1 ? sampleReader(format, bits) : nullptr;
    if (read == nullptr)
        throw InputError(path.string() + " has " + std::to_string(samples) + " sample(s) of " + std::to_string(bits)
                         + " bits, format " + std::to_string(format)
                         + "; a height TIFF must hold one sample per pixel: 8, 16 or 32-bit integers "
                           "(signed or unsigned) or 32 or 64-bit floats");
    checkSides(width, height, path.string());
    const size_t sampleBytes = bits / 8u;
    char* noDataText = nullptr;
    double noData = 0.0;
    const bool hasNoData = TIFFGetField(t, kGdalNoDataTag, &noDataText) == 1 && parseNoData(noDataText, noData);
    // The text is compared at the samples' precision: "-3.4e38" names a float sample.
    if (format == SAMPLEFORMAT_IEEEFP && bits == 32)
        noData = static_cast<double>(static_cast<float>(noData));

    HeightImage image;
    image.width = static_cast<int>(width);
    image.height = static_cast<int>(height);
    image.values.assign(static_cast<size_t>(width) * height, 0.0f);
    auto fail = [&](const char* what) {
        return InputError(path.string() + ": damaged or truncated TIFF (" + what
                          + (error.empty() ? std::string() : ", " + error) + ")");
    };
    // Copies a block of samples (rows of blockWidth) whose top left pixel is (x0, y0),
    // clipped to the image.
    const auto place = [&](const std::vector<unsigned char>& block, uint32_t blockWidth, uint32_t blockRows,
                           uint32_t x0, uint32_t y0) {
        for (uint32_t y = y0; y < std::min(height, y0 + blockRows); ++y)
            for (uint32_t x = x0; x < std::min(width, x0 + blockWidth); ++x) {
                const double v = read(block.data() + (static_cast<size_t>(y - y0) * blockWidth + (x - x0)) * sampleBytes);
                image.values[static_cast<size_t>(y) * width + x] =
                    hasNoData && (v == noData || (std::isnan(v) && std::isnan(noData)))
                        ? std::numeric_limits<float>::quiet_NaN()
                        : static_cast<float>(v);
            }
    };
    if (TIFFIsTiled(t)) {
        uint32_t tileW = 0, tileH = 0;
        TIFFGetField(t, TIFFTAG_TILEWIDTH, &tileW);
        TIFFGetField(t, TIFFTAG_TILELENGTH, &tileH);
        if (tileW == 0 || tileH == 0 || tileW > 4096 || tileH > 4096
            || TIFFTileSize64(t) != static_cast<uint64_t>(tileW) * tileH * sampleBytes)
            throw fail("unusable tile layout");
        std::vector<unsigned char> tile(static_cast<size_t>(tileW) * tileH * sampleBytes);
        for (uint32_t ty = 0; ty < height; ty += tileH)
            for (uint32_t tx = 0; tx < width; tx += tileW) {
                if (TIFFReadTile(t, tile.data(), tx, ty, 0, 0) < 0)
                    throw fail("tile read failed");
                place(tile, tileW, tileH, tx, ty);
            }
    } else {
        uint32_t rowsPerStrip = height;
        TIFFGetFieldDefaulted(t, TIFFTAG_ROWSPERSTRIP, &rowsPerStrip);
        rowsPerStrip = std::clamp<uint32_t>(rowsPerStrip, 1, height);
        const size_t rowBytes = static_cast<size_t>(width) * sampleBytes;
        if (TIFFScanlineSize64(t) != rowBytes)
            throw fail("unexpected scanline size");
        std::vector<unsigned char> strip(rowBytes * rowsPerStrip);
        for (uint32_t y = 0; y < height; y += rowsPerStrip) {
            const uint32_t rows = std::min(rowsPerStrip, height - y);
            const tmsize_t got = TIFFReadEncodedStrip(t, TIFFComputeStrip(t, y, 0), strip.data(),
                                                      static_cast<tmsize_t>(rowBytes * rows));
            if (got < static_cast<tmsize_t>(rowBytes * rows))
                throw fail("strip read failed");
            place(strip, width, rows, 0, y);
        }
    }
    if (!error.empty())
        throw fail("read error");
    image.format = sampleName(format, bits) + " TIFF";
    return image;
}

// No-data samples become the lowest valid height; the library's range scans are seeded
// at +-1e6, so heights beyond that would be reported wrongly and are refused.
void cleanValues(HeightImage& image, const fs::path& path)
{
    float lowest = std::numeric_limits<float>::infinity();
    for (const float v : image.values)
        if (std::isfinite(v))
            lowest = std::min(lowest, v);
    if (!std::isfinite(lowest))
        throw InputError(path.string() + " holds no finite height");
    for (float& v : image.values) {
        if (!std::isfinite(v)) {
            v = lowest;
            ++image.replacedNoData;
        } else if (std::fabs(v) >= 1.0e6f) {
            throw InputError(path.string() + " holds a height of " + std::to_string(v)
                             + "; heights must lie strictly between -1e6 and 1e6");
        }
    }
}

} // namespace

HeightImage LoadHeightImage(const std::filesystem::path& path)
{
    std::error_code ec;
    if (!fs::exists(path, ec))
        throw InputError("no such file: " + path.string());
    if (!fs::is_regular_file(path, ec))
        throw InputError(path.string() + " is not a regular file");
    const std::string ext = lowerExtension(path);
    HeightImage image;
    if (ext == ".npy")
        image = loadNpy(path);
    else if (ext == ".png")
        image = loadPng(path);
    else if (ext == ".tif" || ext == ".tiff")
        image = loadTiff(path);
    else
        throw InputError("cannot read " + path.string() + ": the extension '" + ext
                         + "' is not one of .npy, .png, .tif, .tiff");
    cleanValues(image, path);
    return image;
}

} // namespace qzsse::support
