#pragma once

// In-memory image codecs behind the matrix codecs: complete PNG, TIFF and JPEG files in
// byte vectors. Nothing here prints; every codec error ends in a false or empty result.

#include <cstddef>
#include <vector>

namespace qzsse::detail {

// A decoded frame in its own pixel format: rows of (width * bitsPerPixel + 7) / 8 bytes,
// top row first. pixels is empty after a failure; width and height then hold the header's
// size if it was read and accepted by DecodedSizeAllowed, else 0.
struct DecodedImage {
    std::vector<unsigned char> pixels;
    unsigned int width = 0;
    unsigned int height = 0;
    unsigned int bitsPerPixel = 0;
    // The largest pixel buffer this payload may be decoded into (see the bounds below).
    unsigned long long maxBytes = 0;
};

// Decoded images are refused above these sizes, before their pixels are allocated. A
// matrix holds at most 31999 rows. Deflate expands one byte to at most 1032, and no JPEG
// spends less than a bit on an 8 x 8 block, so a PNG or JPEG payload of N bytes describes
// at most 1032 * N bytes of pixels. A CCITT row of one colour costs one bit whatever its
// width, so TIFF frames get an absolute bound instead: 256 MiB, a 46000 x 46000 mask.
// Every bound is further capped by the caller's decoded payload limit (ReaderLimits.h).
inline constexpr unsigned int c_uiMaxDecodedHeight = 31999;
inline constexpr unsigned long long c_ullMaxDecodedBytesPerPayloadByte = 1032;
inline constexpr unsigned long long c_ullMaxDecodedTiffBytes = 1ull << 28;

// 8-bit grey PNG of rows of `width` bytes. False (out left empty) on a codec failure,
// which includes a zero width or height.
bool EncodePngGrey8(const unsigned char* pixels, unsigned int width, unsigned int height,
                    std::vector<unsigned char>& out);

// 1-bit TIFF, CCITT group 4, one strip, PHOTOMETRIC_MINISBLACK (a 1 bit is white), rows of
// (width + 7) / 8 bytes with the first pixel in the most significant bit.
bool EncodeTiffBilevelG4(const unsigned char* bits, unsigned int width, unsigned int height,
                         std::vector<unsigned char>& out);

DecodedImage DecodePng(const unsigned char* data, size_t size);
DecodedImage DecodeTiff(const unsigned char* data, size_t size);
DecodedImage DecodeJpeg(const unsigned char* data, size_t size);

// Chooses the decoder by the signature bytes; unknown bytes give an empty result.
DecodedImage DecodeImage(const unsigned char* data, size_t size);

// The size check shared by the decoders: true when a frame of this size may be allocated
// (also keeps width and height within an int, as matrix sizes are).
bool DecodedSizeAllowed(unsigned int width, unsigned int height, unsigned int bitsPerPixel,
                        unsigned long long maxBytes);

} // namespace qzsse::detail
