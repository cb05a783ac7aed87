#include "qzsse/storage/detail/PngGrey8Direct.h"

#include "qzsse/base/RbThreadPool.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <emmintrin.h>
#include <limits>
#include <memory>
#include <iterator>
#include <new>

#include <libdeflate.h>
#include <zlib.h>

namespace qzsse::detail {
namespace {

// libdeflate's level 2: on quantised elevation grids with Up rows smaller than libpng's
// Paeth rows with run-length deflate, at twice the speed of level 3 for 2 % more bytes.
// Level 1 is twice as fast again for 3 % more.
constexpr int c_matchLevel = 2;
constexpr int c_quickMatchLevel = 1;
// Below this many filtered bytes both deflates run on the whole image; above, on a band of
// rows of at least this size and 1/32 of the image.
constexpr size_t c_minSampleBytes = 256 * 1024;

void storeBigEndian32(uint32_t v, unsigned char* p)
{
    p[0] = static_cast<unsigned char>(v >> 24);
    p[1] = static_cast<unsigned char>(v >> 16);
    p[2] = static_cast<unsigned char>(v >> 8);
    p[3] = static_cast<unsigned char>(v);
}

int paethPredictor(int a, int b, int c)
{
    const int pa = std::abs(b - c), pb = std::abs(a - c), pc = std::abs(a + b - 2 * c);
    return pa <= pb && pa <= pc ? a : (pb <= pc ? b : c);
}

// The Paeth predictors of 8 pixels from their left (a), upper (b) and upper-left (c)
// neighbours, widened to 16 bits: the choice of paethPredictor, ties included.
__m128i paethPredict8(__m128i a, __m128i b, __m128i c)
{
    const __m128i zero = _mm_setzero_si128();
    const auto absolute = [&](__m128i v) { return _mm_max_epi16(v, _mm_sub_epi16(zero, v)); };
    const __m128i bc = _mm_sub_epi16(b, c), ac = _mm_sub_epi16(a, c);
    const __m128i pa = absolute(bc), pb = absolute(ac), pc = absolute(_mm_add_epi16(bc, ac));
    const __m128i notA = _mm_or_si128(_mm_cmpgt_epi16(pa, pb), _mm_cmpgt_epi16(pa, pc));
    const __m128i notB = _mm_cmpgt_epi16(pb, pc);
    const __m128i bOrC = _mm_or_si128(_mm_and_si128(notB, c), _mm_andnot_si128(notB, b));
    return _mm_or_si128(_mm_and_si128(notA, bOrC), _mm_andnot_si128(notA, a));
}

// Paeth differences of a row with a row above, 16 pixels at a time from x = 1 (encoding
// vectorises: every prediction comes from unfiltered pixels). Returns the first x not done.
size_t paethRowFrom1(const unsigned char* row, const unsigned char* above, size_t width, unsigned char* dst)
{
    const __m128i zero = _mm_setzero_si128();
    size_t x = 1;
    for (; x + 16 <= width; x += 16) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x - 1));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + x));
        const __m128i c = _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + x - 1));
        const __m128i low = paethPredict8(_mm_unpacklo_epi8(a, zero), _mm_unpacklo_epi8(b, zero),
                                          _mm_unpacklo_epi8(c, zero));
        const __m128i high = paethPredict8(_mm_unpackhi_epi8(a, zero), _mm_unpackhi_epi8(b, zero),
                                           _mm_unpackhi_epi8(c, zero));
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x), _mm_sub_epi8(v, _mm_packus_epi16(low, high)));
    }
    return x;
}

// Rows y0 .. y1 - 1 of width bytes to rows of a filter byte (Up or Paeth) and the row's
// differences to its prediction, from out on.
void filterRows(const unsigned char* pixels, size_t width, size_t y0, size_t y1, unsigned char filter,
                unsigned char* out)
{
    for (size_t y = y0; y < y1; ++y) {
        const unsigned char* row = pixels + y * width;
        const unsigned char* above = y > 0 ? row - width : nullptr;
        unsigned char* dst = out + (y - y0) * (width + 1);
        *dst++ = filter;
        if (filter == c_filterPaeth) {
            size_t x = 0;
            if (above != nullptr && width > 0) {
                dst[0] = static_cast<unsigned char>(row[0] - paethPredictor(0, above[0], 0));
                x = paethRowFrom1(row, above, width, dst);
            }
            for (; x < width; ++x) {
                const int a = x > 0 ? row[x - 1] : 0;
                const int b = above ? above[x] : 0;
                const int c = x > 0 && above ? above[x - 1] : 0;
                dst[x] = static_cast<unsigned char>(row[x] - paethPredictor(a, b, c));
            }
            continue;
        }
        if (above == nullptr) {
            std::memcpy(dst, row, width);
            continue;
        }
        size_t x = 0;
        for (; x + 16 <= width; x += 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
            const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(above + x));
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + x), _mm_sub_epi8(v, b));
        }
        for (; x < width; ++x)
            dst[x] = static_cast<unsigned char>(row[x] - above[x]);
    }
}

// A zlib stream of in with libdeflate's compressor of some level; 0 on failure.
size_t deflateMatches(const unsigned char* in, size_t size, unsigned char* out, size_t capacity,
                      libdeflate_compressor* compressor)
{
    return compressor ? libdeflate_zlib_compress(compressor, in, size, out, capacity) : 0;
}

size_t deflateMatchesBound(size_t size)
{
    // The bound does not depend on the compressor's level (a null one asks for that, since
    // libdeflate 1.13).
    return libdeflate_zlib_compress_bound(nullptr, size);
}

// A zlib stream of in with Huffman codes only: on rows of residual noise smaller than
// libdeflate's matches, which cost more than the literals they replace (and smaller and
// faster than zlib's run-length strategy there). 0 on failure.
size_t deflateLiterals(const unsigned char* in, size_t size, unsigned char* out, size_t capacity)
{
    z_stream z{};
    if (deflateInit2(&z, Z_DEFAULT_COMPRESSION, Z_DEFLATED, 15, 8, Z_HUFFMAN_ONLY) != Z_OK)
        return 0;
    // deflate counts in uInt: larger buffers go in steps (its pointers advance by themselves).
    constexpr size_t step = std::numeric_limits<uInt>::max() / 2;
    z.next_in = const_cast<unsigned char*>(in);
    z.next_out = out;
    size_t inLeft = size;
    size_t outLeft = capacity;
    int status = Z_OK;
    do {
        const size_t inNow = std::min(inLeft, step);
        const size_t outNow = std::min(outLeft, step);
        z.avail_in = static_cast<uInt>(inNow);
        z.avail_out = static_cast<uInt>(outNow);
        status = deflate(&z, inNow == inLeft ? Z_FINISH : Z_NO_FLUSH);
        inLeft -= inNow - z.avail_in;
        outLeft -= outNow - z.avail_out;
    } while (status == Z_OK);
    const bool done = status == Z_STREAM_END;
    deflateEnd(&z);
    return done ? capacity - outLeft : 0;
}

size_t deflateLiteralsBound(size_t size)
{
    // Without a stream, zlib's bound holds for any of its settings.
    return deflateBound(nullptr, static_cast<uLong>(size));
}

struct PngEncoding {
    unsigned char filter;
    PngDeflate deflate;
    // When the sample was the whole image: its IDAT stream, already made in the workspace;
    // 0 bytes otherwise.
    const unsigned char* stream = nullptr;
    size_t streamBytes = 0;
};

// zlib's Huffman-only deflate closes a block every 16383 literals (a buffer of 2^14 symbols
// at memLevel 8, one kept free).
constexpr size_t c_literalBlock = 16383;

// The bytes of in under ideal per-block codes of its literals: below what the Huffman-only
// deflate writes (its codes are whole bits and carry their trees), so a trial already beaten
// by this estimate need not run.
double literalsEstimate(const unsigned char* in, size_t size)
{
    double bits = 0.0;
    for (size_t at = 0; at < size; at += c_literalBlock) {
        const size_t n = std::min(c_literalBlock, size - at);
        uint32_t counts[256] = {};
        for (size_t i = 0; i < n; ++i)
            ++counts[in[at + i]];
        const double log2n = std::log2(static_cast<double>(n));
        for (const uint32_t count : counts)
            if (count != 0)
                bits += count * (log2n - std::log2(static_cast<double>(count)));
    }
    return bits / 8.0;
}

// Huffman-only trials whose estimate is this much above the other filter's are left out:
// where the two filters' literal trials were closer, their sizes differed by under 2 %
// (the DEM, topobathy and surface passes); otherwise by 6 % to 35 %.
constexpr double c_literalsMargin = 1.03;

// The smallest of Up and Paeth rows, each with both deflates, on a band of rows in the
// middle of the image (the whole of a small one). Up wins ties: it is undone far faster.
// The deflates with matches run first; a Huffman-only trial runs only when its entropy
// estimate is below the smallest stream so far and near the other filter's estimate.
PngEncoding chooseEncoding(const unsigned char* pixels, size_t width, size_t height, int level,
                           PngWriteWorkspace& ws, RbThreadPool* pool)
{
    const size_t rowBytes = width + 1;
    const size_t total = rowBytes * height;
    size_t rows = height;
    if (total > c_minSampleBytes) {
        const size_t wanted = std::max(c_minSampleBytes, total / 64);
        rows = std::clamp<size_t>((wanted + rowBytes - 1) / rowBytes, 1, height);
    }
    const size_t y0 = (height - rows) / 2;
    const size_t bytes = rows * rowBytes;
    const size_t capacity = std::max(deflateMatchesBound(bytes), deflateLiteralsBound(bytes));
    constexpr unsigned char filters[2] = {c_filterUp, c_filterPaeth};
    PngEncoding best{c_filterUp, PngDeflate::Matches, nullptr, 0};
    unsigned char* samples[2] = {ws.samples[0].at_least(bytes), ws.samples[1].at_least(bytes)};
    unsigned char* outputs[4];
    for (int t = 0; t < 4; ++t)
        outputs[t] = ws.trials[t].at_least(capacity);
    if (!samples[0] || !samples[1] || !outputs[0] || !outputs[1] || !outputs[2] || !outputs[3])
        return best;

    // Trial t: filter t % 2, literals only from t = 2 on; each writes its own output, so the
    // two filters' trials may run at once.
    size_t sizes[4] = {0, 0, 0, 0};
    double estimates[2];
    const auto matchTrial = [&](int f, int slot) {
        filterRows(pixels, width, y0, y0 + rows, filters[f], samples[f]);
        estimates[f] = literalsEstimate(samples[f], bytes);
        sizes[f] = deflateMatches(samples[f], bytes, outputs[f], capacity, ws.compressor(level, slot));
    };
    const auto literalTrial = [&](int f) { sizes[2 + f] = deflateLiterals(samples[f], bytes, outputs[2 + f], capacity); };
    const auto both = [&](auto&& first, auto&& second) {
        if (pool == nullptr) {
            first();
            second();
            return;
        }
        RbTask task(first);
        pool->AddTask(&task);
        try {
            second();
        } catch (...) {
            task.WaitUntilTerminate();
            throw;
        }
        task.WaitUntilTerminate();
    };

    size_t smallest = std::numeric_limits<size_t>::max();
    int kept = -1;
    const auto consider = [&](int t) {
        const size_t size = sizes[t];
        const unsigned char filter = filters[t % 2];
        if (size == 0 || size > smallest || (size == smallest && (filter != c_filterUp || best.filter == c_filterUp)))
            return;
        smallest = size;
        best.filter = filter;
        best.deflate = t < 2 ? PngDeflate::Matches : PngDeflate::Literals;
        kept = t;
    };
    both([&] { matchTrial(0, pool != nullptr ? 1 : 0); }, [&] { matchTrial(1, 0); });
    consider(0);
    consider(1);
    const double leastEstimate = std::min(estimates[0], estimates[1]);
    const auto literalsMayWin = [&](int f) {
        return estimates[f] < static_cast<double>(smallest) && estimates[f] <= leastEstimate * c_literalsMargin;
    };
    if (pool != nullptr && literalsMayWin(0) && literalsMayWin(1)) {
        // Up's result may rule Paeth's out afterwards: then it is not considered, as if never run.
        both([&] { literalTrial(0); }, [&] { literalTrial(1); });
        consider(2);
        if (literalsMayWin(1))
            consider(3);
    } else {
        for (int f = 0; f < 2; ++f)
            if (literalsMayWin(f)) {
                literalTrial(f);
                consider(2 + f);
            }
    }
    if (rows == height && kept >= 0) {
        best.stream = outputs[kept];
        best.streamBytes = smallest;
    }
    return best;
}

unsigned char* appendChunkHeader(unsigned char* p, uint32_t length, const char* type)
{
    storeBigEndian32(length, p);
    std::memcpy(p + 4, type, 4);
    return p + 8;
}

// The CRC over type and data, stored after the data; returns the end of the chunk.
unsigned char* closeChunk(unsigned char* typeStart, uint32_t length)
{
    const uint32_t crc = libdeflate_crc32(0, typeStart, static_cast<size_t>(length) + 4);
    storeBigEndian32(crc, typeStart + 4 + length);
    return typeStart + 8 + length;
}

} // namespace

unsigned char* PngWriteWorkspace::Buffer::at_least(size_t n)
{
    if (n > capacity) {
        bytes.reset(new (std::nothrow) unsigned char[n]);
        capacity = bytes ? n : 0;
    }
    return bytes.get();
}

PngWriteWorkspace::PngWriteWorkspace() = default;

PngWriteWorkspace::~PngWriteWorkspace()
{
    for (auto& slot : m_compressors)
        for (libdeflate_compressor* c : slot)
            libdeflate_free_compressor(c);
}

libdeflate_compressor* PngWriteWorkspace::compressor(int level, int slot)
{
    if (level < 0 || level >= static_cast<int>(std::size(m_compressors[0])) || slot < 0 || slot > 1)
        return nullptr;
    libdeflate_compressor*& c = m_compressors[slot][level];
    if (c == nullptr)
        c = libdeflate_alloc_compressor(level);
    return c;
}

size_t AppendPngGrey8Direct(const unsigned char* pixels, unsigned int width, unsigned int height, GrowingBytes& out,
                            PngWriteWorkspace& ws, PngDeflate* used, bool quick, RbThreadPool* pool)
{
    const int level = quick ? c_quickMatchLevel : c_matchLevel;
    if (width == 0 || height == 0 || width > c_maxPngDimension || height > c_maxPngDimension)
        return 0;
    const size_t rowBytes = static_cast<size_t>(width) + 1;
    const size_t filteredBytes = rowBytes * height;
    const PngEncoding encoding = chooseEncoding(pixels, width, height, level, ws, pool);
    // Signature, IHDR chunk, IDAT header before the stream; IDAT CRC, IEND chunk after it.
    constexpr size_t before = 8 + 25 + 8;
    constexpr size_t after = 4 + 12;
    const size_t start = out.size();
    unsigned char* file = nullptr;
    size_t deflated = encoding.streamBytes;
    try {
        if (deflated != 0) {
            file = out.room(before + deflated + after);
            std::memcpy(file + before, encoding.stream, deflated);
        } else {
            unsigned char* filtered = ws.filtered.at_least(filteredBytes);
            if (!filtered)
                return 0;
            filterRows(pixels, width, 0, height, encoding.filter, filtered);
            const size_t bound = encoding.deflate == PngDeflate::Literals ? deflateLiteralsBound(filteredBytes)
                                                                          : deflateMatchesBound(filteredBytes);
            if (bound == 0)
                return 0;
            // Only the pages the deflate writes are touched; the bound is far above what it needs.
            file = out.room(before + bound + after);
            deflated = encoding.deflate == PngDeflate::Literals
                           ? deflateLiterals(filtered, filteredBytes, file + before, bound)
                           : deflateMatches(filtered, filteredBytes, file + before, bound, ws.compressor(level));
        }
    } catch (const std::bad_alloc&) {
        return 0;
    }
    if (deflated == 0 || deflated > c_maxPngDimension)
        return 0;
    unsigned char* p = file;
    std::memcpy(p, c_pngSignature, sizeof(c_pngSignature));
    p += sizeof(c_pngSignature);

    unsigned char* chunk = p;
    p = appendChunkHeader(p, 13, "IHDR");
    storeBigEndian32(width, p);
    storeBigEndian32(height, p + 4);
    const unsigned char ihdrTail[5] = {8, 0, 0, 0, 0};   // depth 8, grey, deflate, filters, no interlace
    std::memcpy(p + 8, ihdrTail, sizeof(ihdrTail));
    p = closeChunk(chunk + 4, 13);

    chunk = p;
    p = appendChunkHeader(p, static_cast<uint32_t>(deflated), "IDAT");
    p = closeChunk(chunk + 4, static_cast<uint32_t>(deflated));

    chunk = p;
    p = appendChunkHeader(p, 0, "IEND");
    p = closeChunk(chunk + 4, 0);
    const size_t fileBytes = static_cast<size_t>(p - file);
    out.resize(start + fileBytes);
    if (used)
        *used = encoding.deflate;
    return fileBytes;
}

bool WritePngGrey8Direct(const unsigned char* pixels, unsigned int width, unsigned int height,
                         std::vector<unsigned char>& out, PngDeflate* used, bool quick)
{
    out.clear();
    PngWriteWorkspace ws;
    GrowingBytes file;
    if (AppendPngGrey8Direct(pixels, width, height, file, ws, used, quick) == 0)
        return false;
    try {
        out.assign(file.data(), file.data() + file.size());
    } catch (const std::bad_alloc&) {
        out.clear();
        return false;
    }
    return true;
}

} // namespace qzsse::detail
