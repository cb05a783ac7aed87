#pragma once

#include "qzsse/base/RbArray.h"

class RbStreamWriteBinary;

// Writes an 8-bit greyscale image as a baseline JPEG file. The writer keeps a reference to
// the codes: they must outlive it.
class RyJPEGWriter {
public:
    // codes: width * height bytes, row-major.
    RyJPEGWriter(const RbArray<unsigned char>& codes, int width, int height);

    // q in [0, 1] as a fraction of the codec's 1..100 scale: clamp(trunc(q * 100 + 0.5), 1, 100);
    // NaN gives 1.
    void SetQuality(float q);
    int GetQuality() const { return m_iQuality; }

    // Appends the complete JPEG file, raw. An image the codec cannot hold (an empty one, a
    // side above 65500, fewer codes than pixels) writes nothing and returns false.
    bool Serialize(RbStreamWriteBinary& stream) const;

private:
    const RbArray<unsigned char>& m_codes;
    int m_iWidth;
    int m_iHeight;
    int m_iQuality = 95;
};
