#include "qzsse/storage/detail/PassImages.h"

#include <algorithm>
#include <cstring>

#include "qzsse/storage/detail/ImageCodecs.h"
#include "qzsse/storage/detail/JpegGreyRows.h"
#include "qzsse/storage/detail/PngGrey8Direct.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"

namespace qzsse::detail {

std::vector<unsigned char> DecodePassCodes(const unsigned char* data, size_t size, unsigned int& width,
                                           unsigned int& height)
{
    width = 0;
    height = 0;
    DecodedImage image = DecodeImage(data, size);
    if (image.width == 0 || image.height == 0 || !DecodedSizeAllowed(image.width, image.height, 8, image.maxBytes))
        return {};
    width = image.width;
    height = image.height;
    if (image.pixels.empty() || image.bitsPerPixel > 8)
        return {};
    if (image.bitsPerPixel == 8)
        return std::move(image.pixels);
    // Narrower frames keep their own rows, each at the start of a row of width bytes.
    const size_t frameStride = (static_cast<size_t>(image.width) * image.bitsPerPixel + 7) / 8;
    std::vector<unsigned char> codes(static_cast<size_t>(image.width) * image.height, 0);
    for (size_t y = 0; y < image.height; ++y)
        std::memcpy(codes.data() + y * image.width, image.pixels.data() + y * frameStride, frameStride);
    return codes;
}

PassImageRows::PassImageRows() = default;
PassImageRows::~PassImageRows() = default;

bool PassImageRows::Open(const unsigned char* data, size_t size, unsigned int width, unsigned int height)
{
    m_jpeg.reset();
    m_png.reset();
    if (size >= 3 && data[0] == 0xFF && data[1] == 0xD8 && data[2] == 0xFF) {
        auto rows = std::make_unique<JpegGreyRows>();
        if (rows->Open(data, size) && rows->Width() == width && rows->Height() == height)
            m_jpeg = std::move(rows);
    } else if (size >= sizeof(c_pngSignature) && std::memcmp(data, c_pngSignature, sizeof(c_pngSignature)) == 0) {
        // Bounded as the whole-image reader bounds it.
        const unsigned long long maxBytes = std::min(c_ullMaxDecodedBytesPerPayloadByte * size, MaxDecodedBytes());
        auto rows = std::make_unique<PngGrey8Rows>();
        if (rows->Open(data, size, maxBytes) && rows->LiteralOnly() && rows->Width() == width
            && rows->Height() == height)
            m_png = std::move(rows);
    }
    return m_jpeg || m_png;
}

bool PassImageRows::ReadRows(unsigned char* out, unsigned int rows)
{
    return m_jpeg ? m_jpeg->ReadRows(out, rows) : m_png && m_png->ReadRows(out, rows);
}

bool PassImageRows::Finish()
{
    return m_jpeg ? m_jpeg->Finish() : m_png && m_png->Finish();
}

} // namespace qzsse::detail
