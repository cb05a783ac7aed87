#pragma once

// The 8-bit grey PNGs of the matrix passes, written and read without libpng: they are the
// bulk of an entry's time, and the whole-buffer deflate and inflate of libdeflate with a
// vectorised row filter are several times faster than libpng's row-by-row path.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qzsse/storage/detail/GrowingBytes.h"
#include "qzsse/storage/detail/ImageCodecs.h"

struct libdeflate_compressor;
class RbThreadPool;

namespace qzsse::detail {

constexpr unsigned char c_pngSignature[8] = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
constexpr unsigned char c_filterNone = 0, c_filterSub = 1, c_filterUp = 2, c_filterAverage = 3, c_filterPaeth = 4;
constexpr unsigned int c_maxPngDimension = 0x7FFFFFFFu;

inline uint32_t loadBigEndian32(const unsigned char* p)
{
    return static_cast<uint32_t>(p[0]) << 24 | static_cast<uint32_t>(p[1]) << 16 | static_cast<uint32_t>(p[2]) << 8
           | static_cast<uint32_t>(p[3]);
}

// How the IDAT stream of a written PNG was deflated (chosen on a sample of rows).
enum class PngDeflate { Matches, Literals };

// Signature, IHDR, one IDAT and IEND; every row with the Up filter, or every row with Paeth
// where that is smaller on a sample of rows (real terrain; Up suits smooth grids and is
// undone far faster). False (out empty) for a
// zero width or height or a failed allocation. `used`, when given, receives the deflate chosen.
// quick: libdeflate's level 1 instead of 2 for matches (twice as fast, about 3 % larger).
bool WritePngGrey8Direct(const unsigned char* pixels, unsigned int width, unsigned int height,
                         std::vector<unsigned char>& out, PngDeflate* used = nullptr, bool quick = false);

// The writer's buffers and compressors, kept across the passes of an entry so that the large
// buffers are allocated and faulted in once. One workspace serves one thread at a time.
class PngWriteWorkspace {
public:
    PngWriteWorkspace();
    ~PngWriteWorkspace();
    PngWriteWorkspace(const PngWriteWorkspace&) = delete;
    PngWriteWorkspace& operator=(const PngWriteWorkspace&) = delete;

    struct Buffer {
        std::unique_ptr<unsigned char[]> bytes;
        size_t capacity = 0;
        // At least n bytes, not initialised; null when allocation fails.
        unsigned char* at_least(size_t n);
    };
    // The trials' streams: Up and Paeth with matches, then with literals only.
    Buffer filtered, samples[2], trials[4];
    // A compressor of this level for each of two threads (slot 0 or 1).
    libdeflate_compressor* compressor(int level, int slot = 0);

private:
    libdeflate_compressor* m_compressors[2][13] = {};
};

// WritePngGrey8Direct's file appended to out, deflated straight into it; returns the file's
// size, 0 (out as it was) where WritePngGrey8Direct fails. With a pool, one filter's trials
// run as a task of it beside the other's (the same file); the caller must not be one of the
// pool's workers.
size_t AppendPngGrey8Direct(const unsigned char* pixels, unsigned int width, unsigned int height, GrowingBytes& out,
                            PngWriteWorkspace& workspace, PngDeflate* used = nullptr, bool quick = false,
                            RbThreadPool* pool = nullptr);

// Reads a PNG of exactly IHDR (8-bit grey, not interlaced), one IDAT and IEND, with any row
// filters, CRCs and Adler checksum verified, into image (rows of width bytes) when its size
// is within image.maxBytes. False, image.pixels empty and the other fields as given, for
// anything else: the general decoder then reads it, or refuses it.
bool ReadSimplePngGrey8(const unsigned char* data, size_t size, DecodedImage& image);

// The PNGs ReadSimplePngGrey8 reads, inflated by ISA-L a few rows at a time, so that the rows
// can be used while still in cache and no whole-image buffer is needed.
class PngGrey8Rows {
public:
    PngGrey8Rows();
    ~PngGrey8Rows();
    PngGrey8Rows(const PngGrey8Rows&) = delete;
    PngGrey8Rows& operator=(const PngGrey8Rows&) = delete;

    // False for anything ReadSimplePngGrey8 would refuse with this maxBytes (checked on
    // the chunks only: damage inside the stream shows in ReadRows or Finish).
    bool Open(const unsigned char* data, size_t size, unsigned long long maxBytes);
    unsigned int Width() const { return m_width; }
    unsigned int Height() const { return m_height; }
    // True when the stream's first block has no length codes (see ReadSimplePngGrey8).
    bool LiteralOnly() const { return m_literalOnly; }
    // The next `rows` rows, each of Width() bytes, to out. False when the stream is damaged;
    // the reader is then spent.
    bool ReadRows(unsigned char* out, unsigned int rows);
    // After the last row: true when the stream ends there, its checksum correct.
    bool Finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
    unsigned int m_width = 0;
    unsigned int m_height = 0;
    unsigned int m_rowsLeft = 0;
    bool m_literalOnly = false;
};

} // namespace qzsse::detail
