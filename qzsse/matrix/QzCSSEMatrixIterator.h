#pragma once

#include <compare>
#include <cstddef>
#include <iterator>
#include <type_traits>
#include <xmmintrin.h>

#include "qzsse/matrix/CSSEMatrix.h"

// Random-access iterator over the real pixels of a CSSEMatrix in row order (y, then x), so
// the matrix works with range-for and <algorithm>. T is float (mutable) or const float.
// Moving within a row is one step of 4 floats; an iterator is invalidated when the matrix
// is resized or freed.
template <class T>
class QzCSSEMatrixIteratorBase {
    static_assert(std::is_same_v<std::remove_const_t<T>, float>);

public:
    using iterator_category = std::random_access_iterator_tag;
    using iterator_concept = std::random_access_iterator_tag;
    using value_type = float;
    using difference_type = std::ptrdiff_t;
    using pointer = T*;
    using reference = T&;

    QzCSSEMatrixIteratorBase() = default;
    // Pixel (x, y) of m; (0, height) is the end.
    QzCSSEMatrixIteratorBase(__m128** data, int width, int x, int y) : m_Data(data), m_Width(width), m_X(x), m_Y(y) {}
    // A mutable iterator converts to a const one.
    template <class U, class = std::enable_if_t<std::is_const_v<T> && !std::is_const_v<U>>>
    QzCSSEMatrixIteratorBase(const QzCSSEMatrixIteratorBase<U>& other)
        : m_Data(other.data()), m_Width(other.width()), m_X(other.x()), m_Y(other.y())
    {
    }

    int x() const { return m_X; }
    int y() const { return m_Y; }
    __m128** data() const { return m_Data; }
    int width() const { return m_Width; }

    reference operator*() const { return reinterpret_cast<T*>(m_Data[m_Y >> 2])[(m_X << 2) + (m_Y & 3)]; }
    pointer operator->() const { return &**this; }
    reference operator[](difference_type n) const { return *(*this + n); }

    QzCSSEMatrixIteratorBase& operator++()
    {
        if (++m_X == m_Width) {
            m_X = 0;
            ++m_Y;
        }
        return *this;
    }
    QzCSSEMatrixIteratorBase& operator--()
    {
        if (m_X-- == 0) {
            m_X = m_Width - 1;
            --m_Y;
        }
        return *this;
    }
    QzCSSEMatrixIteratorBase operator++(int)
    {
        QzCSSEMatrixIteratorBase old = *this;
        ++*this;
        return old;
    }
    QzCSSEMatrixIteratorBase operator--(int)
    {
        QzCSSEMatrixIteratorBase old = *this;
        --*this;
        return old;
    }
    QzCSSEMatrixIteratorBase& operator+=(difference_type n)
    {
        const difference_type i = index() + n;
        m_Y = static_cast<int>(i / m_Width);
        m_X = static_cast<int>(i % m_Width);
        return *this;
    }
    QzCSSEMatrixIteratorBase& operator-=(difference_type n) { return *this += -n; }
    friend QzCSSEMatrixIteratorBase operator+(QzCSSEMatrixIteratorBase it, difference_type n) { return it += n; }
    friend QzCSSEMatrixIteratorBase operator+(difference_type n, QzCSSEMatrixIteratorBase it) { return it += n; }
    friend QzCSSEMatrixIteratorBase operator-(QzCSSEMatrixIteratorBase it, difference_type n) { return it -= n; }
    friend difference_type operator-(const QzCSSEMatrixIteratorBase& a, const QzCSSEMatrixIteratorBase& b)
    {
        return a.index() - b.index();
    }
    friend bool operator==(const QzCSSEMatrixIteratorBase& a, const QzCSSEMatrixIteratorBase& b)
    {
        return a.m_X == b.m_X && a.m_Y == b.m_Y;
    }
    friend std::strong_ordering operator<=>(const QzCSSEMatrixIteratorBase& a, const QzCSSEMatrixIteratorBase& b)
    {
        return a.index() <=> b.index();
    }

private:
    difference_type index() const { return static_cast<difference_type>(m_Y) * m_Width + m_X; }

    __m128** m_Data = nullptr;
    int m_Width = 1; // a matrix without columns is walked as empty: begin == end
    int m_X = 0;
    int m_Y = 0;
};

// Found by argument-dependent lookup, so `for (float& p : matrix)` and std::ranges work.
// A matrix without storage or without columns is an empty range.
inline QzCSSEMatrixIteratorBase<float> begin(CSSEMatrix& m)
{
    return {m.GetMatrixDataDirectly(), m.GetSizeX() > 0 ? m.GetSizeX() : 1, 0, 0};
}
inline QzCSSEMatrixIteratorBase<float> end(CSSEMatrix& m)
{
    const bool empty = m.GetMatrixDataDirectly() == nullptr || m.GetSizeX() < 1;
    return {m.GetMatrixDataDirectly(), m.GetSizeX() > 0 ? m.GetSizeX() : 1, 0, empty ? 0 : m.GetSizeY()};
}
inline QzCSSEMatrixIteratorBase<const float> begin(const CSSEMatrix& m)
{
    return {m.GetMatrixDataDirectly(), m.GetSizeX() > 0 ? m.GetSizeX() : 1, 0, 0};
}
inline QzCSSEMatrixIteratorBase<const float> end(const CSSEMatrix& m)
{
    const bool empty = m.GetMatrixDataDirectly() == nullptr || m.GetSizeX() < 1;
    return {m.GetMatrixDataDirectly(), m.GetSizeX() > 0 ? m.GetSizeX() : 1, 0, empty ? 0 : m.GetSizeY()};
}

namespace qzsse {

namespace detail {
// Vector types never appear as template arguments (their alignment attribute would be dropped).
template <bool Const>
struct BandVectorPointer {
    using type = __m128*;
};
template <>
struct BandVectorPointer<true> {
    using type = const __m128*;
};
} // namespace detail

// The band-wise vector walk of the library's own loops: every vector of every band, padding
// rows included, band by band and column by column; Const gives const __m128 references.
template <bool Const>
class BandVectorRange {
public:
    class iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = __m128;
        using difference_type = std::ptrdiff_t;
        using pointer = typename detail::BandVectorPointer<Const>::type;
        using reference = decltype(*pointer());

        iterator() = default;
        iterator(__m128** data, int columns, int band, int x) : m_Data(data), m_Columns(columns), m_Band(band), m_X(x) {}
        reference operator*() const { return m_Data[m_Band][m_X]; }
        iterator& operator++()
        {
            if (++m_X == m_Columns) {
                m_X = 0;
                ++m_Band;
            }
            return *this;
        }
        iterator operator++(int)
        {
            iterator old = *this;
            ++*this;
            return old;
        }
        // Row of lane 0 of the current vector, and its column.
        int bandTop() const { return 4 * m_Band; }
        int column() const { return m_X; }
        friend bool operator==(const iterator& a, const iterator& b) { return a.m_Band == b.m_Band && a.m_X == b.m_X; }

    private:
        __m128** m_Data = nullptr;
        int m_Columns = 1;
        int m_Band = 0;
        int m_X = 0;
    };

    BandVectorRange(__m128** data, int columns, int bands)
        : m_Data(data), m_Columns(columns), m_Bands(data != nullptr && columns > 0 ? bands : 0)
    {
    }
    iterator begin() const { return {m_Data, m_Columns > 0 ? m_Columns : 1, 0, 0}; }
    iterator end() const { return {m_Data, m_Columns > 0 ? m_Columns : 1, m_Bands, 0}; }

private:
    __m128** m_Data;
    int m_Columns;
    int m_Bands;
};

inline BandVectorRange<false> BandVectors(CSSEMatrix& m)
{
    return {m.GetMatrixDataDirectly(), m.GetSSESizeX(), m.GetSSESizeY()};
}
inline BandVectorRange<true> BandVectors(const CSSEMatrix& m)
{
    return {m.GetMatrixDataDirectly(), m.GetSSESizeX(), m.GetSSESizeY()};
}

} // namespace qzsse
