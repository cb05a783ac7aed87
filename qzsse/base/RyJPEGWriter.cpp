#include "qzsse/base/RyJPEGWriter.h"

#include <csetjmp>
#include <cstdio>
#include <cstdlib>

// jpeglib.h expects FILE and size_t to be declared before it.
#include <jpeglib.h>

#include "qzsse/base/RbStreamWriteBinary.h"

namespace qzsse::detail {
namespace {

struct JpegWriteErrorManager {
    jpeg_error_mgr base;
    std::jmp_buf jump;
};

// The codec's default handler prints and exits the process; a failed encoding here only
// means that nothing is written.
[[noreturn]] void jumpOnJpegWriteError(j_common_ptr info)
{
    std::longjmp(reinterpret_cast<JpegWriteErrorManager*>(info->err)->jump, 1);
}

void ignoreJpegWriteMessage(j_common_ptr) {}

// Plain C state only between setjmp and longjmp, so the jump skips no destructor. On
// success *out is a malloc'ed buffer the caller frees.
bool compressGrey(const unsigned char* pixels, int width, int height, int quality,
                  unsigned char** out, unsigned long* outSize)
{
    // Zeroed, so that destroying it is safe even if creating it failed.
    jpeg_compress_struct info{};
    JpegWriteErrorManager error{};
    info.err = jpeg_std_error(&error.base);
    error.base.error_exit = jumpOnJpegWriteError;
    error.base.output_message = ignoreJpegWriteMessage;
    *out = nullptr;
    *outSize = 0;

    if (setjmp(error.jump)) {
        jpeg_destroy_compress(&info);
        std::free(*out);
        *out = nullptr;
        *outSize = 0;
        return false;
    }

    jpeg_create_compress(&info);
    jpeg_mem_dest(&info, out, outSize);
    info.image_width = static_cast<JDIMENSION>(width);
    info.image_height = static_cast<JDIMENSION>(height);
    info.input_components = 1;
    info.in_color_space = JCS_GRAYSCALE;
    jpeg_set_defaults(&info);
    jpeg_set_quality(&info, quality, TRUE);
    // The integer DCT gives the same bytes on every machine, SIMD or not.
    info.dct_method = JDCT_ISLOW;
    jpeg_start_compress(&info, TRUE);
    while (info.next_scanline < info.image_height) {
        JSAMPROW row = const_cast<JSAMPROW>(pixels + static_cast<size_t>(info.next_scanline) * width);
        jpeg_write_scanlines(&info, &row, 1);
    }
    jpeg_finish_compress(&info);
    jpeg_destroy_compress(&info);
    return true;
}

} // namespace
} // namespace qzsse::detail

RyJPEGWriter::RyJPEGWriter(const RbArray<unsigned char>& codes, int width, int height)
    : m_codes(codes), m_iWidth(width), m_iHeight(height)
{
}

void RyJPEGWriter::SetQuality(float q)
{
    const float scaled = q * 100.0f + 0.5f;
    if (!(scaled >= 1.0f))
        m_iQuality = 1;
    else if (scaled >= 100.0f)
        m_iQuality = 100;
    else
        m_iQuality = static_cast<int>(scaled);
}

bool RyJPEGWriter::Serialize(RbStreamWriteBinary& stream) const
{
    if (m_iWidth <= 0 || m_iHeight <= 0
        || m_codes.GetSize() < static_cast<std::ptrdiff_t>(m_iWidth) * m_iHeight)
        return false;

    unsigned char* bytes = nullptr;
    unsigned long size = 0;
    if (!qzsse::detail::compressGrey(m_codes.GetData(), m_iWidth, m_iHeight, m_iQuality, &bytes, &size))
        return false;
    try {
        stream.WriteBuffer(bytes, size);
    } catch (...) {
        std::free(bytes);
        throw;
    }
    std::free(bytes);
    return true;
}
