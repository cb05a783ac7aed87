#pragma once

#include <cstddef>
#include <vector>

// Row-major 2-D field of T; the second parameter (components per element) is always 1
// in this library.
template <class T, int Components = 1>
class RyField2D {
    static_assert(Components == 1, "only single-component fields are supported");

public:
    RyField2D() = default;
    RyField2D(int width, int height, const T& value = T())
        : m_width(width), m_height(height),
          m_data(static_cast<size_t>(width) * static_cast<size_t>(height), value)
    {
    }

    int GetWidth() const { return m_width; }
    int GetHeight() const { return m_height; }

    T& operator()(int row, int column) { return m_data[index(row, column)]; }
    const T& operator()(int row, int column) const { return m_data[index(row, column)]; }

    T* GetData() { return m_data.data(); }
    const T* GetData() const { return m_data.data(); }

private:
    size_t index(int row, int column) const
    {
        return static_cast<size_t>(row) * static_cast<size_t>(m_width) + static_cast<size_t>(column);
    }

    int m_width = 0;
    int m_height = 0;
    std::vector<T> m_data;
};
