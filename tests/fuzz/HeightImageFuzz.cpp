// The shared height-image reader, on a file whose extension follows its signature.

#include <cstring>

#include "fuzz/FuzzSupport.h"
#include "support/HeightImage.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const char* extension = ".tif";
    if (size >= 4 && std::memcmp(data, "\x89PNG", 4) == 0)
        extension = ".png";
    else if (size >= 6 && std::memcmp(data, "\x93NUMPY", 6) == 0)
        extension = ".npy";
    const std::string path = qzsse::fuzz::WriteScratchFile(data, size, extension);
    try {
        const qzsse::support::HeightImage image = qzsse::support::LoadHeightImage(path);
        if (image.values.size() != static_cast<size_t>(image.width) * static_cast<size_t>(image.height))
            __builtin_trap();
    } catch (const qzsse::support::InputError&) {
    }
    return 0;
}
