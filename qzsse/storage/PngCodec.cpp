#include <algorithm>
#include <csetjmp>
#include <cstring>

#include <png.h>

#include "qzsse/storage/detail/ImageCodecs.h"
#include "qzsse/storage/detail/PngGrey8Direct.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"

namespace qzsse::detail {
namespace {

// libpng's default handlers print to stderr (and the error handler would then jump to a
// buffer we did not set); ours stay silent and always jump back to the caller's setjmp.
[[noreturn]] void jumpOnPngError(png_structp png, png_const_charp)
{
    png_longjmp(png, 1);
}

void ignorePngWarning(png_structp, png_const_charp) {}

struct PngSource {
    const unsigned char* data;
    size_t size;
    size_t position;
};

void readPngBytes(png_structp png, png_bytep out, size_t length)
{
    auto* source = static_cast<PngSource*>(png_get_io_ptr(png));
    if (length > source->size - source->position)
        png_error(png, "truncated");
    std::memcpy(out, source->data + source->position, length);
    source->position += length;
}

// Owns the libpng structures; created before the setjmp of its user, so a jump back does
// not skip its destructor.
struct PngReadHandles {
    png_structp png = nullptr;
    png_infop info = nullptr;
    ~PngReadHandles() { png_destroy_read_struct(&png, info ? &info : nullptr, nullptr); }
};

bool readPng(const unsigned char* data, size_t size, DecodedImage& image)
{
    PngSource source{data, size, 0};
    PngReadHandles h;
    h.png = png_create_read_struct(PNG_LIBPNG_VER_STRING, nullptr, jumpOnPngError, ignorePngWarning);
    if (h.png == nullptr)
        return false;
    h.info = png_create_info_struct(h.png);
    if (h.info == nullptr)
        return false;
    if (setjmp(png_jmpbuf(h.png)))
        return false;

    png_set_read_fn(h.png, &source, readPngBytes);
    // The size check below replaces libpng's default limit of a million columns.
    png_set_user_limits(h.png, PNG_UINT_31_MAX, PNG_UINT_31_MAX);
    png_read_info(h.png, h.info);
    const unsigned int width = png_get_image_width(h.png, h.info);
    const unsigned int height = png_get_image_height(h.png, h.info);
    image.bitsPerPixel = static_cast<unsigned int>(png_get_bit_depth(h.png, h.info))
                         * png_get_channels(h.png, h.info);
    if (!DecodedSizeAllowed(width, height, image.bitsPerPixel, image.maxBytes))
        return false;
    image.width = width;
    image.height = height;

    const int passes = png_set_interlace_handling(h.png);
    png_read_update_info(h.png, h.info);
    const size_t stride = (static_cast<size_t>(image.width) * image.bitsPerPixel + 7) / 8;
    if (png_get_rowbytes(h.png, h.info) != stride)
        return false;
    image.pixels.assign(stride * image.height, 0);
    // Interlaced passes fill the same rows step by step.
    for (int pass = 0; pass < passes; ++pass)
        for (unsigned int y = 0; y < image.height; ++y)
            png_read_row(h.png, image.pixels.data() + stride * y, nullptr);
    // Also checks that the file ends properly: a truncated payload is refused, not padded.
    png_read_end(h.png, nullptr);
    return true;
}

} // namespace

bool EncodePngGrey8(const unsigned char* pixels, unsigned int width, unsigned int height,
                    std::vector<unsigned char>& out)
{
    return WritePngGrey8Direct(pixels, width, height, out);
}

DecodedImage DecodePng(const unsigned char* data, size_t size)
{
    DecodedImage image;
    image.maxBytes = std::min(c_ullMaxDecodedBytesPerPayloadByte * size, MaxDecodedBytes());
    // Payloads of the form the writer produces skip libpng; every other one, and any the
    // direct reader refuses, goes through it.
    if (ReadSimplePngGrey8(data, size, image))
        return image;
    if (!readPng(data, size, image)) {
        image.pixels.clear();
        image.pixels.shrink_to_fit();
    }
    return image;
}

} // namespace qzsse::detail
