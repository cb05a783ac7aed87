// CSSEMatrix: the image codecs under the matrix stream. An encoded image on a stream is a
// uint32 byte count N followed by the N bytes of a complete PNG, TIFF or JPEG file.

#include <cmath>
#include <cstring>
#include <emmintrin.h>
#include <limits>
#include <vector>

#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinary.h"
#include "qzsse/base/RbStreamWriteBinary.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/base/RyFloatingPointQuantization.h"
#include "qzsse/base/RyJPEGWriter.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/matrix/detail/RowMask.h"
#include "qzsse/storage/detail/ImageCodecs.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"

namespace qzsse::detail {
namespace {

// The TIFF compression code of CCITT group 4, and 0 for the codec's default, which for
// the only TIFF written here is group 4 as well.
constexpr unsigned char c_ucTiffCompressionDefault = 0;
constexpr unsigned char c_ucTiffCompressionCCITT4 = 3;

size_t rowStride(unsigned long long width, unsigned int bitsPerPixel)
{
    return static_cast<size_t>((width * bitsPerPixel + 7) / 8);
}

// Lanes whose bit is set in the low four bits of `bits` (bit r for lane r).
inline __m128 laneMaskFromBits(int bits)
{
    const __m128i laneBits = _mm_setr_epi32(1, 2, 4, 8);
    return _mm_castsi128_ps(_mm_cmpeq_epi32(_mm_and_si128(_mm_set1_epi32(bits), laneBits), laneBits));
}

} // namespace
} // namespace qzsse::detail

// Encodes with the codec of the container; a failure writes nothing, not even the count.
void CSSEMatrix::encode(const RbArray<unsigned char>& pixels, RbStreamWriteBinary& stream,
                        qzsse::ImageContainer container, unsigned int bitsPerPixel,
                        const qzsse::ImageEncodeOptions* options) const
{
    using namespace qzsse::detail;
    const unsigned int width = static_cast<unsigned int>(m_SizeX);
    const unsigned int height = static_cast<unsigned int>(m_SizeY);
    const size_t stride = rowStride(width, bitsPerPixel);
    if (static_cast<unsigned long long>(pixels.GetSize()) < static_cast<unsigned long long>(stride) * height)
        return;

    std::vector<unsigned char> file;
    bool encoded = false;
    switch (container) {
    case qzsse::ImageContainer::Png:
        encoded = bitsPerPixel == 8 && EncodePngGrey8(pixels.GetData(), width, height, file);
        break;
    case qzsse::ImageContainer::Tiff: {
        const unsigned char compression = options ? options->tiffCompressionMethod : c_ucTiffCompressionDefault;
        encoded = bitsPerPixel == 1
                  && (compression == c_ucTiffCompressionDefault || compression == c_ucTiffCompressionCCITT4)
                  && EncodeTiffBilevelG4(pixels.GetData(), width, height, file);
        break;
    }
    }
    if (!encoded || file.size() > std::numeric_limits<unsigned int>::max())
        return;
    stream.WriteUInt32(static_cast<unsigned int>(file.size()));
    stream.WriteBuffer(file.data(), file.size());
}

// width and height are set to 0 first and then to the frame's size once its header has
// been read and its size accepted, so after a failure they hold what was read, never
// garbage. The pixels keep the frame's own format, in rows of (width * bitsPerPixel + 7) / 8
// bytes; a frame with more bits per pixel than that leaves no room and fails.
RbArray<unsigned char> CSSEMatrix::decode(RbStreamReadBinary& stream, unsigned int bitsPerPixel,
                                          unsigned int& width, unsigned int& height)
{
    using namespace qzsse::detail;
    width = 0;
    height = 0;
    // A string is exactly a uint32 byte count and the bytes, and its reader refuses a count
    // beyond what the stream still holds before it allocates anything.
    const CString file = stream.ReadString();
    const DecodedImage image = DecodeImage(reinterpret_cast<const unsigned char*>(file.data()), file.size());
    if (image.width == 0 || image.height == 0
        || !DecodedSizeAllowed(image.width, image.height, bitsPerPixel, image.maxBytes))
        return {};
    width = image.width;
    height = image.height;
    if (image.pixels.empty())
        return {};

    const size_t frameStride = rowStride(image.width, image.bitsPerPixel);
    const size_t stride = rowStride(image.width, bitsPerPixel);
    if (stride < frameStride)
        return {};
    RbArray<unsigned char> pixels;
    pixels.SetSize(static_cast<std::ptrdiff_t>(stride * image.height));
    if (stride == frameStride) {
        std::memcpy(pixels.GetData(), image.pixels.data(), stride * image.height);
    } else {
        for (size_t y = 0; y < image.height; ++y)
            std::memcpy(pixels.GetData() + y * stride, image.pixels.data() + y * frameStride, frameStride);
    }
    return pixels;
}

void CSSEMatrix::encodePNG(RbStreamWriteBinary& stream) const
{
    const std::unique_ptr<RyFloatingPointQuantization> q =
        createAndEncodeQuantizer(m_CompressionParameters.m_bUseInvalidValue, stream);
    encode(quantize(*q), stream, qzsse::ImageContainer::Png, 8, nullptr);
}

// JPEG carries no invalid value; the count is written even when the writer produced nothing.
void CSSEMatrix::encodeJPEG(RbStreamWriteBinary& stream) const
{
    const std::unique_ptr<RyFloatingPointQuantization> q = createAndEncodeQuantizer(false, stream);
    const RbArray<unsigned char> codes = quantize(*q);
    RyJPEGWriter writer(codes, m_SizeX, m_SizeY);
    writer.SetQuality(m_CompressionParameters.m_fJPEGQuality);
    RbStreamWriteBinaryBuffer buffer;
    writer.Serialize(buffer);
    stream.WriteUInt32(static_cast<unsigned int>(buffer.GetSize()));
    stream.WriteBuffer(buffer.GetData(), buffer.GetSize());
}

// Two-level matrices: the mean of the valid elements, the invalid value and a bit plane
// with 1 where an element is invalid.
void CSSEMatrix::encodeCCITT4(RbStreamWriteBinary& stream) const
{
    using namespace qzsse::detail;
    const float invalid = m_CompressionParameters.m_fInvalidValue;
    const bool invalidIsNaN = std::isnan(invalid);

    // A float sum in row-major order, one element after the other: the mean's bits depend
    // on that order, so it is not split into lanes.
    float sum = 0.0f;
    int count = 0;
    if (m_Data != nullptr)
        for (int y = 0; y < m_SizeY; ++y)
            for (int x = 0; x < m_SizeX; ++x) {
                const float v = GetPointUnsafe(x, y);
                if (!(v == invalid || (invalidIsNaN && std::isnan(v)))) {
                    sum += v;
                    ++count;
                }
            }
    const float mean = count > 0 ? sum / static_cast<float>(count) : 0.0f;
    stream.WriteFloat(mean);
    stream.WriteFloat(invalid);

    const size_t stride = rowStride(static_cast<unsigned int>(m_SizeX), 1);
    RbArray<unsigned char> bits;
    if (m_Data != nullptr) {
        bits.SetSize(static_cast<std::ptrdiff_t>(stride * m_SizeY));
        const __m128 invalidV = _mm_set1_ps(invalid);
        const __m128 nanMatches = _mm_castsi128_ps(_mm_set1_epi32(invalidIsNaN ? -1 : 0));
        for (int j = 0; 4 * j < m_SizeY; ++j) {
            const __m128* band = m_Data[j];
            const int rows = m_SizeY - 4 * j < 4 ? m_SizeY - 4 * j : 4;
            unsigned char* rowStart = bits.GetData() + static_cast<size_t>(4 * j) * stride;
            for (int x = 0; x < m_SizeX; ++x) {
                const __m128 v = band[x];
                const int lanes = _mm_movemask_ps(
                    _mm_or_ps(_mm_cmpeq_ps(v, invalidV), _mm_and_ps(_mm_cmpunord_ps(v, v), nanMatches)));
                const unsigned char bit = static_cast<unsigned char>(0x80u >> (x & 7));
                for (int r = 0; r < rows; ++r)
                    if (lanes & (1 << r))
                        rowStart[static_cast<size_t>(r) * stride + (x >> 3)] |= bit;
            }
        }
    }
    const qzsse::ImageEncodeOptions options{c_ucTiffCompressionCCITT4};
    encode(bits, stream, qzsse::ImageContainer::Tiff, 1, &options);
}

// Applied only when the plane has this matrix's size; otherwise the matrix stays as it was.
void CSSEMatrix::decodeCCIT4(RbStreamReadBinary& stream)
{
    using namespace qzsse::detail;
    const float valid = stream.ReadFloat();
    const float invalid = stream.ReadFloat();
    unsigned int width = 0;
    unsigned int height = 0;
    const RbArray<unsigned char> bits = decode(stream, 1, width, height);
    const size_t stride = rowStride(width, 1);
    if (m_Data == nullptr || width != static_cast<unsigned int>(m_SizeX) || height != static_cast<unsigned int>(m_SizeY)
        || static_cast<unsigned long long>(bits.GetSize()) != static_cast<unsigned long long>(stride) * height)
        return;

    const __m128 validV = _mm_set1_ps(valid);
    const __m128 invalidV = _mm_set1_ps(invalid);
    for (int j = 0; 4 * j < m_SizeY; ++j) {
        __m128* band = m_Data[j];
        const __m128 real = realRowsMask(j, m_SizeY);
        const int rows = m_SizeY - 4 * j < 4 ? m_SizeY - 4 * j : 4;
        const unsigned char* rowStart = bits.GetData() + static_cast<size_t>(4 * j) * stride;
        for (int x = 0; x < m_SizeX; ++x) {
            const unsigned int shift = 7u - static_cast<unsigned int>(x & 7);
            int laneBits = 0;
            for (int r = 0; r < rows; ++r)
                laneBits |= ((rowStart[static_cast<size_t>(r) * stride + (x >> 3)] >> shift) & 1) << r;
            const __m128 value = select(laneMaskFromBits(laneBits), invalidV, validV);
            band[x] = select(real, value, band[x]);
        }
    }
}

void CSSEMatrix::decodeCompressed(RbStreamReadBinary& stream, unsigned int version, bool& hasInvalid,
                                  float& invalidValue)
{
    const std::unique_ptr<RyFloatingPointQuantization> q = createQuantizer(stream, version, hasInvalid, invalidValue);
    unsigned int width = 0;
    unsigned int height = 0;
    const RbArray<unsigned char> codes = decode(stream, 8, width, height);
    // decode accepts no size beyond 31999 rows and its payload's bound, so both fit an int.
    qzsse::detail::CheckMatrixSizeWithinLimit("CSSEMatrix image", width, height, stream.GetOffset());
    Create(static_cast<int>(width), static_cast<int>(height));
    deQuantize(*q, codes);
}
