#pragma once

#include <emmintrin.h>

// Matrix of signed bytes stored like CSSEMatrix but in bands of sixteen rows: pixel (x, y)
// is byte y & 15 of the 16-byte vector x of band y >> 4. There are (height >> 4) + 1
// bands, so padding rows always follow the image; new storage is 0 everywhere.
class CSSEcharMatrix {
public:
    CSSEcharMatrix() = default;
    CSSEcharMatrix(const CSSEcharMatrix& other);
    CSSEcharMatrix& operator=(const CSSEcharMatrix& other);
    ~CSSEcharMatrix();

    void Create(int sizeX, int sizeY);
    // Keeps the sizes; callers test for storage with GetMatrixDataDirectly().
    void Free();

    // Both coordinates are clamped into the image.
    void SetPoint(int x, int y, signed char value);
    signed char GetPoint(int x, int y) const;

    int GetSizeX() const { return m_SizeX; }
    int GetSizeY() const { return m_SizeY; }
    int GetSSESizeX() const { return m_SSESizeX; }
    int GetSSESizeY() const { return m_SSESizeY; }
    __m128i** GetMatrixDataDirectly() const { return m_Data; }

private:
    int m_SizeX = 0;
    int m_SizeY = 0;
    int m_SSESizeX = 0;
    int m_SSESizeY = 0;
    __m128i* m_Block = nullptr;  // one aligned block holding every band
    __m128i** m_Data = nullptr;  // band pointers into m_Block
};
