// The versioned matrix stream: header, raw floats, multi-pass residual coding through the
// 8-bit image codecs, and the two-level bit plane.

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
#include "qzsse/storage/detail/PassEncoding.h"
#include "qzsse/storage/detail/PassDecoding.h"
#include "qzsse/storage/detail/PassImages.h"
#include "qzsse/storage/detail/PngGrey8Direct.h"
#include "qzsse/storage/detail/ReaderLimitChecks.h"

namespace qzsse::detail {
namespace {

// The field table bounds the height a matrix can hold.
constexpr int kMaxStreamHeight = 4 * CSSEMatrix::c_iMaxFields * CSSEMatrix::c_iLinesPerField - 1;
// The pass index of the format is an 8-bit counter.
constexpr unsigned int kMaxPasses = 255;
// Entries of up to this many passes are read whole and summed in one sweep; the codes of
// every pass are then held at once.
constexpr unsigned int kMaxSweptPasses = 4;
// Raw floats move through a buffer of this many bytes (a multiple of one 16-byte vector).
constexpr size_t kRawChunkBytes = 64 * 1024;

// Blocks of four rows the raw payload holds: ceil(height / 4), never the extra band of
// padding rows below a height that is a multiple of four.
int rawBlockCount(int height) { return (height + 3) / 4; }

unsigned long long rawFloatBytes(int width, int height)
{
    return static_cast<unsigned long long>(width) * static_cast<unsigned long long>(rawBlockCount(height)) * 16u;
}

// Sizes are checked before anything is allocated for them, and against the payload that
// must follow where the format ties the two: raw floats need their bytes, and coded passes
// can describe at most c_ullMaxDecodedBytesPerPayloadByte pixels per byte (the image
// decoders refuse larger images, so no pass of such a stream could reach its pixels).
// Without passes, under method 4 (whose bit plane can describe any width in a few bytes)
// and under unknown methods the payload says nothing about the size.
void checkStreamSize(const RbStreamReadBinary& stream, int width, int height, int method, unsigned passes)
{
    const unsigned long long at = stream.GetOffset();
    if (width < 0 || height < 0 || height > kMaxStreamHeight)
        throw RbStreamException("CSSEMatrix: size " + std::to_string(width) + " x " + std::to_string(height)
                                + " read before offset " + std::to_string(at) + " is not a matrix size");
    CheckMatrixSizeWithinLimit("CSSEMatrix", width, height, at);
    const unsigned long long pixels = static_cast<unsigned long long>(width) * static_cast<unsigned long long>(height);
    unsigned long long needed = 0;
    if (method == 0)
        needed = rawFloatBytes(width, height);
    else if (method <= 3 && passes > 0)
        needed = (pixels + c_ullMaxDecodedBytesPerPayloadByte - 1) / c_ullMaxDecodedBytesPerPayloadByte;
    const std::optional<unsigned long long> left = stream.GetBytesRemaining();
    if (left && needed > *left)
        throw RbStreamException("CSSEMatrix: a " + std::to_string(width) + " x " + std::to_string(height)
                                + " matrix of method " + std::to_string(method) + " at offset "
                                + std::to_string(at) + " needs at least " + std::to_string(needed)
                                + " more bytes but only " + std::to_string(*left) + " are left");
}

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

// Lanes where t is the invalid value; a NaN invalid value matches every NaN.
inline __m128 equalsInvalid(__m128 t, __m128 invalid, __m128 invalidIsNaN)
{
    return _mm_or_ps(_mm_cmpeq_ps(t, invalid), _mm_and_ps(_mm_cmpunord_ps(t, t), invalidIsNaN));
}

inline bool equalsInvalid(float t, float invalid) { return std::isnan(invalid) ? std::isnan(t) : t == invalid; }

// Columns of each row already settled by failed passes: the union of their regions, all
// anchored at (0, 0), is a staircase. Repeated failed passes then cost only their rows.
using SettledStairs = std::vector<int>;

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

// The 256 values a quantiser gives back (Unmap depends on the code alone).
struct CodeValues {
    float values[256];
    explicit CodeValues(const RyFloatingPointQuantization& q)
    {
        for (unsigned long c = 0; c < 256; ++c)
            values[c] = q.Unmap(c);
    }
};

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

// A pass as the reader has it before applying it: its codes, or for a pass of the matrix's
// size that can be read by rows its payload and a row reader, so that it is decoded during
// the sweep.
struct ReadPass {
    std::unique_ptr<RyFloatingPointQuantization> q;
    bool hasInvalid = false;
    float invalid = 0.0f;
    std::vector<unsigned char> codes;
    unsigned int width = 0;
    unsigned int height = 0;
    CString file;
    std::unique_ptr<PassImageRows> rows;
};

struct PassLookup {
    CodeValues table;
    const unsigned char* codes;   // row firstRow of the pass image
    size_t firstRow;
    const unsigned char* band;    // row 4 j, for band j being summed
    __m128 invalid, invalidIsNaN, checkInvalid;
    __m128 min, factor;   // of a uniform quantiser
};

// Rows of a pass read by rows decoded per strip: small enough to stay in the second-level
// cache, a multiple of the four rows of a band.
constexpr int kStripRows = 16;

// Four codes of a row as floats.
inline __m128 fourCodes(const unsigned char* p)
{
    int bytes = 0;
    std::memcpy(&bytes, p, 4);
    const __m128i zero = _mm_setzero_si128();
    return _mm_cvtepi32_ps(_mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(bytes), zero), zero));
}

// Four code rows as the values of the plain uniform quantiser, min + code / factor (its
// Unmap, the same operations lane by lane), summed over the passes into the band, four
// columns at a time (the divisions bound it; wider steps spill registers). Returns the
// first column not done.
int sumUniformBlocks(__m128* band, const PassLookup* lookups, size_t passCount, size_t stride, int width)
{
    int x = 0;
    for (; x + 4 <= width; x += 4) {
        __m128 sum0 = _mm_setzero_ps(), sum1 = sum0, sum2 = sum0, sum3 = sum0;
        for (size_t k = 0; k < passCount; ++k) {
            const PassLookup& l = lookups[k];
            const unsigned char* codes = l.band + static_cast<size_t>(x);
            __m128 c0 = _mm_add_ps(l.min, _mm_div_ps(fourCodes(codes), l.factor));
            __m128 c1 = _mm_add_ps(l.min, _mm_div_ps(fourCodes(codes + stride), l.factor));
            __m128 c2 = _mm_add_ps(l.min, _mm_div_ps(fourCodes(codes + 2 * stride), l.factor));
            __m128 c3 = _mm_add_ps(l.min, _mm_div_ps(fourCodes(codes + 3 * stride), l.factor));
            _MM_TRANSPOSE4_PS(c0, c1, c2, c3);
            sum0 = _mm_add_ps(sum0, c0);
            sum1 = _mm_add_ps(sum1, c1);
            sum2 = _mm_add_ps(sum2, c2);
            sum3 = _mm_add_ps(sum3, c3);
        }
        band[x] = sum0;
        band[x + 1] = sum1;
        band[x + 2] = sum2;
        band[x + 3] = sum3;
    }
    return x;
}

// Bands jBegin to jEnd of sumFullSizePasses, from the codes the lookups point at.
void sumBands(CSSEMatrix& acc, std::vector<PassLookup>& lookups, bool allUniform, bool anyInvalid, int jBegin,
              int jEnd)
{
    const __m128 zero = _mm_setzero_ps();
    const int width = acc.GetSizeX();
    const int height = acc.GetSizeY();
    const size_t stride = static_cast<size_t>(width);
    __m128** a = acc.GetMatrixDataDirectly();
    for (int j = jBegin; j < jEnd; ++j) {
        const int rows = std::clamp(height - 4 * j, 0, 4);
        int x = 0;
        if (rows > 0)
            for (PassLookup& l : lookups)
                l.band = l.codes + (static_cast<size_t>(4 * j) - l.firstRow) * stride;
        if (rows == 4 && !anyInvalid) {
            if (allUniform)
                x = sumUniformBlocks(a[j], lookups.data(), lookups.size(), stride, width);
            for (; x < width; ++x) {
                __m128 sum = zero;
                for (const PassLookup& l : lookups) {
                    const unsigned char* row = l.band + static_cast<size_t>(x);
                    const float* v = l.table.values;
                    sum = _mm_add_ps(sum, _mm_setr_ps(v[row[0]], v[row[stride]], v[row[2 * stride]], v[row[3 * stride]]));
                }
                a[j][x] = sum;
            }
        } else if (rows == 4) {
            for (; x < width; ++x) {
                __m128 sum = zero;
                __m128 settled = zero;
                for (const PassLookup& l : lookups) {
                    const unsigned char* row = l.band + static_cast<size_t>(x);
                    const float* v = l.table.values;
                    const __m128 tv = _mm_setr_ps(v[row[0]], v[row[stride]], v[row[2 * stride]], v[row[3 * stride]]);
                    sum = select(settled, sum, _mm_add_ps(sum, tv));
                    settled = _mm_or_ps(settled, _mm_and_ps(equalsInvalid(tv, l.invalid, l.invalidIsNaN), l.checkInvalid));
                }
                a[j][x] = sum;
            }
        } else if (rows > 0) {
            for (; x < width; ++x) {
                __m128 sum = zero;
                __m128 settled = zero;
                for (const PassLookup& l : lookups) {
                    alignas(16) float lanes[4] = {0.0f, 0.0f, 0.0f, 0.0f};
                    for (int r = 0; r < rows; ++r)
                        lanes[r] = l.table.values[l.band[static_cast<size_t>(r) * stride + static_cast<size_t>(x)]];
                    const __m128 tv = _mm_load_ps(lanes);
                    sum = select(settled, sum, _mm_add_ps(sum, tv));
                    settled = _mm_or_ps(settled, _mm_and_ps(equalsInvalid(tv, l.invalid, l.invalidIsNaN), l.checkInvalid));
                }
                a[j][x] = sum;
            }
        }
        // Padding: every pass adds 0 to +0.
        for (; x < acc.GetSSESizeX(); ++x)
            a[j][x] = zero;
    }
}

// The passes applied one after the other from a zero matrix (applyPass) in one sweep over
// acc, when every pass image has acc's size: each lane sums its passes until one settles it,
// so no settled mask and no intermediate sum is stored. acc is written, not read. Passes read
// by rows are decoded a strip at a time just before their bands are summed; false when one
// of them fails (acc then holds part of the sum, and the passes must be decoded whole).
bool sumFullSizePasses(CSSEMatrix& acc, std::vector<ReadPass>& passes)
{
    std::vector<PassLookup> lookups;
    lookups.reserve(passes.size());
    const size_t stride = static_cast<size_t>(acc.GetSizeX());
    size_t streamed = 0;
    for (const ReadPass& p : passes)
        streamed += p.rows ? 1 : 0;
    std::vector<unsigned char> strips(streamed * stride * kStripRows);
    std::vector<unsigned char*> stripOf(passes.size(), nullptr);
    size_t nextStrip = 0;
    for (size_t k = 0; k < passes.size(); ++k) {
        const ReadPass& p = passes[k];
        const __m128 inv = _mm_set1_ps(p.invalid);
        const auto* uniform = dynamic_cast<const RyFloatingPointQuantizationUniform*>(p.q.get());
        if (p.rows)
            stripOf[k] = strips.data() + stride * kStripRows * nextStrip++;
        lookups.push_back({CodeValues(*p.q), p.rows ? stripOf[k] : p.codes.data(), 0, nullptr, inv, _mm_cmpunord_ps(inv, inv),
                           _mm_castsi128_ps(_mm_set1_epi32(p.hasInvalid ? -1 : 0)),
                           _mm_set1_ps(uniform ? uniform->GetMin() : 0.0f),
                           _mm_set1_ps(uniform ? uniform->GetFactor() : 1.0f)});
    }
    const bool allUniform = std::all_of(passes.begin(), passes.end(), [](const ReadPass& p) {
        const RyFloatingPointQuantization& q = *p.q;
        return typeid(q) == typeid(RyFloatingPointQuantizationUniform);
    });
    // Without invalid values nothing settles: plain sums.
    const bool anyInvalid = std::any_of(passes.begin(), passes.end(), [](const ReadPass& p) { return p.hasInvalid; });
    const int bands = acc.GetSSESizeY();
    if (streamed == 0) {
        sumBands(acc, lookups, allUniform, anyInvalid, 0, bands);
        return true;
    }
    const int height = acc.GetSizeY();
    for (int j = 0; j < bands; j += kStripRows / 4) {
        const int y = 4 * j;
        const int rows = std::clamp(height - y, 0, kStripRows);
        for (size_t k = 0; k < passes.size(); ++k) {
            if (!passes[k].rows || rows == 0)
                continue;
            if (!passes[k].rows->ReadRows(stripOf[k], static_cast<unsigned>(rows)))
                return false;
            lookups[k].firstRow = static_cast<size_t>(y);
        }
        sumBands(acc, lookups, allUniform, anyInvalid, j, std::min(bands, j + kStripRows / 4));
    }
    for (ReadPass& p : passes)
        if (p.rows && !p.rows->Finish())
            return false;
    return true;
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

// Largest absolute value of the real pixels, as the reported compression error.
float maxAbsValue(const CSSEMatrix& m)
{
    float largest = 0.0f;
    float smallest = 0.0f;
    m.CalcMinMaxValues(&largest, &smallest);
    return std::max(std::fabs(smallest), std::fabs(largest));
}

// True when a reader would decode this PNG payload of a width x height image (its size within
// the bounds of the PNG decoder) and so see exactly the codes it was written from.
bool pngPassReadable(size_t pngBytes, unsigned width, unsigned height)
{
    const unsigned long long maxBytes =
        std::min(c_ullMaxDecodedBytesPerPayloadByte * static_cast<unsigned long long>(pngBytes), MaxDecodedBytes());
    return DecodedSizeAllowed(width, height, 8, maxBytes);
}

// The counted PNG file of a pass's codes appended to out, as CSSEMatrix::encode writes it
// (nothing on a codec failure), with libdeflate's quicker level when `quick`; returns the
// file's size.
size_t writePngPass(const unsigned char* codes, unsigned width, unsigned height, bool quick, GrowingBytes& out,
                    PngWriteWorkspace& workspace, RbThreadPool* pool = nullptr)
{
    const size_t countAt = out.size();
    const unsigned char noCount[4] = {0, 0, 0, 0};
    out.append(noCount, sizeof(noCount));
    const size_t fileBytes = codes ? AppendPngGrey8Direct(codes, width, height, out, workspace, nullptr, quick, pool) : 0;
    if (fileBytes == 0 || fileBytes > std::numeric_limits<unsigned int>::max()) {
        out.resize(countAt);
        return 0;
    }
    StoreValueLittleEndian(static_cast<std::uint32_t>(fileBytes), out.data() + countAt);
    return fileBytes;
}

// The counted JPEG file of a pass's codes appended to out, as CSSEMatrix::encodeJPEG writes it.
void writeJpegPass(const RbArray<unsigned char>& codes, int width, int height, float quality, GrowingBytes& out)
{
    RyJPEGWriter writer(codes, width, height);
    writer.SetQuality(quality);
    RbStreamWriteBinaryBuffer file;
    writer.Serialize(file);
    unsigned char count[4];
    StoreValueLittleEndian(static_cast<std::uint32_t>(file.GetSize()), count);
    out.append(count, sizeof(count));
    out.append(file.GetData(), file.GetSize());
}

// The bytes of one pass, and, while its PNG is deflated by a task, what that task needs.
struct PassOutput {
    GrowingBytes bytes;
    std::unique_ptr<unsigned char[]> codes;
    size_t pngBytes = 0;
    // The next residual was formed from `codes` before the PNG was known to be readable.
    bool assumedReadable = false;
    std::unique_ptr<RbTask> task;
    void wait()
    {
        if (task)
            task->WaitUntilTerminate();
    }
};

// Waits for every task still running when the writer leaves, by return or by exception:
// they use its buffers.
struct PassTasks {
    std::vector<std::unique_ptr<PassOutput>>& passes;
    ~PassTasks()
    {
        for (const auto& p : passes)
            try {
                p->wait();
            } catch (...) {
            }
    }
};

void appendBuffer(const RbStreamWriteBinaryBuffer& from, GrowingBytes& out)
{
    out.append(from.GetData(), from.GetSize());
}

[[noreturn]] void throwCodecWroteNothing(const char* what)
{
    throw std::runtime_error(std::string("CSSEMatrix::Serialize: the image codec produced no ") + what
                             + " (a matrix without pixels has no PNG or TIFF form)");
}

} // namespace
} // namespace qzsse::detail

void CSSEMatrix::Serialize(RbStreamWriteBinary& stream) const
{
    Serialize(stream, nullptr);
}

void CSSEMatrix::Serialize(RbStreamWriteBinary& stream, RbThreadPool* pool) const
{
    const QzSCompressionParameters& own = m_CompressionParameters;
    const int method = own.m_eMethod;
    const bool passCoded = method >= 1 && method <= 3;
    if (passCoded && own.m_uiNumberOfPasses > qzsse::detail::kMaxPasses)
        throw std::invalid_argument("CSSEMatrix::Serialize: " + std::to_string(own.m_uiNumberOfPasses)
                                    + " passes requested, the format counts at most 255");
    if (method >= 0 && method <= 4 && m_Data == nullptr && m_SizeX > 0 && m_SizeY > 0)
        throw std::logic_error("CSSEMatrix::Serialize: the matrix has no storage");

    // The coded payload is built first, so a codec failure leaves the stream untouched.
    std::vector<std::unique_ptr<qzsse::detail::PassOutput>> passBytes;
    RbStreamWriteBinaryBuffer payload;
    float error = m_fMaxAbsCompressionError;
    if (passCoded) {
        using namespace qzsse::detail;
        const unsigned int passes = own.m_uiNumberOfPasses;
        const unsigned width = static_cast<unsigned>(m_SizeX);
        const unsigned height = static_cast<unsigned>(m_SizeY);
        const size_t pixels = static_cast<size_t>(width) * height;
        // With a pool a PNG pass is taken as readable before its deflate is done, as it is
        // unless its payload comes out too small for its size; if one does, the entry is
        // written again without the pool. Sizes no reader decodes go without it at once.
        if (pool != nullptr && (g_bDirectPassDecoding || pixels == 0 || m_Data == nullptr
                                || !DecodedSizeAllowed(width, height, 8, MaxDecodedBytes())))
            pool = nullptr;
        // One deflate at a time, on the caller's thread or as a task, so one set of buffers.
        PngWriteWorkspace workspace;
        // Declared after what the tasks use, so that it waits for them before those go.
        PassTasks tasks{passBytes};
        // Pass 0 codes the matrix itself; what later passes code is the residual, made by the
        // first pass that leaves one, and updated in place.
        const CSSEMatrix* coded = this;
        CSSEMatrix residual;
        // The range scan's answer for `coded`, when the sweep that made it found it.
        std::optional<ValueRange> codedRange;
        // The residual of a PNG first pass that only a second pass reads is not stored: the
        // second pass takes the first off the matrix as it reads it.
        std::unique_ptr<PassOffset> offset;
        // Allocated by the first pass that can settle an element.
        CSSEMatrix settled;
        SettledStairs failedPasses;
        std::unique_ptr<unsigned char[]> spareCodes;
        RbArray<unsigned char> jpegCodes;
        if (passes == 0)
            error = maxAbsValue(*this);
        for (unsigned int k = 0; k < passes; ++k) {
            const bool last = k + 1 == passes;
            // Intermediate passes code as finely as they can; only the last one applies
            // the requested quality and error bound. Invalid values travel in pass 0 only.
            QzSCompressionParameters params = own;
            if (!last) {
                params.m_fJPEGQuality = 1.0f;
                params.m_fMaxAbsError = 0.0f;
            }
            params.m_bUseInvalidValue = k == 0 && own.m_bUseInvalidValue;
            const ValueRange* scanned = codedRange ? &*codedRange : nullptr;

            passBytes.push_back(std::make_unique<PassOutput>());
            PassOutput& out = *passBytes.back();
            RbStreamWriteBinaryBuffer description;
            // A PNG pass is lossless: when a reader would decode it, its codes are those
            // just written and need no decode. Otherwise (nothing written, a size the
            // decoder refuses) the pass is decoded as a reader would.
            bool writtenReadable = false;
            if (method == 1 || (method == 3 && k > 0)) {
                const std::unique_ptr<RyFloatingPointQuantization> used =
                    WritePassQuantizer(*coded, params, false, scanned, description);
                jpegCodes.SetSize(coded->m_Data != nullptr ? static_cast<std::ptrdiff_t>(pixels) : 0);
                if (coded->m_Data != nullptr)
                    QuantizePassCodes(*coded, *used, params, jpegCodes.GetData(), offset.get());
                appendBuffer(description, out.bytes);
                writeJpegPass(jpegCodes, m_SizeX, m_SizeY, params.m_fJPEGQuality, out.bytes);
            } else {
                const std::unique_ptr<RyFloatingPointQuantization> used =
                    WritePassQuantizer(*coded, params, params.m_bUseInvalidValue, scanned, description);
                appendBuffer(description, out.bytes);
                if (coded->m_Data != nullptr && pixels > 0) {
                    out.codes = spareCodes ? std::move(spareCodes) : std::unique_ptr<unsigned char[]>(new unsigned char[pixels]);
                    QuantizePassCodes(*coded, *used, params, out.codes.get(), offset.get());
                }
                // A PNG pass that a later PNG pass refines takes the quicker deflate.
                const bool quick = method == 2 && !last;
                if (pool != nullptr) {
                    // The previous pass's deflate is done before this one starts (one workspace).
                    if (passBytes.size() >= 2) {
                        PassOutput& before = *passBytes[passBytes.size() - 2];
                        before.wait();
                        if (before.assumedReadable && !offset)
                            spareCodes = std::move(before.codes);
                    }
                    // The last pass's PNG is written below, on this thread beside the error sweep.
                    if (!last) {
                        out.task = std::make_unique<RbTask>([&out, &workspace, width, height, quick] {
                            out.pngBytes = writePngPass(out.codes.get(), width, height, quick, out.bytes, workspace);
                        });
                        pool->AddTask(out.task.get());
                    }
                    out.assumedReadable = true;
                    writtenReadable = true;
                } else {
                    out.pngBytes = writePngPass(out.codes.get(), width, height, quick, out.bytes, workspace);
                    writtenReadable =
                        !g_bDirectPassDecoding && out.pngBytes > 0 && pngPassReadable(out.pngBytes, width, height);
                }
            }

            // The residual is updated with what a reader will reconstruct, not with what
            // was meant to be coded.
            bool hasInvalid = false;
            float invalid = 0.0f;
            unsigned int w = 0;
            unsigned int h = 0;
            std::unique_ptr<RyFloatingPointQuantization> q;
            std::vector<unsigned char> decoded;
            const unsigned char* codes = nullptr;
            size_t codeCount = 0;
            try {
                // The description alone, from its own buffer, when a task may still be
                // appending the PNG to the pass's bytes (and moving them).
                RbStreamReadBinaryBuffer back(writtenReadable ? description.GetData() : out.bytes.data(),
                                              writtenReadable ? description.GetSize() : out.bytes.size());
                q = createQuantizer(back, c_uiStreamVersion, hasInvalid, invalid);
                if (writtenReadable) {
                    codes = out.codes.get();
                    w = width;
                    h = height;
                    codeCount = pixels;
                } else {
                    decoded = readPassCodes(back, w, h);
                    codes = decoded.data();
                    codeCount = decoded.size();
                }
            } catch (const RbStreamException&) {
                throwCodecWroteNothing("pass image");
            }
            if (hasInvalid && settled.m_Data == nullptr)
                settled.Create(m_SizeX, m_SizeY);
            if (w == width && h == height && static_cast<unsigned long long>(codeCount) == static_cast<unsigned long long>(w) * h) {
                CSSEMatrix* target = nullptr;
                const bool unstored = k == 0 && passes == 2 && codes == out.codes.get();
                if (!last && !unstored) {
                    if (coded == this)
                        residual.CreateNoClear(m_SizeX, m_SizeY);
                    target = &residual;
                }
                CSSEMatrix* settling = settled.m_Data ? &settled : nullptr;
                LaneExtremes extremes;
                if (pool != nullptr && last && out.assumedReadable) {
                    RbTask sweep([&] {
                        extremes = SubtractPassCodes(*coded, nullptr, settling, codes, *q, hasInvalid, invalid, offset.get());
                    });
                    pool->AddTask(&sweep);
                    try {
                        out.pngBytes = writePngPass(out.codes.get(), width, height, false, out.bytes, workspace, pool);
                    } catch (...) {
                        sweep.WaitUntilTerminate();
                        throw;
                    }
                    sweep.WaitUntilTerminate();
                } else {
                    extremes = SubtractPassCodes(*coded, target, settling, codes, *q, hasInvalid, invalid, offset.get());
                }
                if (last) {
                    error = ErrorFromExtremes(extremes);
                } else if (target == nullptr) {
                    codedRange = RangeFromExtremes(nullptr, extremes);
                    if (codedRange) {
                        offset = std::make_unique<PassOffset>(codes, *q);
                    } else {
                        // A zero end of the range needs the residual itself.
                        residual.CreateNoClear(m_SizeX, m_SizeY);
                        const LaneExtremes again = SubtractPassCodes(*this, &residual, nullptr, codes, *q, false, 0.0f);
                        coded = &residual;
                        codedRange = RangeFromExtremes(&residual, again);
                    }
                } else {
                    coded = &residual;
                    codedRange = RangeFromExtremes(&residual, extremes);
                }
            } else {
                if (coded == this) {
                    residual = *this;
                    coded = &residual;
                    // Before any pass settled an element, the first pass is taken off everywhere.
                    if (offset)
                        for (int y = 0; y < m_SizeY; ++y)
                            for (int x = 0; x < m_SizeX; ++x)
                                *residual.GetPointAddressUnsafe(x, y) -=
                                    offset->values.values[offset->codes[static_cast<size_t>(y) * width + static_cast<size_t>(x)]];
                    offset.reset();
                }
                if (settled.m_Data == nullptr)
                    settled.Create(m_SizeX, m_SizeY);
                CSSEMatrix image;
                RbArray<unsigned char> imageCodes;
                imageCodes.SetSize(static_cast<std::ptrdiff_t>(codeCount));
                if (codeCount > 0)
                    std::copy(codes, codes + codeCount, imageCodes.GetData());
                const bool decodedImage = preparePassImage(imageCodes, w, h, image);
                if (decodedImage)
                    image.deQuantize(*q, imageCodes);
                applyPass(residual, settled, decodedImage ? &image : nullptr, w, h, hasInvalid, invalid, true,
                          failedPasses);
                codedRange.reset();
                if (last)
                    error = maxAbsValue(residual);
            }
            if (pool == nullptr && !spareCodes && !(offset && offset->codes == out.codes.get()))
                spareCodes = std::move(out.codes);
        }
        // Every PNG taken as readable must have come out so; otherwise the entry is written
        // again as the caller's thread alone writes it.
        for (const auto& p : passBytes)
            p->wait();
        for (const auto& p : passBytes)
            if (p->assumedReadable && !(p->pngBytes > 0 && pngPassReadable(p->pngBytes, width, height))) {
                passBytes.clear();
                Serialize(stream, nullptr);
                return;
            }
    } else if (method == 4) {
        encodeCCITT4(payload);
        CSSEMatrix decoded;
        decoded.Create(m_SizeX, m_SizeY);
        RbStreamReadBinaryBuffer back(payload.GetData(), payload.GetSize());
        try {
            decoded.decodeCCIT4(back);
        } catch (const RbStreamException&) {
            qzsse::detail::throwCodecWroteNothing("bit-plane image");
        }
        CSSEMatrix difference(*this);
        difference.SubMatrix(decoded);
        error = qzsse::detail::maxAbsValue(difference);
    }

    stream.WriteVersion(c_uiStreamVersion);
    stream.WriteInt32(m_SizeX);
    stream.WriteInt32(m_SizeY);
    const auto methodByte = static_cast<unsigned char>(method);
    stream.WriteBuffer(&methodByte, 1);
    if (method == 0) {
        qzsse::detail::writeRawFloats(*this, stream);
        error = 0.0f;
    } else if (passCoded) {
        stream.WriteUInt32(own.m_uiNumberOfPasses);
        for (const auto& p : passBytes)
            stream.WriteBuffer(p->bytes.data(), p->bytes.size());
    } else if (method == 4) {
        stream.WriteBuffer(payload.GetData(), payload.GetSize());
    }
    m_fMaxAbsCompressionError = error;
}

void CSSEMatrix::Serialize(RbStreamReadBinary& stream)
{
    serialize(stream, stream.ReadVersion(c_uiStreamVersion));
}

void CSSEMatrix::serialize(RbStreamReadBinary& stream, unsigned int version)
{
    int width = 0;
    int height = 0;
    if (version >= 1) {
        width = stream.ReadInt32();
        height = stream.ReadInt32();
    }
    int method = 0;
    if (version >= 2) {
        unsigned char methodByte = 0;
        stream.ReadBuffer(&methodByte, 1);
        method = methodByte;
    }
    // The pass count is read before the matrix is sized, so that it can bound the size.
    unsigned int passes = 0;
    if (method >= 1 && method <= 3) {
        const unsigned long long at = stream.GetOffset();
        passes = stream.ReadUInt32();
        // The writer's 8-bit pass counter never ends above 255; here such a count is refused.
        if (passes > qzsse::detail::kMaxPasses)
            throw RbStreamException("CSSEMatrix: pass count " + std::to_string(passes) + " at offset "
                                    + std::to_string(at) + " is above 255");
    }
    qzsse::detail::checkStreamSize(stream, width, height, method, passes);

    const bool created = m_Data == nullptr || width != m_SizeX || height != m_SizeY;
    const bool passCoded = method >= 1 && method <= 3;
    // A pass-coded matrix starts at zero; its first full-size pass writes every element
    // without reading them, so the zeros are only stored when another pass comes first.
    if (created && passCoded && passes > 0)
        CreateNoClear(width, height);
    else if (created)
        Create(width, height);
    m_CompressionParameters.m_eMethod = method;

    if (method == 0) {
        // A version-0 stream holds no pixels: its matrix is 0 x 0, so there is nothing to set.
        if (version >= 1)
            qzsse::detail::readRawFloats(*this, stream);
    } else if (passCoded) {
        m_CompressionParameters.m_uiNumberOfPasses = passes;
        bool fresh = true;
        // A stream that breaks off before the first pass was applied leaves zeros, not
        // whatever the new storage held.
        try {
            const auto fullSizeCodes = [&](const qzsse::detail::ReadPass& p) {
                return p.width == static_cast<unsigned>(m_SizeX) && p.height == static_cast<unsigned>(m_SizeY)
                       && static_cast<unsigned long long>(p.codes.size())
                              == static_cast<unsigned long long>(p.width) * p.height;
            };
            // byRows: a pass of the matrix's size may be left to the sweep to decode.
            const auto readPass = [&](qzsse::detail::ReadPass& p, bool byRows) {
                p.q = createQuantizer(stream, version, p.hasInvalid, p.invalid);
                p.file = stream.ReadString();
                if (byRows) {
                    p.rows = std::make_unique<qzsse::detail::PassImageRows>();
                    p.width = static_cast<unsigned>(m_SizeX);
                    p.height = static_cast<unsigned>(m_SizeY);
                    if (p.rows->Open(reinterpret_cast<const unsigned char*>(p.file.data()), p.file.size(), p.width,
                                     p.height))
                        return true;
                    p.rows.reset();
                }
                p.codes = qzsse::detail::decodePassCodes(p.file, p.width, p.height);
                // The writer's own pass images have its matrix's size; a reader's are bounded too.
                if (!p.codes.empty())
                    qzsse::detail::CheckMatrixSizeWithinLimit("CSSEMatrix pass image", p.width, p.height,
                                                              stream.GetOffset());
                return fullSizeCodes(p);
            };
            // Pass by pass, settled elements marked in a matrix.
            CSSEMatrix settled;
            qzsse::detail::SettledStairs failedPasses;
            const auto applyOne = [&](qzsse::detail::ReadPass& p, bool fullSize) {
                if (p.hasInvalid && settled.GetMatrixDataDirectly() == nullptr)
                    settled.Create(m_SizeX, m_SizeY);
                if (fullSize) {
                    qzsse::detail::applyPassCodes(*this, settled.GetMatrixDataDirectly() ? &settled : nullptr,
                                                  p.codes.data(), qzsse::detail::CodeValues(*p.q), p.hasInvalid,
                                                  p.invalid, false, fresh);
                } else {
                    if (fresh)
                        Fill(0.0f);
                    if (settled.GetMatrixDataDirectly() == nullptr)
                        settled.Create(m_SizeX, m_SizeY);
                    RbArray<unsigned char> kept;
                    kept.SetSize(static_cast<std::ptrdiff_t>(p.codes.size()));
                    if (!p.codes.empty())
                        std::memcpy(kept.GetData(), p.codes.data(), p.codes.size());
                    std::vector<unsigned char>().swap(p.codes);
                    CSSEMatrix image;
                    const bool decoded = qzsse::detail::preparePassImage(kept, p.width, p.height, image);
                    if (decoded)
                        image.deQuantize(*p.q, kept);
                    qzsse::detail::applyPass(*this, settled, decoded ? &image : nullptr, p.width, p.height,
                                             p.hasInvalid, p.invalid, false, failedPasses);
                }
                fresh = false;
            };

            if (passes <= qzsse::detail::kMaxSweptPasses) {
                // Read first (their decoded sizes are bounded by their bytes), so that full-size
                // passes are summed in one sweep.
                std::vector<qzsse::detail::ReadPass> read(passes);
                std::vector<char> fullSize(passes);
                for (unsigned int k = 0; k < passes; ++k)
                    fullSize[k] = readPass(read[k], true);
                const auto allFullSize = [&] {
                    return passes > 0 && std::all_of(fullSize.begin(), fullSize.end(), [](char f) { return f != 0; });
                };
                bool summed = allFullSize() && qzsse::detail::sumFullSizePasses(*this, read);
                if (!summed) {
                    // A streamed pass failed, or another pass is not of the matrix's size: the
                    // streamed passes are decoded whole, as any other.
                    for (unsigned int k = 0; k < passes; ++k) {
                        qzsse::detail::ReadPass& p = read[k];
                        if (!p.rows)
                            continue;
                        p.rows.reset();
                        p.codes = qzsse::detail::decodePassCodes(p.file, p.width, p.height);
                        fullSize[k] = fullSizeCodes(p);
                    }
                    summed = allFullSize() && qzsse::detail::sumFullSizePasses(*this, read);
                }
                if (summed) {
                    fresh = false;
                } else {
                    for (unsigned int k = 0; k < passes; ++k)
                        applyOne(read[k], fullSize[k] != 0);
                }
            } else {
                // Longer entries keep one pass in memory at a time.
                for (unsigned int k = 0; k < passes; ++k) {
                    qzsse::detail::ReadPass p;
                    const bool full = readPass(p, false);
                    applyOne(p, full);
                }
            }
        } catch (...) {
            if (fresh)
                Fill(0.0f);
            throw;
        }
        // Without passes: zero, as a new matrix already is.
        if (fresh && !created)
            Fill(0.0f);
    } else if (method == 4) {
        decodeCCIT4(stream);
    }
}
