#pragma once

// Writes single-sample height TIFFs of any sample type, layout and compression, with an
// optional GDAL no-data tag: the sample files of the height-image reader's tests and fuzz
// corpus. Not a general TIFF writer.

#include <algorithm>
#include <cstdint>
#include <limits>
#include <type_traits>
#include <cstring>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include <tiffio.h>

namespace qzsse::support {

struct HeightTiffLayout {
    uint16_t sampleFormat = SAMPLEFORMAT_IEEEFP;   // SAMPLEFORMAT_UINT, _INT or _IEEEFP
    uint16_t bitsPerSample = 32;
    uint16_t compression = COMPRESSION_NONE;
    uint32_t tileSide = 0;                         // 0: strips of rowsPerStrip rows
    uint32_t rowsPerStrip = 7;
    std::string noData;                            // empty: no tag
};

namespace detail {
template <class T>
void appendSample(std::vector<unsigned char>& out, double v)
{
    if constexpr (std::is_integral_v<T>)
        v = std::clamp(v, static_cast<double>(std::numeric_limits<T>::min()), static_cast<double>(std::numeric_limits<T>::max()));
    const T t = static_cast<T>(v);
    unsigned char bytes[sizeof(T)];
    std::memcpy(bytes, &t, sizeof t);
    out.insert(out.end(), bytes, bytes + sizeof t);
}
inline void appendAs(const HeightTiffLayout& l, std::vector<unsigned char>& out, double v)
{
    const bool isFloat = l.sampleFormat == SAMPLEFORMAT_IEEEFP;
    const bool isSigned = l.sampleFormat == SAMPLEFORMAT_INT;
    switch (l.bitsPerSample) {
    case 8: isSigned ? appendSample<int8_t>(out, v) : appendSample<uint8_t>(out, v); break;
    case 16: isSigned ? appendSample<int16_t>(out, v) : appendSample<uint16_t>(out, v); break;
    case 32: isFloat ? appendSample<float>(out, v) : isSigned ? appendSample<int32_t>(out, v) : appendSample<uint32_t>(out, v); break;
    case 64: appendSample<double>(out, v); break;
    default: throw std::invalid_argument("unsupported sample size");
    }
}
} // namespace detail

// values: row-major, width * height; integer samples are clamped to their type's range.
inline void WriteHeightTiff(const std::filesystem::path& path, uint32_t width, uint32_t height,
                            const std::vector<double>& values, const HeightTiffLayout& layout)
{
    struct Closer {
        void operator()(TIFF* t) const { TIFFClose(t); }
    };
    std::unique_ptr<TIFF, Closer> tif(TIFFOpen(path.c_str(), "w"));
    if (!tif)
        throw std::runtime_error("cannot create " + path.string());
    TIFF* t = tif.get();
    TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width);
    TIFFSetField(t, TIFFTAG_IMAGELENGTH, height);
    TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1);
    TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, layout.bitsPerSample);
    TIFFSetField(t, TIFFTAG_SAMPLEFORMAT, layout.sampleFormat);
    TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK);
    TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
    TIFFSetField(t, TIFFTAG_COMPRESSION, layout.compression);
    if (!layout.noData.empty()) {
        static const TIFFFieldInfo noData[] = {
            {TIFFTAG_GDAL_NODATA, -1, -1, TIFF_ASCII, FIELD_CUSTOM, 1, 0, const_cast<char*>("GDALNoDataValue")}};
        TIFFMergeFieldInfo(t, noData, 1);
        TIFFSetField(t, TIFFTAG_GDAL_NODATA, layout.noData.c_str());
    }
    const auto block = [&](uint32_t x0, uint32_t y0, uint32_t w, uint32_t h) {
        std::vector<unsigned char> bytes;
        for (uint32_t y = y0; y < y0 + h; ++y)
            for (uint32_t x = x0; x < x0 + w; ++x)
                detail::appendAs(layout, bytes, x < width && y < height ? values[static_cast<size_t>(y) * width + x] : 0.0);
        return bytes;
    };
    bool written = true;
    if (layout.tileSide) {
        TIFFSetField(t, TIFFTAG_TILEWIDTH, layout.tileSide);
        TIFFSetField(t, TIFFTAG_TILELENGTH, layout.tileSide);
        for (uint32_t y = 0; y < height; y += layout.tileSide)
            for (uint32_t x = 0; x < width; x += layout.tileSide) {
                std::vector<unsigned char> tile = block(x, y, layout.tileSide, layout.tileSide);
                written = written && TIFFWriteTile(t, tile.data(), x, y, 0, 0) >= 0;
            }
    } else {
        TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, layout.rowsPerStrip);
        for (uint32_t y = 0; y < height; y += layout.rowsPerStrip) {
            const uint32_t rows = std::min(layout.rowsPerStrip, height - y);
            std::vector<unsigned char> strip = block(0, y, width, rows);
            written = written && TIFFWriteEncodedStrip(t, TIFFComputeStrip(t, y, 0), strip.data(),
                                                       static_cast<tmsize_t>(strip.size())) >= 0;
        }
    }
    if (!written)
        throw std::runtime_error("cannot write " + path.string());
}

} // namespace qzsse::support
