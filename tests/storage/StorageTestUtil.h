#pragma once

// Helpers of the storage tests: the protected codec and store members opened up, byte
// strings written item by item, stream and file round trips, a scratch directory, the
// damaged-input sweep that every reader goes through, and the height grid of data/.

#include <algorithm>
#include <atomic>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <unistd.h>

#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/base/RyFloatingPointQuantization.h"
#include "qzsse/storage/QzCSSEMatrixLibrary.h"
#include "support/NpyReader.h"

namespace qzsse::storagetest {

using Bytes = std::vector<unsigned char>;
using LibraryParameters = QzCSSEMatrixLibrary::QzSCompressionParameters;
inline const float kNaN = std::numeric_limits<float>::quiet_NaN();

class CodecAccess : public CSSEMatrix {
public:
    CodecAccess() = default;
    explicit CodecAccess(const CSSEMatrix& m) : CSSEMatrix(m) {}
    using CSSEMatrix::createAndEncodeQuantizer, CSSEMatrix::createQuantizer, CSSEMatrix::quantize,
        CSSEMatrix::deQuantize, CSSEMatrix::encode, CSSEMatrix::decode, CSSEMatrix::encodePNG,
        CSSEMatrix::encodeJPEG, CSSEMatrix::encodeCCITT4, CSSEMatrix::decodeCCIT4, CSSEMatrix::decodeCompressed;
};

class TestLibrary : public QzCSSEMatrixLibrary {
public:
    using QzCSSEMatrixLibrary::applyMask, QzCSSEMatrixLibrary::assembleMatrix, QzCSSEMatrixLibrary::createMask,
        QzCSSEMatrixLibrary::loadSSEMatrix, QzCSSEMatrixLibrary::serializeMatrix, QzCSSEMatrixLibrary::smooth;
};

// Little-endian byte strings in the base streams' encoding, written out item by item.
class ByteWriter {
public:
    ByteWriter& u8(unsigned v) { return bytes({static_cast<unsigned char>(v)}); }
    ByteWriter& u32(std::uint32_t v) { return u8(v).u8(v >> 8).u8(v >> 16).u8(v >> 24); }
    ByteWriter& i32(std::int32_t v) { return u32(static_cast<std::uint32_t>(v)); }
    ByteWriter& i64(std::int64_t v) { return u32(static_cast<std::uint32_t>(v)).u32(static_cast<std::uint64_t>(v) >> 32); }
    ByteWriter& f32(float v) { return u32(std::bit_cast<std::uint32_t>(v)); }
    ByteWriter& str(const std::string& s) { return u32(static_cast<std::uint32_t>(s.size())).bytes(Bytes(s.begin(), s.end())); }
    // An archive string in the wide form (marker, one-byte length, UTF-16LE), for ASCII text.
    ByteWriter& archiveString(const std::string& s)
    {
        u8(0xFF).u8(0xFE).u8(0xFF).u8(static_cast<unsigned>(s.size()));
        for (char c : s)
            u8(static_cast<unsigned char>(c)).u8(0);
        return *this;
    }
    ByteWriter& bytes(const Bytes& b)
    {
        m_bytes.insert(m_bytes.end(), b.begin(), b.end());
        return *this;
    }
    size_t size() const { return m_bytes.size(); }
    const Bytes& get() const { return m_bytes; }

private:
    Bytes m_bytes;
};

inline std::uint32_t U32At(const Bytes& b, size_t at)
{
    return b.at(at) | b.at(at + 1) << 8 | b.at(at + 2) << 16 | static_cast<std::uint32_t>(b.at(at + 3)) << 24;
}
inline float FloatAt(const Bytes& b, size_t at) { return std::bit_cast<float>(U32At(b, at)); }
inline Bytes Concat(Bytes a, const Bytes& b)
{
    a.insert(a.end(), b.begin(), b.end());
    return a;
}
inline bool SameValue(float a, float b) { return a == b || (std::isnan(a) && std::isnan(b)); }

template <class F>
CSSEMatrix MatrixOf(int width, int height, F&& f)
{
    CSSEMatrix m;
    m.Create(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            m.SetPointUnsafe(x, y, f(x, y));
    return m;
}

inline CSSEMatrix Rows(int width, const std::vector<float>& v)
{
    return MatrixOf(width, static_cast<int>(v.size()) / width, [&](int x, int y) { return v[static_cast<size_t>(y) * width + x]; });
}

// The real pixels, row by row, and their bits (so that NaN compares equal to NaN).
inline std::vector<float> Pixels(const CSSEMatrix& m)
{
    std::vector<float> out;
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            out.push_back(m.GetPointUnsafe(x, y));
    return out;
}
inline std::vector<std::uint32_t> Bits(const CSSEMatrix& m)
{
    std::vector<std::uint32_t> bits;
    for (float v : Pixels(m))
        bits.push_back(std::bit_cast<std::uint32_t>(v));
    return bits;
}

// Largest |a - b| over the real pixels of a, skipping those where a holds `skip`.
inline float MaxAbsError(const CSSEMatrix& a, const CSSEMatrix& b, float skip = kNaN)
{
    float largest = 0.0f;
    for (int y = 0; y < a.GetSizeY(); ++y)
        for (int x = 0; x < a.GetSizeX(); ++x)
            if (!SameValue(a.GetPointUnsafe(x, y), skip))
                largest = std::max(largest, std::fabs(a.GetPointUnsafe(x, y) - b.GetPointUnsafe(x, y)));
    return largest;
}

inline Bytes StreamBytes(const CSSEMatrix& m)
{
    RbStreamWriteBinaryBuffer out;
    m.Serialize(out);
    return out.GetBytes();
}

// Reads a whole stream and returns how many bytes the reader took.
inline size_t ReadStream(CSSEMatrix& m, const Bytes& bytes)
{
    RbStreamReadBinaryBuffer in(bytes.data(), bytes.size());
    m.Serialize(in);
    return in.GetPosition();
}

// Reads into a used matrix; what a failed read leaves must still be writable and readable.
inline void ReadIntoUsedMatrix(const Bytes& bytes)
{
    CSSEMatrix m = Rows(2, {1, 2, 3, 4});
    try {
        ReadStream(m, bytes);
    } catch (const RbStreamException&) {
        m.GetCompressionParameters().m_eMethod = 0;
        ReadStream(m, StreamBytes(m));
        throw;
    }
}

// Feeds `bytes` cut at every length, and with every byte from flipFrom on changed three
// ways, to read(), which may throw RbStreamException and nothing else (anything else fails
// the test; a crash or bad access ends it, or the sanitizer build). A cut must throw unless
// cutsMayRead.
template <class Read>
void FeedDamaged(const Bytes& bytes, Read&& read, bool cutsMayRead = false, size_t flipFrom = 0)
{
    const auto attempt = [&](const Bytes& damaged) {
        try {
            read(damaged);
        } catch (const RbStreamException&) {
            return false;
        }
        return true;
    };
    for (size_t n = 0; n < bytes.size(); ++n)
        if (attempt(Bytes(bytes.begin(), bytes.begin() + static_cast<std::ptrdiff_t>(n))) && !cutsMayRead)
            ADD_FAILURE() << "a cut to " << n << " of " << bytes.size() << " bytes read without error";
    for (size_t i = flipFrom; i < bytes.size(); ++i)
        for (unsigned char flip : {0x01, 0x80, 0xFF}) {
            Bytes damaged = bytes;
            damaged[i] ^= flip;
            attempt(damaged);
        }
}

inline Bytes ReadFileBytes(const std::filesystem::path& p)
{
    std::ifstream in(p, std::ios::binary);
    return Bytes(std::istreambuf_iterator<char>(in), {});
}
inline void WriteFileBytes(const std::filesystem::path& p, const Bytes& b)
{
    std::ofstream(p, std::ios::binary).write(reinterpret_cast<const char*>(b.data()), std::ssize(b));
}

// A fresh directory under the system's temp directory, removed with its contents.
class ScratchDir {
public:
    ScratchDir() { std::filesystem::create_directories(m_path); }
    ~ScratchDir() { std::filesystem::remove_all(m_path, m_ignored); }
    ScratchDir(const ScratchDir&) = delete;
    std::filesystem::path Path() const { return m_path; }
    std::string File(const std::string& name) const { return (m_path / name).string(); }
    // Sorted names of what the directory holds, to see that no temporary file was left.
    std::vector<std::string> Entries() const
    {
        std::vector<std::string> names;
        for (const auto& e : std::filesystem::directory_iterator(m_path))
            names.push_back(e.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

private:
    static inline std::atomic<int> s_count{0};
    std::filesystem::path m_path = std::filesystem::temp_directory_path()
        / ("qzsse_storage_" + std::to_string(::getpid()) + "_" + std::to_string(s_count++));
    std::error_code m_ignored;
};

// Writes m (with its own compression parameters) as a matrix file and returns the path.
inline std::string WriteMatrixFile(const ScratchDir& dir, const std::string& name, const CSSEMatrix& m)
{
    if (!CSSEMatrix(m).Store(dir.File(name)))
        throw std::runtime_error("cannot write " + dir.File(name));
    return dir.File(name);
}

inline LibraryParameters PngEntry(float maxAbsError, unsigned passes = 1, int differenceMode = 0)
{
    LibraryParameters p;
    p.m_eMethod = 2;
    p.m_fMaxAbsError = maxAbsError;
    p.m_uiNumberOfPasses = passes;
    p.m_iDifferenceCodingMode = differenceMode;
    return p;
}

// The DEM of data/ as a matrix.
inline CSSEMatrix JacksboroHeights()
{
    const qzsse::detail::NpyGrid grid =
        qzsse::detail::ReadNpy(std::filesystem::path(__FILE__).parent_path() / "data" / "jacksboro_fault_dem.npy");
    return MatrixOf(grid.width, grid.height, [&](int x, int y) { return grid.at(x, y); });
}

} // namespace qzsse::storagetest
