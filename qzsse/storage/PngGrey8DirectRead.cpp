#include "qzsse/storage/detail/PngGrey8Direct.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>
#include <memory>
#include <new>

#include <libdeflate.h>

namespace qzsse::detail {
namespace {

struct DecompressorDeleter {
    void operator()(libdeflate_decompressor* d) const { libdeflate_free_decompressor(d); }
};

// A Paeth row after a row above, in place as unfilterInPlace needs it. Each byte depends on
// the one before, so the chain is kept short: the terms of the pixel above and above-left
// are formed off the chain, and the choice is made without branches (noise mispredicts).
void unfilterPaethRow(const unsigned char* src, const unsigned char* above, size_t width, unsigned char* dst)
{
    int a = static_cast<unsigned char>(src[0] + above[0]);   // a = c = 0: the prediction is b
    dst[0] = static_cast<unsigned char>(a);
    for (size_t x = 1; x < width; ++x) {
        const int b = above[x], c = above[x - 1];
        const int bc = b - c;
        const int pa = std::abs(bc);
        const int ac = a - c;
        const int pb = std::abs(ac), pc = std::abs(ac + bc);
        const int bOrC = pb <= pc ? b : c;
        const int prediction = pa <= pb && pa <= pc ? a : bOrC;
        a = static_cast<unsigned char>(src[x] + prediction);
        dst[x] = static_cast<unsigned char>(a);
    }
}

// The rows after their filter bytes, in place: row y moves from y * (width + 1) + 1 to
// y * width. Each destination byte lies before every source byte not yet read, so a forward
// pass (or a 16-byte load before its store) never overwrites what it still needs.
bool unfilterInPlace(unsigned char* buffer, size_t width, size_t height)
{
    for (size_t y = 0; y < height; ++y) {
        const unsigned char* src = buffer + y * (width + 1) + 1;
        const unsigned char filter = src[-1];
        unsigned char* dst = buffer + y * width;
        const unsigned char* above = y > 0 ? dst - width : nullptr;
        switch (filter) {
        case c_filterNone:
            std::memmove(dst, src, width);
            break;
        case c_filterSub: {
            unsigned char left = 0;
            for (size_t x = 0; x < width; ++x)
                dst[x] = left = static_cast<unsigned char>(src[x] + left);
            break;
        }
        case c_filterUp:
            if (above == nullptr) {
                std::memmove(dst, src, width);
                break;
            }
            {
                size_t x = 0;
                for (; x + 16 <= width; x += 16) {
                    const __m128i d = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + x));
                    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + x));
                    _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x), _mm_add_epi8(d, b));
                }
                for (; x < width; ++x)
                    dst[x] = static_cast<unsigned char>(src[x] + above[x]);
            }
            break;
        case c_filterAverage:
            for (size_t x = 0; x < width; ++x) {
                const unsigned a = x > 0 ? dst[x - 1] : 0u;
                const unsigned b = above ? above[x] : 0u;
                dst[x] = static_cast<unsigned char>(src[x] + ((a + b) >> 1));
            }
            break;
        case c_filterPaeth:
            if (above == nullptr) {
                // No row above: the left neighbour is the prediction.
                unsigned char left = 0;
                for (size_t x = 0; x < width; ++x)
                    dst[x] = left = static_cast<unsigned char>(src[x] + left);
                break;
            }
            unfilterPaethRow(src, above, width, dst);
            break;
        default:
            return false;
        }
    }
    return true;
}

} // namespace

bool ReadSimplePngGrey8(const unsigned char* data, size_t size, DecodedImage& image)
{
    image.pixels.clear();
    // Signature and the IHDR chunk, then the IDAT header.
    if (size < 8 + 25 + 8 || std::memcmp(data, c_pngSignature, 8) != 0)
        return false;
    const unsigned char* ihdr = data + 8;
    if (loadBigEndian32(ihdr) != 13 || std::memcmp(ihdr + 4, "IHDR", 4) != 0
        || libdeflate_crc32(0, ihdr + 4, 17) != loadBigEndian32(ihdr + 21))
        return false;
    const uint32_t width = loadBigEndian32(ihdr + 8);
    const uint32_t height = loadBigEndian32(ihdr + 12);
    const unsigned char* format = ihdr + 16;
    // Depth 8, grey, deflate, adaptive filters, no interlace.
    if (width == 0 || height == 0 || width > c_maxPngDimension || height > c_maxPngDimension || format[0] != 8
        || format[1] != 0 || format[2] != 0 || format[3] != 0 || format[4] != 0)
        return false;

    const unsigned char* idat = ihdr + 25;
    const size_t afterIdatHeader = size - (idat + 8 - data);
    const uint32_t idatLength = loadBigEndian32(idat);
    // The IDAT data, its CRC and a complete IEND chunk.
    if (std::memcmp(idat + 4, "IDAT", 4) != 0 || idatLength > c_maxPngDimension
        || static_cast<size_t>(idatLength) + 4 + 12 > afterIdatHeader)
        return false;
    const unsigned char* iend = idat + 12 + idatLength;
    if (loadBigEndian32(iend) != 0 || std::memcmp(iend + 4, "IEND", 4) != 0
        || libdeflate_crc32(0, iend + 4, 4) != loadBigEndian32(iend + 8)
        || libdeflate_crc32(0, idat + 4, static_cast<size_t>(idatLength) + 4) != loadBigEndian32(idat + 8 + idatLength))
        return false;
    if (!DecodedSizeAllowed(width, height, 8, image.maxBytes))
        return false;

    const size_t filteredBytes = (static_cast<size_t>(width) + 1) * height;
    const std::unique_ptr<libdeflate_decompressor, DecompressorDeleter> inflater(libdeflate_alloc_decompressor());
    if (!inflater)
        return false;
    try {
        image.pixels.resize(filteredBytes);
    } catch (const std::bad_alloc&) {
        image.pixels = {};
        return false;
    }
    size_t consumed = 0;
    size_t produced = 0;
    const libdeflate_result result = libdeflate_zlib_decompress_ex(inflater.get(), idat + 8, idatLength,
                                                                   image.pixels.data(), filteredBytes, &consumed,
                                                                   &produced);
    if (result != LIBDEFLATE_SUCCESS || consumed != idatLength || produced != filteredBytes
        || !unfilterInPlace(image.pixels.data(), width, height)) {
        image.pixels = {};
        return false;
    }
    image.pixels.resize(static_cast<size_t>(width) * height);
    image.width = width;
    image.height = height;
    image.bitsPerPixel = 8;
    return true;
}

} // namespace qzsse::detail
