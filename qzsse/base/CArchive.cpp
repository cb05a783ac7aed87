#include "qzsse/base/CArchive.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <stdexcept>
#include <string>

#include "qzsse/base/detail/Utf16.h"

using qzsse::detail::LoadLittleEndian;
using qzsse::detail::StoreLittleEndian;

namespace {

// Large strings move in slices so that no count overflows the file's 32-bit counts.
constexpr size_t kSlice = size_t{1} << 30;

} // namespace

CArchive::CArchive(CFile* file, unsigned mode, int bufferSize)
    : m_file(file), m_loading((mode & load) != 0)
{
    if (!file)
        throw std::invalid_argument("CArchive: no file");
    if (bufferSize < 1)
        throw std::invalid_argument("CArchive: the buffer size must be positive");
    m_buffer.resize(static_cast<size_t>(bufferSize));
}

CArchive::~CArchive()
{
    if (!m_file)
        return;
    try {
        Flush();
    } catch (...) {
    }
}

void CArchive::Flush()
{
    if (!m_file)
        return;
    if (m_loading) {
        const size_t unread = m_end - m_cur;
        m_cur = m_end = 0;
        if (unread)
            m_file->Seek(-static_cast<long long>(unread), CFile::current);
    } else {
        flushStore();
    }
}

void CArchive::Close()
{
    if (!m_file)
        return;
    Flush();
    m_file = nullptr;
}

void CArchive::flushStore()
{
    const size_t pending = m_cur;
    // Cleared first so that a failed write is not repeated by the destructor.
    m_cur = 0;
    if (pending)
        m_file->Write(m_buffer.data(), static_cast<unsigned>(pending));
}

unsigned CArchive::Read(void* data, unsigned count)
{
    requireOpen(true, "read from");
    auto* out = static_cast<unsigned char*>(data);
    unsigned done = 0;
    while (done < count) {
        if (m_cur < m_end) {
            const size_t take = std::min<size_t>(m_end - m_cur, count - done);
            std::memcpy(out + done, m_buffer.data() + m_cur, take);
            m_cur += take;
            done += static_cast<unsigned>(take);
            continue;
        }
        const unsigned rest = count - done;
        if (rest >= m_buffer.size()) {
            // Large reads bypass the buffer.
            done += m_file->Read(out + done, rest);
            break;
        }
        m_cur = 0;
        m_end = m_file->Read(m_buffer.data(), static_cast<unsigned>(m_buffer.size()));
        if (m_end == 0)
            break;
    }
    return done;
}

void CArchive::Write(const void* data, unsigned count)
{
    requireOpen(false, "write to");
    const auto* in = static_cast<const unsigned char*>(data);
    while (count > 0) {
        if (m_cur == 0 && count >= m_buffer.size()) {
            m_file->Write(in, count);
            return;
        }
        const size_t take = std::min<size_t>(m_buffer.size() - m_cur, count);
        std::memcpy(m_buffer.data() + m_cur, in, take);
        m_cur += take;
        in += take;
        count -= static_cast<unsigned>(take);
        if (m_cur == m_buffer.size())
            flushStore();
    }
}

unsigned long long CArchive::GetPosition() const
{
    if (!m_file)
        throw std::logic_error("CArchive: position of a closed archive");
    const unsigned long long filePos = m_file->GetPosition();
    return m_loading ? filePos - (m_end - m_cur) : filePos + m_cur;
}

unsigned long long CArchive::GetBytesRemaining() const
{
    requireOpen(true, "measure");
    const unsigned long long filePos = m_file->GetPosition();
    const unsigned long long length = m_file->GetLength();
    return (m_end - m_cur) + (length > filePos ? length - filePos : 0);
}

void CArchive::requireOpen(bool forLoading, const char* operation) const
{
    if (!m_file)
        throw std::logic_error(std::string("CArchive: cannot ") + operation + " a closed archive");
    if (forLoading != m_loading)
        throw std::logic_error(std::string("CArchive: cannot ") + operation + " an archive in "
                               + (m_loading ? "load" : "store") + " mode");
}

void CArchive::readExact(void* data, unsigned count, const char* what)
{
    const unsigned got = Read(data, count);
    if (got < count) {
        const unsigned long long at = GetPosition() - got;
        throw CArchiveException("CArchive: end of file reading " + std::string(what) + " at offset "
                                + std::to_string(at) + " (needs " + std::to_string(count)
                                + " bytes, " + std::to_string(got) + " left)");
    }
}

CArchive& CArchive::operator<<(const CString& text)
{
    const std::u16string units = qzsse::detail::Utf8ToUtf16(text);
    const size_t n = units.size();
    if (n >= 0xFFFFFFFFu)
        throw std::length_error("CArchive: string too long for the archive");

    unsigned char prefix[10];
    size_t prefixSize = 0;
    auto put = [&](unsigned char b) { prefix[prefixSize++] = b; };
    put(0xFF);
    put(0xFE);
    put(0xFF);
    if (n < 0xFF) {
        put(static_cast<unsigned char>(n));
    } else if (n < 0xFFFF) {
        put(0xFF);
        StoreLittleEndian(static_cast<std::uint16_t>(n), prefix + prefixSize);
        prefixSize += 2;
    } else {
        put(0xFF);
        put(0xFF);
        put(0xFF);
        StoreLittleEndian(static_cast<std::uint32_t>(n), prefix + prefixSize);
        prefixSize += 4;
    }
    Write(prefix, static_cast<unsigned>(prefixSize));

    std::vector<unsigned char> bytes(std::min(n, kSlice / 2) * 2);
    for (size_t start = 0; start < n; start += kSlice / 2) {
        const size_t count = std::min(n - start, kSlice / 2);
        for (size_t i = 0; i < count; ++i)
            StoreLittleEndian(static_cast<std::uint16_t>(units[start + i]), bytes.data() + 2 * i);
        Write(bytes.data(), static_cast<unsigned>(count * 2));
    }
    return *this;
}

unsigned long long CArchive::readStringLength(bool& wide)
{
    const char* what = "a string length";
    wide = false;
    std::uint8_t b = readScalar<std::uint8_t>(what);
    if (b < 0xFF)
        return b;
    std::uint16_t w = readScalar<std::uint16_t>(what);
    if (w == 0xFFFE) {
        wide = true;
        b = readScalar<std::uint8_t>(what);
        if (b < 0xFF)
            return b;
        w = readScalar<std::uint16_t>(what);
    }
    if (w < 0xFFFF)
        return w;
    const std::uint32_t d = readScalar<std::uint32_t>(what);
    if (d < 0xFFFFFFFFu)
        return d;
    return readScalar<std::uint64_t>(what);
}

CArchive& CArchive::operator>>(CString& text)
{
    requireOpen(true, "read from");
    const unsigned long long start = GetPosition();
    bool wide = false;
    const unsigned long long n = readStringLength(wide);
    const unsigned unitSize = wide ? 2 : 1;
    const unsigned long long left = GetBytesRemaining();
    if (n > left / unitSize)
        throw CArchiveException("CArchive: string at offset " + std::to_string(start) + " claims "
                                + std::to_string(n) + (wide ? " UTF-16 units" : " bytes")
                                + " but only " + std::to_string(left) + " bytes are left");

    std::vector<unsigned char> bytes(static_cast<size_t>(n) * unitSize);
    for (size_t done = 0; done < bytes.size(); done += kSlice) {
        const size_t count = std::min(bytes.size() - done, kSlice);
        readExact(bytes.data() + done, static_cast<unsigned>(count), "a string");
    }
    if (wide) {
        std::u16string units(static_cast<size_t>(n), u'\0');
        for (size_t i = 0; i < units.size(); ++i)
            units[i] = static_cast<char16_t>(LoadLittleEndian<std::uint16_t>(bytes.data() + 2 * i));
        text = qzsse::detail::Utf16ToUtf8(units.data(), units.size());
    } else {
        text = qzsse::detail::Latin1ToUtf8(bytes.data(), bytes.size());
    }
    return *this;
}
