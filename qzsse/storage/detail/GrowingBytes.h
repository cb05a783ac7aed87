#pragma once

// An append-only byte buffer for large payloads: room is reserved with realloc (which moves
// large blocks by remapping pages, not by copying) and never zero-filled, so reserving a
// deflate bound costs only the pages actually written.

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

namespace qzsse::detail {

class GrowingBytes {
public:
    GrowingBytes() = default;
    GrowingBytes(const GrowingBytes&) = delete;
    GrowingBytes& operator=(const GrowingBytes&) = delete;
    ~GrowingBytes() { std::free(m_data); }

    const unsigned char* data() const { return m_data; }
    unsigned char* data() { return m_data; }
    size_t size() const { return m_size; }

    // n writable bytes after the end (contents undefined); commit what was written with
    // resize(). Throws std::bad_alloc.
    unsigned char* room(size_t n)
    {
        if (n > m_capacity - m_size) {
            size_t wanted = m_capacity + m_capacity / 2;
            if (wanted < m_size + n)
                wanted = m_size + n;
            void* grown = std::realloc(m_data, wanted);
            if (grown == nullptr)
                throw std::bad_alloc();
            m_data = static_cast<unsigned char*>(grown);
            m_capacity = wanted;
        }
        return m_data + m_size;
    }
    void resize(size_t n) { m_size = n; }   // n <= size() + the last room()
    void append(const void* bytes, size_t n)
    {
        if (n == 0)
            return;
        std::memcpy(room(n), bytes, n);
        m_size += n;
    }

private:
    unsigned char* m_data = nullptr;
    size_t m_size = 0;
    size_t m_capacity = 0;
};

} // namespace qzsse::detail
