#pragma once

// The image payloads of matrix passes as the stream reader takes them: whole, as 8-bit codes,
// or a strip of rows at a time where the payload allows it.

#include <cstddef>
#include <memory>
#include <vector>

namespace qzsse::detail {

class JpegGreyRows;
class PngGrey8Rows;

// The 8-bit codes of an encoded image as CSSEMatrix::decode(stream, 8, ...) gives them, kept in
// the decoder's buffer instead of copied; empty on a failure, width and height then as the
// decoder left them.
std::vector<unsigned char> DecodePassCodes(const unsigned char* data, size_t size, unsigned int& width,
                                           unsigned int& height);

// A JPEG payload, or a PNG payload with a literal-only stream (ISA-L inflates those fastest;
// libdeflate, which reads whole images only, is faster on streams with matches: 4096 x 4096
// first passes read by rows took 4 to 5 ms longer), read a few rows at a time. The rows,
// once all read and Finish true, are those DecodePassCodes gives.
class PassImageRows {
public:
    PassImageRows();
    ~PassImageRows();
    PassImageRows(const PassImageRows&) = delete;
    PassImageRows& operator=(const PassImageRows&) = delete;

    // False when the payload is of neither kind, is damaged in its header, or is not a
    // width x height image: the caller then decodes it whole. data must outlive the reader.
    bool Open(const unsigned char* data, size_t size, unsigned int width, unsigned int height);
    // The next `rows` rows, each of width bytes. False on any damage; the reader is then spent.
    bool ReadRows(unsigned char* out, unsigned int rows);
    // After the last row: true when the payload ends as a whole-image decoder requires.
    bool Finish();

private:
    std::unique_ptr<JpegGreyRows> m_jpeg;
    std::unique_ptr<PngGrey8Rows> m_png;
};

} // namespace qzsse::detail
