#include "qzsse/base/detail/Utf16.h"

namespace qzsse::detail {

namespace {

void AppendUtf8(std::string& out, std::uint32_t cp)
{
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

} // namespace

std::u16string Utf8ToUtf16(const std::string& utf8)
{
    std::u16string units;
    units.reserve(utf8.size());
    ForEachUtf16Unit(utf8, [&](char16_t u) { units += u; });
    return units;
}

std::string Utf16ToUtf8(const char16_t* units, size_t count)
{
    std::string out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        const std::uint32_t u = units[i];
        if (u >= 0xD800 && u <= 0xDBFF && i + 1 < count && units[i + 1] >= 0xDC00
            && units[i + 1] <= 0xDFFF) {
            const std::uint32_t low = units[++i];
            AppendUtf8(out, 0x10000u + ((u - 0xD800u) << 10) + (low - 0xDC00u));
        } else {
            // A lone surrogate is kept as its own three-byte form, see ForEachUtf16Unit.
            AppendUtf8(out, u);
        }
    }
    return out;
}

std::string Latin1ToUtf8(const unsigned char* bytes, size_t count)
{
    std::string out;
    out.reserve(count);
    for (size_t i = 0; i < count; ++i)
        AppendUtf8(out, bytes[i]);
    return out;
}

} // namespace qzsse::detail
