#pragma once

#include <emmintrin.h>

class CSSEMatrix;

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

    // --- contents: as masks, 0 is empty and any other byte is set; the operations that
    // yield a mask write 1 for set and keep the padding rows 0 ----------------------------
    // Every byte, padding rows included.
    void Fill(signed char value);
    void Clear() { Fill(0); }
    // The same deep copy as the assignment.
    void CopyFrom(const CSSEcharMatrix& src) { *this = src; }
    // This becomes a mask of src's size: 1 where p > threshold (above) or p < threshold
    // (!above), 0 elsewhere and for NaN.
    void CreateFromMatrix(const CSSEMatrix& src, float threshold, bool above);
    // dst becomes this size: value where the byte is set, 0 elsewhere and in the padding rows.
    void CopyToMatrix(CSSEMatrix& dst, float value) const;
    // Pixel-wise over this image; other's pixels outside its own image count as empty.
    void LogicalAnd(const CSSEcharMatrix& other);
    void LogicalOr(const CSSEcharMatrix& other);
    void LogicalNot();
    // Set pixels of the image (padding rows not counted).
    int CountNonZero() const;
    // 3x3 square or, with cross, the centre and its four direct neighbours. Pixels outside the
    // image never erode nor dilate a pixel inside.
    void Erode(bool cross);
    void Dilate(bool cross);

private:
    int m_SizeX = 0;
    int m_SizeY = 0;
    int m_SSESizeX = 0;
    int m_SSESizeY = 0;
    __m128i* m_Block = nullptr;  // one aligned block holding every band
    __m128i** m_Data = nullptr;  // band pointers into m_Block
};
