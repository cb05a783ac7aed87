// The matrix stream's writer: header, raw floats or multi-pass residual coding through the
// 8-bit image codecs, optionally overlapped on a thread pool.


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
                    CString file = back.ReadString();
                    decoded = decodePassCodes(file, w, h);
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
