// The versioned matrix stream: what its writer and reader share (raw floats, the rule by
// which a pass changes the matrix).


#include <algorithm>
#include <cstdint>
#include <cstring>
#include <cmath>
#include <limits>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <typeinfo>
#include <utility>
#include <vector>
#include <xmmintrin.h>

#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinary.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinary.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/base/RbThreadPool.h"
#include "qzsse/base/RyFloatingPointQuantization.h"
#include "qzsse/base/RyJPEGWriter.h"
#include "qzsse/base/detail/LittleEndian.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/storage/detail/GrowingBytes.h"
#include "qzsse/storage/detail/ImageCodecs.h"
#include "qzsse/storage/detail/MatrixStreamPasses.h"
#include "qzsse/storage/detail/PassEncoding.h"
#include "qzsse/storage/detail/PassDecoding.h"
#include "qzsse/storage/detail/PassImages.h"
#include "qzsse/storage/detail/PngGrey8Direct.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"


namespace qzsse::detail {
namespace {

// Raw floats move through a buffer of this many bytes (a multiple of one 16-byte vector).
constexpr size_t kRawChunkBytes = 64 * 1024;

// applyPass for a pass image of acc's size given by its codes (rows of width bytes), without
// forming the image: it holds values[code] in the real part and 0 in the padding, as a
// de-quantised matrix does. settled null means that nothing is settled yet and that this pass
// settles nothing (it has no invalid value). Fresh: acc is all zeros, whatever its storage
// holds, so it is written and not read.
template <bool Subtract, bool Fresh, bool WithSettled>
void applyPassCodesAs(CSSEMatrix& acc, CSSEMatrix* settled, const unsigned char* codes, const CodeValues& table,
                      bool hasInvalid, float invalid)
{
    const float* values = table.values;
    const __m128 zero = _mm_setzero_ps();
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 inv = _mm_set1_ps(invalid);
    const __m128 invIsNaN = _mm_cmpunord_ps(inv, inv);
    const __m128 checkInvalid = hasInvalid ? _mm_cmpeq_ps(zero, zero) : zero;
    const int width = acc.GetSizeX();
    const int height = acc.GetSizeY();
    const size_t stride = static_cast<size_t>(width);
    __m128** a = acc.GetMatrixDataDirectly();
    __m128** m = WithSettled ? settled->GetMatrixDataDirectly() : nullptr;

    const auto combine = [&](int j, int x, __m128 tv) {
        const __m128 before = Fresh ? zero : a[j][x];
        const __m128 updated = Subtract ? _mm_sub_ps(before, tv) : _mm_add_ps(before, tv);
        if constexpr (WithSettled) {
            const __m128 open = _mm_cmpeq_ps(m[j][x], zero);
            a[j][x] = select(open, updated, before);
            m[j][x] = select(_mm_and_ps(equalsInvalid(tv, inv, invIsNaN), checkInvalid), one, m[j][x]);
        } else {
            a[j][x] = updated;
        }
    };

    for (int j = 0; j < acc.GetSSESizeY(); ++j) {
        const int rows = std::clamp(height - 4 * j, 0, 4);
        const unsigned char* row = codes + static_cast<size_t>(4 * j) * stride;
        int x = 0;
        if (rows == 4) {
            for (; x < width; ++x)
                combine(j, x, _mm_setr_ps(values[row[x]], values[row[stride + x]], values[row[2 * stride + x]],
                                          values[row[3 * stride + x]]));
        } else if (rows > 0) {
            for (; x < width; ++x) {
                alignas(16) float lanes[4] = {0.0f, 0.0f, 0.0f, 0.0f};
                for (int r = 0; r < rows; ++r)
                    lanes[r] = values[row[static_cast<size_t>(r) * stride + static_cast<size_t>(x)]];
                combine(j, x, _mm_load_ps(lanes));
            }
        }
        for (; x < acc.GetSSESizeX(); ++x)
            combine(j, x, zero);
    }
}

} // namespace

// Column by column, and within a column block by block, as the format orders the floats.
void writeRawFloats(const CSSEMatrix& m, RbStreamWriteBinary& stream)
{
    const int width = m.GetSizeX();
    const int blocks = rawBlockCount(m.GetSizeY());
    if (width == 0 || blocks == 0)
        return;
    __m128** data = m.GetMatrixDataDirectly();
    std::vector<unsigned char> chunk(kRawChunkBytes);
    size_t used = 0;
    for (int x = 0; x < width; ++x) {
        for (int b = 0; b < blocks; ++b) {
            const float* v = reinterpret_cast<const float*>(data[b] + x);
            for (int lane = 0; lane < 4; ++lane)
                StoreValueLittleEndian(v[lane], chunk.data() + used + 4 * lane);
            used += 16;
            if (used == chunk.size()) {
                stream.WriteBuffer(chunk.data(), used);
                used = 0;
            }
        }
    }
    if (used)
        stream.WriteBuffer(chunk.data(), used);
}

void readRawFloats(CSSEMatrix& m, RbStreamReadBinary& stream)
{
    const int width = m.GetSizeX();
    const int blocks = rawBlockCount(m.GetSizeY());
    if (width == 0 || blocks == 0)
        return;
    __m128** data = m.GetMatrixDataDirectly();
    std::vector<unsigned char> chunk(kRawChunkBytes);
    unsigned long long left = rawFloatBytes(width, m.GetSizeY());
    size_t have = 0;
    size_t used = 0;
    for (int x = 0; x < width; ++x) {
        for (int b = 0; b < blocks; ++b) {
            if (used == have) {
                have = static_cast<size_t>(std::min<unsigned long long>(left, chunk.size()));
                stream.ReadBuffer(chunk.data(), have);
                left -= have;
                used = 0;
            }
            float* v = reinterpret_cast<float*>(data[b] + x);
            for (int lane = 0; lane < 4; ++lane)
                v[lane] = LoadValueLittleEndian<float>(chunk.data() + used + 4 * lane);
            used += 16;
        }
    }
}

// One pass of the residual coding, shared by writer and reader so that both follow the
// same rule: where the element is not yet settled, the pass image is subtracted (writer,
// from the residual) or added (reader, to the result); then every element where the pass
// image holds the invalid value is settled. `image` null stands for a pass image of
// imageWidth x imageHeight zeros (a payload the codecs could not decode); an image of
// another size than acc only reaches their common part.
void applyPass(CSSEMatrix& acc, CSSEMatrix& settled, const CSSEMatrix* image, unsigned imageWidth,
               unsigned imageHeight, bool hasInvalid, float invalid, bool subtract, SettledStairs& stairs)
{
    if (image && image->GetSizeX() == acc.GetSizeX() && image->GetSizeY() == acc.GetSizeY()) {
        const __m128 zero = _mm_setzero_ps();
        const __m128 one = _mm_set1_ps(1.0f);
        const __m128 inv = _mm_set1_ps(invalid);
        const __m128 invIsNaN = _mm_cmpunord_ps(inv, inv);
        const __m128 checkInvalid = hasInvalid ? _mm_cmpeq_ps(zero, zero) : zero;
        __m128** a = acc.GetMatrixDataDirectly();
        __m128** m = settled.GetMatrixDataDirectly();
        __m128** t = image->GetMatrixDataDirectly();
        for (int j = 0; j < acc.GetSSESizeY(); ++j) {
            for (int x = 0; x < acc.GetSSESizeX(); ++x) {
                const __m128 tv = t[j][x];
                const __m128 open = _mm_cmpeq_ps(m[j][x], zero);
                const __m128 updated = subtract ? _mm_sub_ps(a[j][x], tv) : _mm_add_ps(a[j][x], tv);
                a[j][x] = select(open, updated, a[j][x]);
                m[j][x] = select(_mm_and_ps(equalsInvalid(tv, inv, invIsNaN), checkInvalid), one, m[j][x]);
            }
        }
        return;
    }
    const int width = static_cast<int>(std::min<unsigned>(imageWidth, static_cast<unsigned>(acc.GetSizeX())));
    const int height = static_cast<int>(std::min<unsigned>(imageHeight, static_cast<unsigned>(acc.GetSizeY())));
    if (image) {
        for (int y = 0; y < height; ++y) {
            for (int x = 0; x < width; ++x) {
                const float tv = image->GetPointUnsafe(x, y);
                float* a = acc.GetPointAddressUnsafe(x, y);
                float* m = settled.GetPointAddressUnsafe(x, y);
                if (*m == 0.0f)
                    *a = subtract ? *a - tv : *a + tv;
                if (hasInvalid && equalsInvalid(tv, invalid))
                    *m = 1.0f;
            }
        }
        return;
    }
    // A pass of zeros leaves every value as it is (a - 0 is a; the reader's sum starts at
    // +0 and so never holds -0, for which + 0 would change the sign), so it only settles
    // its region when zero is the invalid value, and then only what no failed pass before
    // it settled.
    if (!hasInvalid || !equalsInvalid(0.0f, invalid))
        return;
    if (stairs.size() < static_cast<size_t>(height))
        stairs.resize(static_cast<size_t>(height), 0);
    for (int y = 0; y < height; ++y) {
        for (int x = stairs[static_cast<size_t>(y)]; x < width; ++x)
            *settled.GetPointAddressUnsafe(x, y) = 1.0f;
        stairs[static_cast<size_t>(y)] = std::max(stairs[static_cast<size_t>(y)], width);
    }
}

void applyPassCodes(CSSEMatrix& acc, CSSEMatrix* settled, const unsigned char* codes, const CodeValues& table,
                    bool hasInvalid, float invalid, bool subtract, bool fresh)
{
    if (settled) {
        if (subtract)
            applyPassCodesAs<true, false, true>(acc, settled, codes, table, hasInvalid, invalid);
        else if (fresh)
            applyPassCodesAs<false, true, true>(acc, settled, codes, table, hasInvalid, invalid);
        else
            applyPassCodesAs<false, false, true>(acc, settled, codes, table, hasInvalid, invalid);
    } else {
        if (subtract)
            applyPassCodesAs<true, false, false>(acc, nullptr, codes, table, hasInvalid, invalid);
        else if (fresh)
            applyPassCodesAs<false, true, false>(acc, nullptr, codes, table, hasInvalid, invalid);
        else
            applyPassCodesAs<false, false, false>(acc, nullptr, codes, table, hasInvalid, invalid);
    }
}

// The codes of a pass's payload, which is released.
std::vector<unsigned char> decodePassCodes(CString& file, unsigned int& width, unsigned int& height)
{
    std::vector<unsigned char> codes =
        DecodePassCodes(reinterpret_cast<const unsigned char*>(file.data()), file.size(), width, height);
    CString().swap(file);
    return codes;
}

// Sizes the matrix for a decoded pass image. False when the codes do not fill an image of
// that size (a failed decode): de-quantizing would leave the image at zero then, which
// applyPass reproduces without allocating it.
bool preparePassImage(const RbArray<unsigned char>& codes, unsigned width, unsigned height, CSSEMatrix& image)
{
    if (static_cast<unsigned long long>(codes.GetSize()) != static_cast<unsigned long long>(width) * height)
        return false;
    if (width > static_cast<unsigned>(std::numeric_limits<int>::max()) || height > static_cast<unsigned>(kMaxStreamHeight))
        throw RbStreamException("CSSEMatrix: a pass image of " + std::to_string(width) + " x "
                                + std::to_string(height) + " pixels is larger than any matrix");
    image.Create(static_cast<int>(width), static_cast<int>(height));
    return true;
}

} // namespace qzsse::detail
