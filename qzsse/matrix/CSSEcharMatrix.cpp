#include "qzsse/matrix/CSSEcharMatrix.h"

#include <cstddef>
#include <cstring>

#include "qzsse/core/SafeAlloc.h"
#include "qzsse/core/detail/ClampInto.h"

CSSEcharMatrix::CSSEcharMatrix(const CSSEcharMatrix& other)
{
    *this = other;
}

// A deep copy; copying a matrix without storage leaves this one without storage too, with
// the other's sizes, as after Free().
CSSEcharMatrix& CSSEcharMatrix::operator=(const CSSEcharMatrix& other)
{
    if (&other == this)
        return *this;
    if (other.m_Data == nullptr) {
        Free();
        m_SizeX = other.m_SizeX;
        m_SizeY = other.m_SizeY;
        m_SSESizeX = other.m_SSESizeX;
        m_SSESizeY = other.m_SSESizeY;
        return *this;
    }
    if (m_Data == nullptr || m_SizeX != other.m_SizeX || m_SizeY != other.m_SizeY)
        Create(other.m_SizeX, other.m_SizeY);
    const size_t bytes = static_cast<size_t>(m_SSESizeY) * static_cast<size_t>(m_SSESizeX) * sizeof(__m128i);
    if (bytes != 0)
        std::memcpy(m_Block, other.m_Block, bytes);
    return *this;
}

CSSEcharMatrix::~CSSEcharMatrix()
{
    Free();
}

// All bands live in one aligned block: a byte matrix of the heights the library handles
// stays far below the sizes where splitting the allocation would matter.
void CSSEcharMatrix::Create(int sizeX, int sizeY)
{
    Free();
    m_SizeX = m_SSESizeX = sizeX;
    m_SizeY = sizeY;
    m_SSESizeY = (sizeY >> 4) + 1;

    const size_t bandVectors = static_cast<size_t>(m_SSESizeX);
    const size_t bytes = static_cast<size_t>(m_SSESizeY) * bandVectors * sizeof(__m128i);
    auto** bands = static_cast<__m128i**>(
        SafeAlignedAlloc(static_cast<size_t>(m_SSESizeY) * sizeof(__m128i*), 16));
    __m128i* block = nullptr;
    try {
        block = static_cast<__m128i*>(SafeAlignedAlloc(bytes, 16));
    } catch (...) {
        SafeAlignedFree(bands);
        throw;
    }
    if (bytes != 0)
        std::memset(block, 0, bytes);
    for (int j = 0; j < m_SSESizeY; ++j)
        bands[j] = block + static_cast<size_t>(j) * bandVectors;
    m_Block = block;
    m_Data = bands;
}

// Keeps the sizes, like the float matrix: callers test for storage with
// GetMatrixDataDirectly().
void CSSEcharMatrix::Free()
{
    if (m_Data == nullptr)
        return;
    SafeAlignedFree(m_Block);
    SafeAlignedFree(m_Data);
    m_Block = nullptr;
    m_Data = nullptr;
}

void CSSEcharMatrix::SetPoint(int x, int y, signed char value)
{
    x = qzsse::detail::clampInto(x, 0, m_SizeX - 1);
    y = qzsse::detail::clampInto(y, 0, m_SizeY - 1);
    reinterpret_cast<signed char*>(m_Data[y >> 4])[(x << 4) + (y & 15)] = value;
}

signed char CSSEcharMatrix::GetPoint(int x, int y) const
{
    x = qzsse::detail::clampInto(x, 0, m_SizeX - 1);
    y = qzsse::detail::clampInto(y, 0, m_SizeY - 1);
    return reinterpret_cast<const signed char*>(m_Data[y >> 4])[(x << 4) + (y & 15)];
}
