#include "qzsse/storage/detail/ImageCodecs.h"

#include <cstring>
#include <limits>

namespace qzsse::detail {

bool DecodedSizeAllowed(unsigned int width, unsigned int height, unsigned int bitsPerPixel,
                        unsigned long long maxBytes)
{
    if (width == 0 || height == 0 || bitsPerPixel == 0 || bitsPerPixel > 64
        || height > c_uiMaxDecodedHeight || width > static_cast<unsigned int>(std::numeric_limits<int>::max()))
        return false;
    const unsigned long long stride = (static_cast<unsigned long long>(width) * bitsPerPixel + 7) / 8;
    return stride <= maxBytes / height;
}

DecodedImage DecodeImage(const unsigned char* data, size_t size)
{
    static constexpr unsigned char png[] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    static constexpr unsigned char jpeg[] = {0xFF, 0xD8, 0xFF};
    // Classic and big TIFF, in either byte order.
    static constexpr unsigned char tiff[][4] = {{'I', 'I', 42, 0}, {'M', 'M', 0, 42},
                                                {'I', 'I', 43, 0}, {'M', 'M', 0, 43}};

    if (size >= sizeof(png) && std::memcmp(data, png, sizeof(png)) == 0)
        return DecodePng(data, size);
    if (size >= sizeof(jpeg) && std::memcmp(data, jpeg, sizeof(jpeg)) == 0)
        return DecodeJpeg(data, size);
    for (const auto& signature : tiff)
        if (size >= sizeof(signature) && std::memcmp(data, signature, sizeof(signature)) == 0)
            return DecodeTiff(data, size);
    return {};
}

} // namespace qzsse::detail
