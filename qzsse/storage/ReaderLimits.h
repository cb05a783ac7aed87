#pragma once

// Bounds on what the readers of untrusted bytes may allocate: the matrix stream and its
// archive form, the store file, the image payloads inside them, and the mesh readers
// (stream, archive, PLY, STL, OBJ). A stream that asks
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
    // 2^22 triangles take about 1.4 GB as a CHTriangulation (336 bytes each), in line with
    // the 512 MiB matrix admitted above.
    static constexpr unsigned long long c_ullDefaultMaxMeshTriangles = 1ull << 22;

    // Largest matrix a reader creates, as width x stored rows (the height rounded up to
    // whole bands of four, plus the band of padding rows: 4 * (height / 4 + 1)).
    unsigned long long maxMatrixPixels = c_ullDefaultMaxMatrixPixels;
    // Largest decoded image payload, in bytes of pixels.
    unsigned long long maxDecodedBytes = c_ullDefaultMaxDecodedBytes;
    // Largest mesh a reader creates, in triangles; indexed files may hold three corner
    // points per triangle at most. Capped at INT32_MAX / 3 so that point indices stay 32-bit.
    unsigned long long maxMeshTriangles = c_ullDefaultMaxMeshTriangles;
};

// Process-wide, for the readers on every thread; takes effect on the next read. A zero
// field is taken as its default.
void SetReaderLimits(const ReaderLimits& limits);
ReaderLimits GetReaderLimits();

} // namespace qzsse
