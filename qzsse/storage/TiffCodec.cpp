#include <algorithm>
#include <cstring>
#include <limits>

#include <tiffio.h>

#include "qzsse/storage/detail/ImageCodecs.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"

namespace qzsse::detail {
namespace {

// A TIFF file in memory, for libtiff's client procedures: written into `bytes` when
// writing, read from [data, data + size) when reading.
struct TiffMemoryFile {
    std::vector<unsigned char>* bytes = nullptr;
    const unsigned char* data = nullptr;
    size_t size = 0;
    size_t position = 0;
};

TiffMemoryFile& memoryFile(thandle_t handle)
{
    return *static_cast<TiffMemoryFile*>(handle);
}

tmsize_t tiffReadProc(thandle_t handle, void* out, tmsize_t length)
{
    TiffMemoryFile& file = memoryFile(handle);
    if (length < 0 || file.position >= file.size)
        return 0;
    const size_t count = std::min(static_cast<size_t>(length), file.size - file.position);
    std::memcpy(out, file.data + file.position, count);
    file.position += count;
    return static_cast<tmsize_t>(count);
}

// Called from inside libtiff: failures are reported as a short write, never thrown.
tmsize_t tiffWriteProc(thandle_t handle, void* in, tmsize_t length)
{
    TiffMemoryFile& file = memoryFile(handle);
    if (file.bytes == nullptr || length < 0)
        return -1;
    const size_t count = static_cast<size_t>(length);
    try {
        if (file.position + count > file.bytes->size())
            file.bytes->resize(file.position + count);
    } catch (...) {
        return -1;
    }
    std::memcpy(file.bytes->data() + file.position, in, count);
    file.position += count;
    file.size = file.bytes->size();
    file.data = file.bytes->data();
    return length;
}

toff_t tiffSeekProc(thandle_t handle, toff_t offset, int whence)
{
    TiffMemoryFile& file = memoryFile(handle);
    unsigned long long base = 0;
    if (whence == SEEK_CUR)
        base = file.position;
    else if (whence == SEEK_END)
        base = file.size;
    else if (whence != SEEK_SET)
        return static_cast<toff_t>(-1);
    const unsigned long long target = base + offset;
    // A reader may not seek past the end; a writer may (libtiff then writes there).
    if (target < base || (file.bytes == nullptr && target > file.size)
        || target > std::numeric_limits<size_t>::max() / 2)
        return static_cast<toff_t>(-1);
    file.position = static_cast<size_t>(target);
    return target;
}

int tiffCloseProc(thandle_t) { return 0; }

toff_t tiffSizeProc(thandle_t handle) { return memoryFile(handle).size; }

int tiffMapNothing(thandle_t, void**, toff_t*) { return 0; }
void tiffUnmapNothing(thandle_t, void*, toff_t) {}

// Swallows libtiff's errors and warnings for this one handle: answering 1 keeps them from
// the process-wide handlers, which print to stderr.
int swallowTiffMessage(TIFF*, void*, const char*, const char*, va_list) { return 1; }

struct TiffHandle {
    TIFF* tiff = nullptr;
    ~TiffHandle()
    {
        if (tiff != nullptr)
            TIFFClose(tiff);
    }
};

struct TiffOptions {
    TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
    // maxAllocation 0: libtiff's own limits only.
    explicit TiffOptions(tmsize_t maxAllocation)
    {
        if (options != nullptr) {
            TIFFOpenOptionsSetErrorHandlerExtR(options, swallowTiffMessage, nullptr);
            TIFFOpenOptionsSetWarningHandlerExtR(options, swallowTiffMessage, nullptr);
            TIFFOpenOptionsSetMaxSingleMemAlloc(options, maxAllocation);
        }
    }
    ~TiffOptions() { TIFFOpenOptionsFree(options); }
    TiffOptions(const TiffOptions&) = delete;
    TiffOptions& operator=(const TiffOptions&) = delete;
};

TIFF* openTiff(TiffMemoryFile& file, const char* mode, TiffOptions& options)
{
    if (options.options == nullptr)
        return nullptr;
    return TIFFClientOpenExt("memory", mode, &file, tiffReadProc, tiffWriteProc, tiffSeekProc,
                             tiffCloseProc, tiffSizeProc, tiffMapNothing, tiffUnmapNothing,
                             options.options);
}

bool writeTiffFile(const unsigned char* bits, unsigned int width, unsigned int height,
               std::vector<unsigned char>& out)
{
    if (width == 0 || height == 0)
        return false;
    const size_t stride = (static_cast<size_t>(width) + 7) / 8;
    // libtiff's encoders may work in place on the strip they are given.
    std::vector<unsigned char> strip(bits, bits + stride * height);

    TiffMemoryFile file;
    file.bytes = &out;
    TiffOptions options(0);
    TiffHandle h;
    h.tiff = openTiff(file, "w", options);
    if (h.tiff == nullptr)
        return false;
    TIFF* t = h.tiff;
    const bool tagsSet = TIFFSetField(t, TIFFTAG_IMAGEWIDTH, width) && TIFFSetField(t, TIFFTAG_IMAGELENGTH, height)
                         && TIFFSetField(t, TIFFTAG_BITSPERSAMPLE, 1) && TIFFSetField(t, TIFFTAG_SAMPLESPERPIXEL, 1)
                         && TIFFSetField(t, TIFFTAG_COMPRESSION, COMPRESSION_CCITTFAX4)
                         && TIFFSetField(t, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_MINISBLACK)
                         && TIFFSetField(t, TIFFTAG_FILLORDER, FILLORDER_MSB2LSB)
                         && TIFFSetField(t, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG)
                         && TIFFSetField(t, TIFFTAG_ROWSPERSTRIP, height);
    if (!tagsSet)
        return false;
    if (TIFFWriteEncodedStrip(t, 0, strip.data(), static_cast<tmsize_t>(strip.size())) < 0)
        return false;
    if (!TIFFWriteDirectory(t))
        return false;
    h.tiff = nullptr;
    TIFFClose(t);
    return true;
}

bool readTiffFile(const unsigned char* data, size_t size, DecodedImage& image)
{
    TiffMemoryFile file;
    file.data = data;
    file.size = size;
    // libtiff's working buffers grow with the width (the CCITT decoder keeps 8 bytes a
    // column); a damaged width must fail here rather than claim gigabytes.
    TiffOptions options(static_cast<tmsize_t>(image.maxBytes));
    TiffHandle h;
    h.tiff = openTiff(file, "rm", options);
    if (h.tiff == nullptr)
        return false;
    TIFF* t = h.tiff;

    uint32_t width = 0, height = 0;
    uint16_t bitsPerSample = 1, samplesPerPixel = 1, planar = PLANARCONFIG_CONTIG, photometric = 0;
    if (!TIFFGetField(t, TIFFTAG_IMAGEWIDTH, &width) || !TIFFGetField(t, TIFFTAG_IMAGELENGTH, &height))
        return false;
    TIFFGetFieldDefaulted(t, TIFFTAG_BITSPERSAMPLE, &bitsPerSample);
    TIFFGetFieldDefaulted(t, TIFFTAG_SAMPLESPERPIXEL, &samplesPerPixel);
    TIFFGetFieldDefaulted(t, TIFFTAG_PLANARCONFIG, &planar);
    if (!TIFFGetField(t, TIFFTAG_PHOTOMETRIC, &photometric))
        photometric = PHOTOMETRIC_MINISWHITE;
    image.bitsPerPixel = static_cast<unsigned int>(bitsPerSample) * samplesPerPixel;

    if (TIFFIsTiled(t) || (planar != PLANARCONFIG_CONTIG && samplesPerPixel > 1))
        return false;
    if (!DecodedSizeAllowed(width, height, image.bitsPerPixel, image.maxBytes))
        return false;
    image.width = width;
    image.height = height;
    const size_t stride = (static_cast<size_t>(width) * image.bitsPerPixel + 7) / 8;
    if (static_cast<unsigned long long>(TIFFScanlineSize64(t)) != stride)
        return false;

    // Rows are appended as they decode, so a damaged strip that claims a large image costs
    // only the rows it really holds.
    for (uint32_t y = 0; y < height; ++y) {
        image.pixels.resize(stride * (static_cast<size_t>(y) + 1));
        if (TIFFReadScanline(t, image.pixels.data() + stride * y, y, 0) < 0)
            return false;
    }
    // The platform's black-and-white format has 1 for white, whatever the file stores.
    if (photometric == PHOTOMETRIC_MINISWHITE && image.bitsPerPixel == 1)
        for (unsigned char& byte : image.pixels)
            byte = static_cast<unsigned char>(~byte);
    return true;
}

} // namespace

bool EncodeTiffBilevelG4(const unsigned char* bits, unsigned int width, unsigned int height,
                         std::vector<unsigned char>& out)
{
    out.clear();
    if (!writeTiffFile(bits, width, height, out)) {
        out.clear();
        return false;
    }
    return true;
}

DecodedImage DecodeTiff(const unsigned char* data, size_t size)
{
    DecodedImage image;
    image.maxBytes = std::min(c_ullMaxDecodedTiffBytes, MaxDecodedBytes());
    if (!readTiffFile(data, size, image)) {
        image.pixels.clear();
        image.pixels.shrink_to_fit();
    }
    return image;
}

} // namespace qzsse::detail
