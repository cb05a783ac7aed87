#include <algorithm>
#include <csetjmp>
#include <cstdio>

// jpeglib.h expects FILE and size_t to be declared before it.
#include <jpeglib.h>

#include "qzsse/storage/detail/ImageCodecs.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"

namespace qzsse::detail {
namespace {

struct JpegReadErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
};

[[noreturn]] void jumpOnJpegReadError(j_common_ptr info)
{
    std::longjmp(reinterpret_cast<JpegReadErrorManager*>(info->err)->jump, 1);
}

// Warnings (level -1) are fatal too: the codec answers a truncated or damaged scan with a
// warning and grey filler, and a payload patched up like that must not pass as intact.
void jumpOnJpegWarning(j_common_ptr info, int level)
{
    if (level < 0)
        jumpOnJpegReadError(info);
}

void ignoreJpegMessage(j_common_ptr) {}

// Owns the decompressor; constructed before the setjmp of its user, so a jump back does not
// skip its destructor. Zeroed, it can be destroyed before and after jpeg_create_decompress
// alike, so nothing changed after the setjmp needs to be looked at.
struct JpegReadHandle {
    jpeg_decompress_struct info{};
    JpegReadErrorManager error{};
    ~JpegReadHandle() { jpeg_destroy_decompress(&info); }
};

bool readJpeg(const unsigned char* data, size_t size, DecodedImage& image)
{
    JpegReadHandle h;
    h.info.err = jpeg_std_error(&h.error.base);
    h.error.base.error_exit = jumpOnJpegReadError;
    h.error.base.emit_message = jumpOnJpegWarning;
    h.error.base.output_message = ignoreJpegMessage;
    if (setjmp(h.error.jump))
        return false;

    jpeg_create_decompress(&h.info);
    jpeg_mem_src(&h.info, data, static_cast<unsigned long>(size));
    if (jpeg_read_header(&h.info, TRUE) != JPEG_HEADER_OK)
        return false;
    // The frame's own format: grey stays grey, colour comes out as 8-bit components.
    jpeg_calc_output_dimensions(&h.info);
    image.bitsPerPixel = 8u * static_cast<unsigned int>(h.info.out_color_components);
    if (!DecodedSizeAllowed(h.info.output_width, h.info.output_height, image.bitsPerPixel, image.maxBytes))
        return false;
    image.width = h.info.output_width;
    image.height = h.info.output_height;

    jpeg_start_decompress(&h.info);
    const size_t stride = static_cast<size_t>(h.info.output_width) * h.info.output_components;
    image.pixels.assign(stride * h.info.output_height, 0);
    while (h.info.output_scanline < h.info.output_height) {
        JSAMPROW row = image.pixels.data() + stride * h.info.output_scanline;
        jpeg_read_scanlines(&h.info, &row, 1);
    }
    jpeg_finish_decompress(&h.info);
    return true;
}

} // namespace

DecodedImage DecodeJpeg(const unsigned char* data, size_t size)
{
    DecodedImage image;
    image.maxBytes = std::min(c_ullMaxDecodedBytesPerPayloadByte * size, MaxDecodedBytes());
    if (!readJpeg(data, size, image)) {
        image.pixels.clear();
        image.pixels.shrink_to_fit();
    }
    return image;
}

} // namespace qzsse::detail
