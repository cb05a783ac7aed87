#pragma once

class CSSEMatrix;

// Scratch list of from-to coordinate pairs that drawing and area filling operations of a
// matrix share. The matrix owns the buffer and releases it when it is destroyed.
// As per-row spans of a region: entry 2y is the first and entry 2y + 1 the last column
// (inclusive) of row y; a row with from > to is empty.
class CImgFromToArray {
public:
    CImgFromToArray() = default;
    CImgFromToArray(const CImgFromToArray&) = delete;
    CImgFromToArray& operator=(const CImgFromToArray&) = delete;
    ~CImgFromToArray() { Release(); }

    int* GetData() { return m_pData; }
    int GetCount() const { return m_iCount; }

    // Frees the buffer and forgets it.
    void Release()
    {
        delete[] m_pData;
        m_pData = nullptr;
        m_iCount = 0;
    }

    // Replaces the buffer by one of count zeroed entries.
    void Allocate(int count)
    {
        Release();
        if (count > 0) {
            m_pData = new int[static_cast<unsigned>(count)]();
            m_iCount = count;
        }
    }

    // --- per-row spans ----------------------------------------------------------------------
    // Replaces the buffer by spans for `rows` rows, every one empty (from 0, to -1).
    void AllocateRows(int rows);
    int GetRows() const { return m_iCount / 2; }
    // Rows are trusted to lie in 0 .. GetRows() - 1.
    int GetFrom(int y) const { return m_pData[2 * y]; }
    int GetTo(int y) const { return m_pData[2 * y + 1]; }
    void SetSpan(int y, int from, int to)
    {
        m_pData[2 * y] = from;
        m_pData[2 * y + 1] = to;
    }
    // One span per image row: the first and last column whose pixel p has p > threshold
    // (above) or p < threshold (!above); NaN never counts. Returns the number of rows with a span.
    int ComputeFromMatrix(const CSSEMatrix& m, float threshold, bool above);
    // Rows 0 .. min(GetRows(), height) - 1: the pixels of each span, clipped to the image,
    // become value.
    void DrawIntoMatrix(CSSEMatrix& m, float value) const;

private:
    int* m_pData = nullptr;
    int m_iCount = 0;
};
