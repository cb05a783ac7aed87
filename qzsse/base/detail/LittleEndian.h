#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <type_traits>

namespace qzsse::detail {

// Byte-order conversion written with shifts so that the encoding does not depend on the
// host; compilers turn these loops into plain loads and stores on little-endian machines.
template <class U>
inline void StoreLittleEndian(U value, unsigned char* out)
{
    static_assert(std::is_unsigned_v<U>);
    for (size_t i = 0; i < sizeof(U); ++i)
        out[i] = static_cast<unsigned char>(value >> (8 * i));
}

template <class U>
inline U LoadLittleEndian(const unsigned char* in)
{
    static_assert(std::is_unsigned_v<U>);
    U value = 0;
    for (size_t i = 0; i < sizeof(U); ++i)
        value = static_cast<U>(value | (static_cast<U>(in[i]) << (8 * i)));
    return value;
}

// The unsigned integer of the same width as an arithmetic type; floats travel as the bits
// of their IEEE-754 representation.
template <size_t Size>
struct UnsignedOfSize;
template <> struct UnsignedOfSize<1> { using type = std::uint8_t; };
template <> struct UnsignedOfSize<2> { using type = std::uint16_t; };
template <> struct UnsignedOfSize<4> { using type = std::uint32_t; };
template <> struct UnsignedOfSize<8> { using type = std::uint64_t; };

template <class T>
using UnsignedBitsOf = typename UnsignedOfSize<sizeof(T)>::type;

template <class T>
inline void StoreValueLittleEndian(T value, unsigned char* out)
{
    if constexpr (std::is_same_v<T, bool>)
        out[0] = value ? 1 : 0;
    else
        StoreLittleEndian(std::bit_cast<UnsignedBitsOf<T>>(value), out);
}

template <class T>
inline T LoadValueLittleEndian(const unsigned char* in)
{
    if constexpr (std::is_same_v<T, bool>)
        return in[0] != 0;
    else
        return std::bit_cast<T>(LoadLittleEndian<UnsignedBitsOf<T>>(in));
}

} // namespace qzsse::detail
