// The Jpeg payload decoder, as the matrix codecs call it.

#include "fuzz/FuzzSupport.h"
#include "qzsse/storage/detail/ImageCodecs.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    qzsse::fuzz::UseFuzzLimits();
    const qzsse::detail::DecodedImage image = qzsse::detail::DecodeJpeg(data, size);
    // A decoded image fills exactly its rows.
    if (!image.pixels.empty()
        && image.pixels.size() != (static_cast<size_t>(image.width) * image.bitsPerPixel + 7) / 8 * image.height)
        __builtin_trap();
    return 0;
}
