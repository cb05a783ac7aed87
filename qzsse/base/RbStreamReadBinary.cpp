#include "qzsse/base/RbStreamReadBinary.h"

#include <algorithm>
#include <cstdint>
#include <string>

#include "qzsse/base/detail/LittleEndian.h"

namespace {

// A string of unknown length is read in slices of this size, so a corrupt byte count
// costs at most one slice of memory beyond the bytes that actually exist.
constexpr size_t kStringSlice = 64 * 1024;

} // namespace

RbStreamReadBinary::~RbStreamReadBinary() = default;

void RbStreamReadBinary::readExact(void* data, size_t size, const char* what)
{
    const unsigned long long at = currentOffset();
    const size_t got = size ? readBytes(data, size) : 0;
    m_consumed += got;
    if (got < size)
        throw RbStreamException("RbStreamReadBinary: end of data reading " + std::string(what)
                                + " at offset " + std::to_string(at) + " (needs "
                                + std::to_string(size) + " bytes, " + std::to_string(got)
                                + " left)");
}

template <class T>
T RbStreamReadBinary::readValue(const char* what)
{
    unsigned char bytes[sizeof(T)];
    readExact(bytes, sizeof(T), what);
    return qzsse::detail::LoadValueLittleEndian<T>(bytes);
}

unsigned int RbStreamReadBinary::ReadVersion(unsigned int newestKnown)
{
    const unsigned long long at = currentOffset();
    const unsigned int version = readValue<std::uint32_t>("a version");
    if (version > newestKnown)
        throw RbStreamException("RbStreamReadBinary: version " + std::to_string(version)
                                + " at offset " + std::to_string(at)
                                + " is newer than the newest known version "
                                + std::to_string(newestKnown));
    return version;
}

int RbStreamReadBinary::ReadInt32() { return readValue<std::int32_t>("an int32"); }
unsigned int RbStreamReadBinary::ReadUInt32() { return readValue<std::uint32_t>("a uint32"); }
long long RbStreamReadBinary::ReadInt64() { return readValue<std::int64_t>("an int64"); }
float RbStreamReadBinary::ReadFloat() { return readValue<float>("a float"); }
double RbStreamReadBinary::ReadDouble() { return readValue<double>("a double"); }
bool RbStreamReadBinary::ReadBool() { return readValue<bool>("a bool"); }

CString RbStreamReadBinary::ReadString()
{
    const unsigned long long at = currentOffset();
    const std::uint32_t size = readValue<std::uint32_t>("a string length");
    const std::optional<unsigned long long> left = bytesRemaining();
    if (left && size > *left)
        throw RbStreamException("RbStreamReadBinary: string at offset " + std::to_string(at)
                                + " claims " + std::to_string(size) + " bytes but only "
                                + std::to_string(*left) + " are left");

    CString text;
    if (left) {
        text.resize(size);
        readExact(text.data(), size, "string bytes");
        return text;
    }
    while (text.size() < size) {
        const size_t done = text.size();
        const size_t slice = std::min<size_t>(size - done, kStringSlice);
        text.resize(done + slice);
        readExact(text.data() + done, slice, "string bytes");
    }
    return text;
}

void RbStreamReadBinary::ReadBuffer(void* data, size_t size) { readExact(data, size, "a raw buffer"); }
