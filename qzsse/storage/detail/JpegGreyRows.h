#pragma once

// A one-component JPEG read a few rows at a time, so that its rows can be summed into a
// matrix while they are still in cache instead of going through a whole-image buffer.

#include <cstddef>
#include <memory>

namespace qzsse::detail {

class JpegGreyRows {
public:
    JpegGreyRows();
    ~JpegGreyRows();
    JpegGreyRows(const JpegGreyRows&) = delete;
    JpegGreyRows& operator=(const JpegGreyRows&) = delete;

    // Reads the header and starts decoding. False for anything DecodeJpeg would not give as
    // 8-bit grey rows (a damaged header, colour, a size above the payload's bound): the
    // caller then decodes it whole. The rows, once all read, are those DecodeJpeg gives.
    bool Open(const unsigned char* data, size_t size);
    unsigned int Width() const;
    unsigned int Height() const;
    // The next `rows` rows, each of Width() bytes, to out. False on any error or warning of
    // the codec, as DecodeJpeg fails on them; the reader is then spent.
    bool ReadRows(unsigned char* out, unsigned int rows);
    // After the last row: checks the rest of the payload as DecodeJpeg does.
    bool Finish();

private:
    struct State;
    std::unique_ptr<State> m_state;
};

} // namespace qzsse::detail
