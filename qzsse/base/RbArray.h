#pragma once

#include <cstddef>
#include <initializer_list>
#include <stdexcept>
#include <type_traits>
#include <utility>
#include <vector>

// Contiguous growable array. Sizes and indices are signed (std::ptrdiff_t) as in the
// platform's arrays, so `for (int i = 0; i < a.GetSize(); ++i)` compiles without
// sign-compare warnings; indices are trusted, as everywhere in the library.
template <class T>
class RbArray {
    static_assert(!std::is_same_v<T, bool>, "RbArray<bool> would not be contiguous; use unsigned char");

public:
    using value_type = T;
    using iterator = typename std::vector<T>::iterator;
    using const_iterator = typename std::vector<T>::const_iterator;

    RbArray() = default;
    RbArray(std::initializer_list<T> values) : m_data(values) {}

    std::ptrdiff_t GetSize() const { return static_cast<std::ptrdiff_t>(m_data.size()); }
    std::ptrdiff_t GetCount() const { return GetSize(); }
    bool IsEmpty() const { return m_data.empty(); }

    T& operator[](std::ptrdiff_t i) { return m_data[static_cast<size_t>(i)]; }
    const T& operator[](std::ptrdiff_t i) const { return m_data[static_cast<size_t>(i)]; }
    T& GetAt(std::ptrdiff_t i) { return (*this)[i]; }
    const T& GetAt(std::ptrdiff_t i) const { return (*this)[i]; }
    void SetAt(std::ptrdiff_t i, const T& value) { (*this)[i] = value; }

    // Appends and returns the index of the new element.
    std::ptrdiff_t Add(const T& value)
    {
        m_data.push_back(value);
        return GetSize() - 1;
    }
    std::ptrdiff_t Add(T&& value)
    {
        m_data.push_back(std::move(value));
        return GetSize() - 1;
    }

    // Grows with value-initialised elements (zero for numbers) or shrinks from the end.
    void SetSize(std::ptrdiff_t size)
    {
        if (size < 0)
            throw std::length_error("RbArray::SetSize: negative size");
        m_data.resize(static_cast<size_t>(size));
    }

    void RemoveAt(std::ptrdiff_t i, std::ptrdiff_t count = 1)
    {
        m_data.erase(m_data.begin() + i, m_data.begin() + i + count);
    }
    void RemoveAll() { m_data.clear(); }

    T* GetData() { return m_data.data(); }
    const T* GetData() const { return m_data.data(); }

    iterator begin() { return m_data.begin(); }
    iterator end() { return m_data.end(); }
    const_iterator begin() const { return m_data.begin(); }
    const_iterator end() const { return m_data.end(); }

    friend bool operator==(const RbArray& a, const RbArray& b) { return a.m_data == b.m_data; }

private:
    std::vector<T> m_data;
};
