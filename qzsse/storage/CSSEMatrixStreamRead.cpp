// The matrix stream's reader: every stream version, passes summed in one sweep where they allow.


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

// Entries of up to this many passes are read whole and summed in one sweep; the codes of
// every pass are then held at once.
constexpr unsigned int kMaxSweptPasses = 4;

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

} // namespace
} // namespace qzsse::detail

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
