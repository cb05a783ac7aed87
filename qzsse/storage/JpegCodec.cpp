#include <algorithm>
#include <csetjmp>
#include <memory>
#include <cstdio>

// jpeglib.h expects FILE and size_t to be declared before it.
#include <jpeglib.h>

#include "qzsse/storage/detail/ImageCodecs.h"
#include "qzsse/storage/detail/JpegGreyRows.h"
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

// Rows asked for per call: the codec returns at most one row group (8 or 16 rows) a call,
// and fewer calls spare its per-call work.
constexpr JDIMENSION kRowsPerRead = 16;

void installJpegErrorHandlers(JpegReadHandle& h)
{
    h.info.err = jpeg_std_error(&h.error.base);
    h.error.base.error_exit = jumpOnJpegReadError;
    h.error.base.emit_message = jumpOnJpegWarning;
    h.error.base.output_message = ignoreJpegMessage;
}

// Opens the stream and reads its header and output size. Call after setjmp on h.error.jump:
// the codec's errors jump back there.
bool readJpegHeader(JpegReadHandle& h, const unsigned char* data, size_t size)
{
    jpeg_create_decompress(&h.info);
    jpeg_mem_src(&h.info, data, static_cast<unsigned long>(size));
    if (jpeg_read_header(&h.info, TRUE) != JPEG_HEADER_OK)
        return false;
    jpeg_calc_output_dimensions(&h.info);
    return true;
}

bool readJpeg(const unsigned char* data, size_t size, DecodedImage& image)
{
    JpegReadHandle h;
    installJpegErrorHandlers(h);
    if (setjmp(h.error.jump))
        return false;

    if (!readJpegHeader(h, data, size))
        return false;
    // The frame's own format: grey stays grey, colour comes out as 8-bit components.
    image.bitsPerPixel = 8u * static_cast<unsigned int>(h.info.out_color_components);
    if (!DecodedSizeAllowed(h.info.output_width, h.info.output_height, image.bitsPerPixel, image.maxBytes))
        return false;
    image.width = h.info.output_width;
    image.height = h.info.output_height;

    jpeg_start_decompress(&h.info);
    const size_t stride = static_cast<size_t>(h.info.output_width) * h.info.output_components;
    image.pixels.assign(stride * h.info.output_height, 0);
    JSAMPROW rows[kRowsPerRead];
    while (h.info.output_scanline < h.info.output_height) {
        const JDIMENSION first = h.info.output_scanline;
        const JDIMENSION count = std::min<JDIMENSION>(kRowsPerRead, h.info.output_height - first);
        for (JDIMENSION r = 0; r < count; ++r)
            rows[r] = image.pixels.data() + stride * (first + r);
        jpeg_read_scanlines(&h.info, rows, count);
    }
    jpeg_finish_decompress(&h.info);
    return true;
}

} // namespace

struct JpegGreyRows::State {
    JpegReadHandle h;
    bool started = false;
};

JpegGreyRows::JpegGreyRows() = default;
JpegGreyRows::~JpegGreyRows() = default;

bool JpegGreyRows::Open(const unsigned char* data, size_t size)
{
    m_state = std::make_unique<State>();
    JpegReadHandle& h = m_state->h;
    installJpegErrorHandlers(h);
    if (setjmp(h.error.jump))
        return false;
    if (!readJpegHeader(h, data, size))
        return false;
    const unsigned long long maxBytes = std::min(c_ullMaxDecodedBytesPerPayloadByte * size, MaxDecodedBytes());
    if (h.info.out_color_components != 1
        || !DecodedSizeAllowed(h.info.output_width, h.info.output_height, 8, maxBytes))
        return false;
    jpeg_start_decompress(&h.info);
    m_state->started = true;
    return true;
}

unsigned int JpegGreyRows::Width() const { return m_state->h.info.output_width; }
unsigned int JpegGreyRows::Height() const { return m_state->h.info.output_height; }

bool JpegGreyRows::ReadRows(unsigned char* out, unsigned int rows)
{
    if (!m_state || !m_state->started)
        return false;
    JpegReadHandle& h = m_state->h;
    if (rows > h.info.output_height - h.info.output_scanline)
        return false;
    if (setjmp(h.error.jump)) {
        m_state->started = false;
        return false;
    }
    const size_t stride = h.info.output_width;
    JSAMPROW pointers[kRowsPerRead];
    for (unsigned int done = 0; done < rows;) {
        const unsigned int count = std::min<unsigned int>(kRowsPerRead, rows - done);
        for (unsigned int r = 0; r < count; ++r)
            pointers[r] = out + stride * (done + r);
        const JDIMENSION read = jpeg_read_scanlines(&h.info, pointers, count);
        if (read == 0) {
            m_state->started = false;
            return false;
        }
        done += read;
    }
    return true;
}

bool JpegGreyRows::Finish()
{
    if (!m_state || !m_state->started)
        return false;
    JpegReadHandle& h = m_state->h;
    m_state->started = false;
    if (h.info.output_scanline != h.info.output_height)
        return false;
    if (setjmp(h.error.jump))
        return false;
    jpeg_finish_decompress(&h.info);
    return true;
}

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
