#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace qzsse::detail {

// UTF-8 <-> UTF-16 for the places where the platform counted UTF-16 code units: archive
// strings and the id hash. Decoding is total so that every byte string has exactly one
// UTF-16 form: a byte that does not start a well-formed sequence becomes U+FFFD, and an
// encoded lone surrogate (ED A0..BF xx, as written by Utf16ToUtf8) becomes that unit, so
// UTF-16 text with unpaired surrogates survives a round trip through CString.
template <class UnitSink>
inline void ForEachUtf16Unit(const std::string& utf8, UnitSink&& sink)
{
    const auto* s = reinterpret_cast<const unsigned char*>(utf8.data());
    const size_t n = utf8.size();
    auto isCont = [&](size_t i) { return i < n && (s[i] & 0xC0) == 0x80; };
    size_t i = 0;
    while (i < n) {
        const unsigned char b = s[i];
        if (b < 0x80) {
            sink(static_cast<char16_t>(b));
            ++i;
        } else if (b >= 0xC2 && b <= 0xDF && isCont(i + 1)) {
            sink(static_cast<char16_t>(((b & 0x1Fu) << 6) | (s[i + 1] & 0x3Fu)));
            i += 2;
        } else if (b >= 0xE0 && b <= 0xEF && isCont(i + 1) && isCont(i + 2)
                   && (b != 0xE0 || s[i + 1] >= 0xA0)) {
            sink(static_cast<char16_t>(((b & 0x0Fu) << 12) | ((s[i + 1] & 0x3Fu) << 6)
                                       | (s[i + 2] & 0x3Fu)));
            i += 3;
        } else if (b >= 0xF0 && b <= 0xF4 && isCont(i + 1) && isCont(i + 2) && isCont(i + 3)
                   && (b != 0xF0 || s[i + 1] >= 0x90) && (b != 0xF4 || s[i + 1] <= 0x8F)) {
            const std::uint32_t cp = ((b & 0x07u) << 18) | ((s[i + 1] & 0x3Fu) << 12)
                                     | ((s[i + 2] & 0x3Fu) << 6) | (s[i + 3] & 0x3Fu);
            sink(static_cast<char16_t>(0xD800u + ((cp - 0x10000u) >> 10)));
            sink(static_cast<char16_t>(0xDC00u + ((cp - 0x10000u) & 0x3FFu)));
            i += 4;
        } else {
            sink(static_cast<char16_t>(0xFFFD));
            ++i;
        }
    }
}

std::u16string Utf8ToUtf16(const std::string& utf8);
std::string Utf16ToUtf8(const char16_t* units, size_t count);
// Bytes of the platform's narrow archive strings, taken as Latin-1.
std::string Latin1ToUtf8(const unsigned char* bytes, size_t count);

} // namespace qzsse::detail
