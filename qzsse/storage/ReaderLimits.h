#pragma once

// Bounds on what the readers of untrusted bytes may allocate: the matrix stream and its
// archive form, the store file, and the image payloads inside them. A stream that asks
// for more is refused with RbStreamException naming the sizes, before anything is
// allocated for it; a payload decoder refuses such an image as it refuses a corrupt one.

namespace qzsse {

struct ReaderLimits {
    // 2^27 pixels admits every matrix of the original format family (31999 rows at up to
    // 4194 columns, or 4095 rows at up to 32768 columns): one matrix of floats is then at
    // most 512 MiB, and reading a multi-pass stream of that size peaked at 1.68 GiB.
    static constexpr unsigned long long c_ullDefaultMaxMatrixPixels = 1ull << 27;
    // The 8-bit code image of the largest default matrix.
    static constexpr unsigned long long c_ullDefaultMaxDecodedBytes = 1ull << 27;

    // Largest matrix a reader creates, as width x stored rows (the height rounded up to
    // whole bands of four, plus the band of padding rows: 4 * (height / 4 + 1)).
    unsigned long long maxMatrixPixels = c_ullDefaultMaxMatrixPixels;
    // Largest decoded image payload, in bytes of pixels.
    unsigned long long maxDecodedBytes = c_ullDefaultMaxDecodedBytes;
};

// Process-wide, for the readers on every thread; takes effect on the next read. A zero
// field is taken as its default.
void SetReaderLimits(const ReaderLimits& limits);
ReaderLimits GetReaderLimits();

} // namespace qzsse
