#pragma once

// Scratch list of from-to coordinate pairs that drawing and area filling operations of a
// matrix share. The matrix owns the buffer and releases it when it is destroyed.
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

private:
    int* m_pData = nullptr;
    int m_iCount = 0;
};
