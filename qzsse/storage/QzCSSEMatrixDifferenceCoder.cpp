// The difference coder of the matrix store: modes 0 to 3 (their rules are in
// QzCSSEMatrixLibrary.h). Every mode's data is a sequence of matrix streams ("parts").
// The writer decodes each part as the reader will and builds the later parts, and the
// error it reports, from those decoded values, with the same reconstruction code as the
// reader; so writer and reader agree bit for bit.

#include <algorithm>
#include <cstdint>
#include <emmintrin.h>
#include <optional>
#include <string>
#include <vector>

#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/base/detail/LittleEndian.h"
#include "qzsse/matrix/detail/BandWalk.h"
#include "qzsse/storage/QzCSSEMatrixLibrary.h"
#include "qzsse/storage/detail/DifferenceCoding.h"

using qzsse::detail::MaxAbsDifference;
using qzsse::detail::SameSize;

namespace qzsse::detail {
namespace {

using Bytes = std::vector<unsigned char>;
using MatrixParameters = CSSEMatrix::QzSCompressionParameters;

constexpr float kSpecial = QzCSSEMatrixLibrary::c_fDifferenceCodingPNGSpecialValue;
// The lossy parts aim a little inside the bound, so that the rounding of the reader's
// additions (reference + difference) cannot carry a pixel past it.
constexpr float kBoundMargin = 0.99f;
// JPEG quality of a body unless the entry's difference-coding parameter names one. The
// corrections make up for a coarse body, and on real height grids a quality near a
// quarter gave the fewest bytes for body and corrections together.
constexpr float kBodyQuality = 0.25f;
// Passes tried when searching for the bound; each PNG pass refines the residual of the
// last by about 8 bits, so more than a few only help when the bound is below float
// precision, where no count helps.
constexpr unsigned int kMaxSearchedPasses = 8;
// The matrix stream's pass index is 8 bits wide.
constexpr unsigned int kMaxPasses = 255;

bool HasPixels(const CSSEMatrix& m)
{
    return m.GetSizeX() > 0 && m.GetSizeY() > 0;
}

// The image codecs cannot hold an image without pixels, so such a part is written raw.
MatrixParameters ForSize(MatrixParameters parameters, const CSSEMatrix& m)
{
    if (!HasPixels(m))
        parameters.m_eMethod = 0;
    return parameters;
}

MatrixParameters PngParameters(float bound, bool special)
{
    MatrixParameters p;
    p.m_eMethod = 2;
    p.m_fMaxAbsError = bound;
    p.m_bUseInvalidValue = special;
    p.m_fInvalidValue = special ? kSpecial : 0.0f;
    return p;
}

MatrixParameters JpegParameters(float quality)
{
    MatrixParameters p;
    p.m_eMethod = 1;
    p.m_fJPEGQuality = quality;
    return p;
}

// Writes `part` with its own parameters and decodes the bytes again as a reader will.
void CodePart(const CSSEMatrix& part, Bytes& bytes, CSSEMatrix& decoded)
{
    CSSEMatrix coded(part);
    coded.SetCompressionParameters(ForSize(part.GetCompressionParameters(), part));
    RbStreamWriteBinaryBuffer writer;
    coded.Serialize(writer);
    bytes = writer.GetBytes();
    RbStreamReadBinaryBuffer reader(bytes.data(), bytes.size());
    decoded.Serialize(reader);
}

void DecodeBytes(const Bytes& bytes, CSSEMatrix& decoded)
{
    RbStreamReadBinaryBuffer reader(bytes.data(), bytes.size());
    decoded.Serialize(reader);
}

// 1.0 where |difference| <= bound (NaN is never within it), else 0.0.
void UnchangedMask(const CSSEMatrix& difference, float bound, CSSEMatrix& unchanged)
{
    unchanged.CreateNoClear(difference.GetSizeX(), difference.GetSizeY());
    const __m128 signBit = _mm_set1_ps(-0.0f);
    const __m128 limit = _mm_set1_ps(bound);
    const __m128 one = _mm_set1_ps(1.0f);
    forEachVectorPairThisExtent(unchanged, difference, [&](__m128& u, __m128 d) {
        u = _mm_and_ps(one, _mm_cmple_ps(_mm_andnot_ps(signBit, d), limit));
    });
}

void Append(Bytes& out, const Bytes& part)
{
    out.insert(out.end(), part.begin(), part.end());
}

// The rest of a part after its size items, which were read and checked first: the matrix
// reader sees the whole stream again, but a damaged size can no longer make it allocate
// more than the reference holds.
class CheckedSizeStream : public RbStreamReadBinary {
public:
    CheckedSizeStream(RbStreamReadBinary& rest, int width, int height) : m_rest(rest)
    {
        StoreValueLittleEndian(static_cast<std::int32_t>(width), m_sizeItems);
        StoreValueLittleEndian(static_cast<std::int32_t>(height), m_sizeItems + 4);
    }

protected:
    size_t readBytes(void* data, size_t size) override
    {
        auto* out = static_cast<unsigned char*>(data);
        size_t done = 0;
        while (done < size && m_next < sizeof m_sizeItems)
            out[done++] = m_sizeItems[m_next++];
        if (done < size)
            m_rest.ReadBuffer(out + done, size - done);
        return size;
    }
    std::optional<unsigned long long> bytesRemaining() const override
    {
        const std::optional<unsigned long long> rest = m_rest.GetBytesRemaining();
        if (!rest)
            return std::nullopt;
        return *rest + (sizeof m_sizeItems - m_next);
    }

private:
    RbStreamReadBinary& m_rest;
    unsigned char m_sizeItems[8];
    size_t m_next = 0;
};

// Reads one part, which must have the reference's size: any other cannot come from the writer.
void ReadPart(RbStreamReadBinary& stream, const CSSEMatrix& reference, CSSEMatrix& part, const char* what)
{
    const unsigned int version = stream.ReadVersion(CSSEMatrix::c_uiStreamVersion);
    int width = 0;
    int height = 0;
    if (version >= 1) {
        width = stream.ReadInt32();
        height = stream.ReadInt32();
    }
    if (width != reference.GetSizeX() || height != reference.GetSizeY())
        throw RbStreamException(std::string("difference stream: the ") + what + " is " + std::to_string(width)
                                + " x " + std::to_string(height) + ", the reference "
                                + std::to_string(reference.GetSizeX()) + " x " + std::to_string(reference.GetSizeY()));
    if (version == 0) {
        part.serialize(stream, version);
        return;
    }
    CheckedSizeStream rest(stream, width, height);
    part.serialize(rest, version);
}

} // namespace
} // namespace qzsse::detail

using namespace qzsse::detail;

struct QzCSSEMatrixLibrary::DifferenceCoder {
    // --- reconstruction, shared by reader and writer -------------------------------------

    static void addToReference(const CSSEMatrix& reference, const CSSEMatrix& difference, CSSEMatrix& out)
    {
        out = reference;
        out.AddMatrix(difference);
    }

    // Mode 1: the reference where the values hold the special value, reference + values
    // elsewhere.
    static void reconstructMasked(const CSSEMatrix& reference, CSSEMatrix& values, CSSEMatrix& out)
    {
        CSSEMatrix unchanged;
        createMask(values, unchanged, kSpecial);
        applyMask(values, unchanged, 0.0f);
        addToReference(reference, values, out);
    }

    // Modes 2 and 3: reference + (body + corrections), the corrections counting only where
    // they are not the special value, and the reference alone where the mask (if any) is set.
    static void reconstructBodyAndCorrections(const CSSEMatrix& reference, const CSSEMatrix* unchanged,
                                              const CSSEMatrix& body, CSSEMatrix& corrections, CSSEMatrix& out)
    {
        CSSEMatrix uncorrected;
        createMask(corrections, uncorrected, kSpecial);
        applyMask(corrections, uncorrected, 0.0f);
        CSSEMatrix difference(body);
        difference.AddMatrix(corrections);
        if (unchanged != nullptr)
            applyMask(difference, *unchanged, 0.0f);
        addToReference(reference, difference, out);
    }

    // --- writing -----------------------------------------------------------------------------

    // Codes `values` (a PNG part) with the fewest passes whose reconstruction lies within
    // bound, stopping early when another pass no longer helps; without a bound, with the
    // entry's pass count. Returns the error of the chosen count.
    template <class Reconstruct>
    static float codeWithinBound(CSSEMatrix& values, float bound, unsigned int entryPasses, const CSSEMatrix& target,
                                 Reconstruct&& reconstruct, Bytes& chosen)
    {
        Bytes bytes;
        CSSEMatrix decoded;
        CSSEMatrix out;
        auto attempt = [&](unsigned int passes) {
            values.GetCompressionParameters().m_uiNumberOfPasses = passes;
            CodePart(values, bytes, decoded);
            reconstruct(decoded, out);
            return MaxAbsDifference(target, out);
        };
        if (!(bound > 0.0f)) {
            const float error = attempt(std::clamp(entryPasses, 1u, kMaxPasses));
            chosen = bytes;
            return error;
        }
        float best = 0.0f;
        float previous = 0.0f;
        for (unsigned int passes = 1; passes <= kMaxSearchedPasses; ++passes) {
            const float error = attempt(passes);
            if (passes == 1 || error < best) {
                best = error;
                chosen = bytes;
            }
            if (error <= bound || (passes > 1 && !(error < previous)))
                break;
            previous = error;
        }
        return best;
    }

    static float writeMode0(const CSSEMatrix& target, CSSEMatrix& difference, const CSSEMatrix& reference,
                            const QzSCompressionParameters& params, Bytes& data)
    {
        difference.SetCompressionParameters(params);
        CSSEMatrix decoded;
        CodePart(difference, data, decoded);
        CSSEMatrix out;
        addToReference(reference, decoded, out);
        return MaxAbsDifference(target, out);
    }

    // Writes the difference mask and returns it as the reader will decode it.
    static void writeMask(const CSSEMatrix& difference, float bound, CSSEMatrix& unchanged, Bytes& data)
    {
        RbStreamWriteBinaryBuffer writer;
        CSSEMatrix mask;
        createAndSerializeDifferenceMask(writer, difference, bound, mask);
        data = writer.GetBytes();
        DecodeBytes(data, unchanged);
    }

    static float writeMode1(const CSSEMatrix& target, const CSSEMatrix& difference, const CSSEMatrix& reference,
                            float bound, unsigned int entryPasses, Bytes& data)
    {
        // The pixels the reference already holds within the bound travel as the PNG
        // stream's invalid value, which costs next to nothing and settles them exactly.
        CSSEMatrix values(difference);
        CSSEMatrix unchanged;
        UnchangedMask(difference, bound, unchanged);
        applyMask(values, unchanged, kSpecial);
        values.SetCompressionParameters(PngParameters(bound * kBoundMargin, true));
        return codeWithinBound(values, bound, entryPasses, target,
                               [&](CSSEMatrix& decoded, CSSEMatrix& out) { reconstructMasked(reference, decoded, out); },
                               data);
    }

    // Body (a JPEG part of `smoothed`) and corrections, for modes 2 and 3.
    static float writeBodyAndCorrections(const CSSEMatrix& target, const CSSEMatrix& difference,
                                         const CSSEMatrix& reference, const CSSEMatrix* unchanged,
                                         CSSEMatrix& smoothed, float bound, float quality,
                                         unsigned int entryPasses, Bytes& data)
    {
        smoothed.SetCompressionParameters(JpegParameters(quality));
        Bytes bodyBytes;
        CSSEMatrix body;
        CodePart(smoothed, bodyBytes, body);
        Append(data, bodyBytes);

        CSSEMatrix residual(difference);
        residual.SubMatrix(body);
        CSSEMatrix corrections;
        createHighEntropyMask(residual, unchanged, bound * kBoundMargin, PngParameters(bound * kBoundMargin, true),
                              corrections);
        Bytes correctionBytes;
        const float error = codeWithinBound(corrections, bound, entryPasses, target,
                                            [&](CSSEMatrix& decoded, CSSEMatrix& out) {
                                                reconstructBodyAndCorrections(reference, unchanged, body, decoded, out);
                                            },
                                            correctionBytes);
        Append(data, correctionBytes);
        return error;
    }

    static float writeMode2(const CSSEMatrix& target, const CSSEMatrix& difference, const CSSEMatrix& reference,
                            float bound, float quality, unsigned int entryPasses, Bytes& data)
    {
        CSSEMatrix unchanged;
        writeMask(difference, bound, unchanged, data);
        // The reader takes the reference under the mask whatever the body says there, so
        // those pixels are filled in as a smooth continuation of the changed ones: no edge
        // along the outline for the JPEG body to spend bytes on.
        CSSEMatrix known(difference);
        applyMask(known, unchanged, kSpecial);
        CSSEMatrix body(difference);
        smooth(body, &known, c_iNumberOfSmoothingIterations);
        return writeBodyAndCorrections(target, difference, reference, &unchanged, body, bound, quality, entryPasses,
                                       data);
    }

    static float writeMode3(const CSSEMatrix& target, const CSSEMatrix& difference, const CSSEMatrix& reference,
                            float bound, float quality, unsigned int entryPasses, Bytes& data)
    {
        CSSEMatrix smoothed(difference);
        smooth(smoothed, nullptr, c_iNumberOfSmoothingIterations);
        return writeBodyAndCorrections(target, difference, reference, nullptr, smoothed, bound, quality, entryPasses,
                                       data);
    }

    // --- reading -----------------------------------------------------------------------------

    static void read(RbStreamReadBinary& stream, unsigned int mode, const CSSEMatrix& reference, CSSEMatrix& out)
    {
        CSSEMatrix unchanged;
        CSSEMatrix body;
        CSSEMatrix values;
        switch (mode) {
        case 0:
            ReadPart(stream, reference, values, "difference");
            addToReference(reference, values, out);
            return;
        case 1:
            ReadPart(stream, reference, values, "difference");
            reconstructMasked(reference, values, out);
            return;
        case 2:
            ReadPart(stream, reference, unchanged, "difference mask");
            ReadPart(stream, reference, body, "body");
            ReadPart(stream, reference, values, "correction");
            reconstructBodyAndCorrections(reference, &unchanged, body, values, out);
            return;
        case 3:
            ReadPart(stream, reference, body, "body");
            ReadPart(stream, reference, values, "correction");
            reconstructBodyAndCorrections(reference, nullptr, body, values, out);
            return;
        default:
            throw RbStreamException("difference stream: unknown coding mode " + std::to_string(mode));
        }
    }
};

bool QzCSSEMatrixLibrary::serializeMatrix(RbStreamWriteBinary& stream, const CSSEMatrix& matrix,
                                          const CSSEMatrix& reference, const QzSCompressionParameters& params,
                                          float& error) const
{
    const int mode = params.m_iDifferenceCodingMode;
    if (mode < 0 || mode > 3)
        return false;
    CSSEMatrix target;
    enforceMatrixSize(matrix, reference, target);
    CSSEMatrix difference(target);
    difference.SubMatrix(reference);

    const float bound = params.m_fMaxAbsError > 0.0f ? params.m_fMaxAbsError : 0.0f;
    const float parameter = params.m_fDifferenceCodingParameter;
    const float quality = parameter > 0.0f && parameter <= 1.0f ? parameter : kBodyQuality;
    const unsigned int passes = params.m_uiNumberOfPasses;
    Bytes data;
    switch (mode) {
    case 0: error = DifferenceCoder::writeMode0(target, difference, reference, params, data); break;
    case 1: error = DifferenceCoder::writeMode1(target, difference, reference, bound, passes, data); break;
    case 2: error = DifferenceCoder::writeMode2(target, difference, reference, bound, quality, passes, data); break;
    default: error = DifferenceCoder::writeMode3(target, difference, reference, bound, quality, passes, data); break;
    }
    const unsigned char modeByte = static_cast<unsigned char>(mode);
    stream.WriteBuffer(&modeByte, 1);
    stream.WriteBuffer(data.data(), data.size());
    return true;
}

bool QzCSSEMatrixLibrary::serializeMatrix(RbStreamReadBinary& stream, CSSEMatrix& matrix,
                                          const CSSEMatrix& reference) const
{
    unsigned char mode = 0;
    stream.ReadBuffer(&mode, 1);
    CSSEMatrix out;
    DifferenceCoder::read(stream, mode, reference, out);
    const MatrixParameters kept = matrix.GetCompressionParameters();
    matrix = out;
    matrix.SetCompressionParameters(kept);
    return true;
}

void QzCSSEMatrixLibrary::createAndSerializeDifferenceMask(RbStreamWriteBinary& stream, const CSSEMatrix& difference,
                                                           float maxAbsError, CSSEMatrix& unchanged)
{
    UnchangedMask(difference, maxAbsError, unchanged);
    // A two-level stream codes exactly the pixels equal to its invalid value, here 1.
    MatrixParameters p;
    p.m_eMethod = 4;
    p.m_bUseInvalidValue = true;
    p.m_fInvalidValue = 1.0f;
    unchanged.SetCompressionParameters(ForSize(p, unchanged));
    unchanged.Serialize(stream);
}

void QzCSSEMatrixLibrary::createHighEntropyMask(const CSSEMatrix& residual, const CSSEMatrix* unchanged,
                                                float maxAbsError, const MatrixParameters& pngParameters,
                                                CSSEMatrix& corrections)
{
    corrections.CreateNoClear(residual.GetSizeX(), residual.GetSizeY());
    const __m128 signBit = _mm_set1_ps(-0.0f);
    const __m128 bound = _mm_set1_ps(maxAbsError);
    const __m128 special = _mm_set1_ps(kSpecial);
    const __m128 zero = _mm_setzero_ps();
    __m128** r = residual.GetMatrixDataDirectly();
    __m128** c = corrections.GetMatrixDataDirectly();
    __m128** u = unchanged != nullptr && SameSize(*unchanged, residual) ? unchanged->GetMatrixDataDirectly() : nullptr;
    for (int j = 0; j < residual.GetSSESizeY(); ++j)
        for (int x = 0; x < residual.GetSSESizeX(); ++x) {
            __m128 needed = _mm_cmpgt_ps(_mm_andnot_ps(signBit, r[j][x]), bound);
            if (u != nullptr)
                needed = _mm_and_ps(needed, _mm_cmpeq_ps(u[j][x], zero));
            c[j][x] = select(needed, r[j][x], special);
        }
    corrections.SetCompressionParameters(pngParameters);
}
