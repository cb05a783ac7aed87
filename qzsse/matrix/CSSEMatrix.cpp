#include "qzsse/matrix/CSSEMatrix.h"

#include <cstring>
#include <new>

#include "qzsse/core/SafeAlloc.h"

CSSEMatrix::CSSEMatrix()
    : m_fMaxAbsCompressionError(0.0f), m_SizeX(0), m_SizeY(0), m_SSESizeX(0), m_SSESizeY(0),
      m_RowProcessed(0), m_Fields(0), m_FieldData{}, m_Data(nullptr)
{
}

CSSEMatrix::CSSEMatrix(const CSSEMatrix& other) : CSSEMatrix()
{
    CopyFromSSEMatrix(other);
}

CSSEMatrix::CSSEMatrix(const RyField2D<float, 1>& field) : CSSEMatrix()
{
    CopyFromField(field);
}

CSSEMatrix::~CSSEMatrix()
{
    Free();
    m_FromToArray.Release();
}

const CSSEMatrix& CSSEMatrix::operator=(const CSSEMatrix& other)
{
    if (&other != this)
        CopyFromSSEMatrix(other);
    return *this;
}

void CSSEMatrix::init()
{
    m_SizeX = m_SizeY = m_SSESizeX = m_SSESizeY = 0;
    m_RowProcessed = 0;
    m_Fields = 0;
    m_Data = nullptr;
    for (__m128*& field : m_FieldData)
        field = nullptr;
}

// Bands are grouped into blocks of at most 32 so that no single allocation grows with
// the image height; a band never straddles two blocks.
void CSSEMatrix::allocate(int sizeX, int sizeY)
{
    if (m_Data != nullptr)
        Free();

    m_SizeY = sizeY;
    m_SizeX = m_SSESizeX = sizeX;
    m_SSESizeY = (sizeY >> 2) + 1;

    const size_t bandBytes = static_cast<size_t>(m_SSESizeX) * sizeof(__m128);
    auto** bands = static_cast<__m128**>(
        SafeAlignedAlloc(static_cast<size_t>(m_SSESizeY) * sizeof(__m128*), 16));

    if (m_SSESizeY < c_iLinesPerField)
        m_Fields = 1;
    else
        m_Fields = m_SSESizeY / c_iLinesPerField + (m_SSESizeY % c_iLinesPerField != 0 ? 1 : 0);
    for (int i = 0; i < m_Fields; ++i) {
        const int fieldBands = fieldBandCount(i);
        auto* block = static_cast<__m128*>(SafeAlignedAlloc(fieldBands * bandBytes, 16));
        m_FieldData[i] = block;
        for (int k = 0; k < fieldBands; ++k)
            bands[c_iLinesPerField * i + k] = block + static_cast<size_t>(k) * m_SSESizeX;
    }
    m_Data = bands;
}

int CSSEMatrix::fieldBandCount(int field) const
{
    return field < m_Fields - 1 ? c_iLinesPerField : m_SSESizeY - c_iLinesPerField * (m_Fields - 1);
}

void CSSEMatrix::Create(int sizeX, int sizeY)
{
    allocate(sizeX, sizeY);
    Clear();
}

void CSSEMatrix::CreateNoClear(int sizeX, int sizeY)
{
    allocate(sizeX, sizeY);
}

void CSSEMatrix::CreateSimilar(CSSEMatrix& other)
{
    Create(other.m_SizeX, other.m_SizeY);
}

void CSSEMatrix::Free()
{
    if (m_Data == nullptr)
        return;
    for (int i = 0; i < m_Fields; ++i) {
        if (m_FieldData[i] != nullptr) {
            SafeAlignedFree(m_FieldData[i]);
            m_FieldData[i] = nullptr;
        }
    }
    m_Fields = 0;
    SafeAlignedFree(m_Data);
    m_Data = nullptr;
}

void CSSEMatrix::Fill(float value)
{
    const __m128 v = _mm_set1_ps(value);
    for (int j = 0; j < m_SSESizeY; ++j) {
        __m128* band = m_Data[j];
        for (int x = 0; x < m_SSESizeX; ++x)
            band[x] = v;
    }
}

// Zero bits are +0.0, so each field block can be cleared in one go.
void CSSEMatrix::Clear()
{
    const size_t bandBytes = static_cast<size_t>(m_SSESizeX) * sizeof(__m128);
    for (int i = 0; i < m_Fields; ++i)
        std::memset(m_FieldData[i], 0, bandBytes * fieldBandCount(i));
}

void CSSEMatrix::ClearRow(int y, float value)
{
    // An image without rows has no row to clamp onto.
    if (m_SizeY < 1)
        return;
    if (y < 0)
        y = 0;
    if (y > m_SizeY - 1)
        y = m_SizeY - 1;
    float* row = reinterpret_cast<float*>(m_Data[y >> 2]) + (y & 3);
    for (int x = 0; x < m_SizeX; ++x)
        row[4 * x] = value;
}

void CSSEMatrix::CopyFromSSEMatrix(const CSSEMatrix& src)
{
    // A copy from itself only rewrites the parameters (and would otherwise hand memcpy
    // overlapping ranges).
    if (src.m_Data != nullptr && &src != this) {
        // Every byte is overwritten, so fresh storage needs no zero fill first.
        if (m_Data == nullptr || m_SizeX != src.m_SizeX || m_SizeY != src.m_SizeY)
            allocate(src.m_SizeX, src.m_SizeY);
        // Equal sizes mean equal field layouts: one block copy per field.
        const size_t bandBytes = static_cast<size_t>(m_SSESizeX) * sizeof(__m128);
        if (bandBytes != 0)
            for (int i = 0; i < m_Fields; ++i)
                std::memcpy(m_FieldData[i], src.m_FieldData[i], bandBytes * fieldBandCount(i));
    }
    m_CompressionParameters = src.m_CompressionParameters;
}

void CSSEMatrix::CopyFromField(const RyField2D<float, 1>& field)
{
    CreateNoClear(field.GetWidth(), field.GetHeight());
    for (int y = 0; y < m_SizeY; ++y)
        for (int x = 0; x < m_SizeX; ++x)
            SetPoint(x, y, field(y, x));
}
