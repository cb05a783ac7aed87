#include "qzsse/mesh/detail/MeshFileReaders.h"

#include <bit>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "qzsse/base/RbStreamException.h"

namespace qzsse::detail {
namespace {

[[noreturn]] void fail(const char* format, const std::string& what, size_t offset)
{
    throw RbStreamException(std::string(format) + ": " + what + " at byte " + std::to_string(offset));
}

bool isSpace(unsigned char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n' || c == '\f' || c == '\v';
}

// Whitespace-separated words of a text file; lines matter only where a caller asks.
class TextCursor {
public:
    TextCursor(const MeshBytes& bytes, const char* format, size_t start = 0)
        : m_data(bytes.data), m_size(bytes.size), m_pos(start), m_format(format)
    {
    }

    size_t Position() const { return m_pos; }
    size_t Remaining() const { return m_size - m_pos; }
    bool AtEnd()
    {
        skipSpace(true);
        return m_pos >= m_size;
    }

    // The next word, or an empty view at the end (of the line when sameLine).
    std::string_view Word(bool sameLine = false)
    {
        skipSpace(!sameLine);
        const size_t start = m_pos;
        while (m_pos < m_size && !isSpace(m_data[m_pos]))
            ++m_pos;
        return {reinterpret_cast<const char*>(m_data) + start, m_pos - start};
    }

    std::string_view RequireWord(const char* what)
    {
        const std::string_view w = Word();
        if (w.empty())
            fail(m_format, std::string("file ends before ") + what, m_pos);
        return w;
    }

    void Expect(std::string_view word)
    {
        const size_t at = m_pos;
        if (RequireWord(std::string(word).c_str()) != word)
            fail(m_format, "expected \"" + std::string(word) + "\"", at);
    }

    double Number(const char* what)
    {
        const size_t at = m_pos;
        return parseNumber(RequireWord(what), what, at);
    }

    double parseNumber(std::string_view w, const char* what, size_t at) const
    {
        double v = 0.0;
        const char* begin = w.data();
        if (!w.empty() && w[0] == '+')
            ++begin;
        const auto r = std::from_chars(begin, w.data() + w.size(), v);
        if (r.ec != std::errc() || r.ptr != w.data() + w.size())
            fail(m_format, std::string("bad number for ") + what + " \"" + std::string(w.substr(0, 32)) + "\"", at);
        return v;
    }

    void SkipLine()
    {
        while (m_pos < m_size && m_data[m_pos] != '\n')
            ++m_pos;
        if (m_pos < m_size)
            ++m_pos;
    }

private:
    void skipSpace(bool acrossLines)
    {
        while (m_pos < m_size && isSpace(m_data[m_pos]) && (acrossLines || m_data[m_pos] != '\n'))
            ++m_pos;
    }

    const unsigned char* m_data;
    size_t m_size;
    size_t m_pos;
    const char* m_format;
};

float coordinate(double v, const char* format, size_t offset)
{
    const float f = static_cast<float>(v);
    if (!std::isfinite(f))
        fail(format, "coordinate " + std::to_string(v) + " is not a finite float", offset);
    return f;
}

// Appends the fan of a polygon's corners, checking the triangle limit first.
void appendFan(IndexedMesh& out, const std::vector<long long>& corners, long long maxTriangles, const char* format,
               size_t offset)
{
    if (corners.size() < 3)
        fail(format, "a face of " + std::to_string(corners.size()) + " corners", offset);
    const long long triangles = static_cast<long long>(out.indices.size() / 3 + corners.size() - 2);
    if (triangles > maxTriangles)
        fail(format, "more than the reader limit of " + std::to_string(maxTriangles) + " triangles", offset);
    for (size_t k = 1; k + 1 < corners.size(); ++k)
        for (const long long c : {corners[0], corners[k], corners[k + 1]})
            out.indices.push_back(static_cast<std::int32_t>(c));
}

void appendPoint(IndexedMesh& out, const float p[3], long long maxTriangles, const char* format, size_t offset)
{
    if (static_cast<long long>(out.positions.size() / 3) >= 3 * maxTriangles)
        fail(format, "more than the reader limit of " + std::to_string(3 * maxTriangles) + " points", offset);
    out.positions.insert(out.positions.end(), {p[0], p[1], p[2]});
}

// ----- PLY -------------------------------------------------------------------------------------

enum class PlyType { None, Int8, UInt8, Int16, UInt16, Int32, UInt32, Float32, Float64 };

PlyType plyType(std::string_view name)
{
    if (name == "char" || name == "int8") return PlyType::Int8;
    if (name == "uchar" || name == "uint8") return PlyType::UInt8;
    if (name == "short" || name == "int16") return PlyType::Int16;
    if (name == "ushort" || name == "uint16") return PlyType::UInt16;
    if (name == "int" || name == "int32") return PlyType::Int32;
    if (name == "uint" || name == "uint32") return PlyType::UInt32;
    if (name == "float" || name == "float32") return PlyType::Float32;
    if (name == "double" || name == "float64") return PlyType::Float64;
    return PlyType::None;
}

size_t plySize(PlyType t)
{
    switch (t) {
    case PlyType::Int8: case PlyType::UInt8: return 1;
    case PlyType::Int16: case PlyType::UInt16: return 2;
    case PlyType::Int32: case PlyType::UInt32: case PlyType::Float32: return 4;
    case PlyType::Float64: return 8;
    case PlyType::None: break;
    }
    return 0;
}

struct PlyProperty {
    std::string name;
    PlyType type = PlyType::None;      // the item type of a list
    PlyType countType = PlyType::None; // None: a scalar
};

struct PlyElement {
    std::string name;
    unsigned long long count = 0;
    std::vector<PlyProperty> properties;
};

// Reads one value of either encoding as a double; integers are exact.
class PlyValues {
public:
    PlyValues(const MeshBytes& bytes, size_t start, int encoding)
        : m_bytes(bytes), m_text(bytes, "PLY", start), m_pos(start), m_encoding(encoding)
    {
    }

    size_t Position() const { return m_encoding == 0 ? m_text.Position() : m_pos; }
    size_t Remaining() const { return m_bytes.size - Position(); }

    double Read(PlyType type, const char* what)
    {
        if (m_encoding == 0)
            return m_text.Number(what);
        const size_t n = plySize(type);
        if (m_bytes.size - m_pos < n)
            fail("PLY", std::string("file ends in ") + what, m_pos);
        unsigned char b[8];
        for (size_t i = 0; i < n; ++i)
            b[i] = m_bytes.data[m_pos + (m_encoding == 1 ? i : n - 1 - i)];
        m_pos += n;
        switch (type) {
        case PlyType::Int8: return static_cast<std::int8_t>(b[0]);
        case PlyType::UInt8: return b[0];
        case PlyType::Int16: return static_cast<std::int16_t>(b[0] | (b[1] << 8));
        case PlyType::UInt16: return static_cast<std::uint16_t>(b[0] | (b[1] << 8));
        case PlyType::Int32: return static_cast<std::int32_t>(load32(b));
        case PlyType::UInt32: return load32(b);
        case PlyType::Float32: return std::bit_cast<float>(load32(b));
        case PlyType::Float64: {
            std::uint64_t v = 0;
            for (int i = 7; i >= 0; --i)
                v = (v << 8) | b[i];
            return std::bit_cast<double>(v);
        }
        case PlyType::None: break;
        }
        fail("PLY", "untyped value", m_pos);
    }

private:
    static std::uint32_t load32(const unsigned char* b)
    {
        return static_cast<std::uint32_t>(b[0]) | (static_cast<std::uint32_t>(b[1]) << 8)
               | (static_cast<std::uint32_t>(b[2]) << 16) | (static_cast<std::uint32_t>(b[3]) << 24);
    }

    const MeshBytes& m_bytes;
    TextCursor m_text;
    size_t m_pos;
    int m_encoding; // 0 ASCII, 1 little-endian, 2 big-endian
};

long long listCount(double v, size_t offset)
{
    if (!(v >= 0.0 && v <= 1e6) || v != std::floor(v))
        fail("PLY", "list length " + std::to_string(v), offset);
    return static_cast<long long>(v);
}

} // namespace

IndexedMesh ReadPly(const MeshBytes& bytes, long long maxTriangles)
{
    TextCursor header(bytes, "PLY");
    if (header.Word(true) != "ply")
        fail("PLY", "no \"ply\" magic", 0);
    int encoding = -1;
    std::vector<PlyElement> elements;
    for (;;) {
        const size_t at = header.Position();
        const std::string_view key = header.Word();
        if (key.empty())
            fail("PLY", "header without end_header", at);
        if (key == "end_header") {
            header.SkipLine();
            break;
        }
        if (key == "comment" || key == "obj_info") {
            header.SkipLine();
        } else if (key == "format") {
            const std::string_view f = header.RequireWord("the format");
            encoding = f == "ascii" ? 0 : f == "binary_little_endian" ? 1 : f == "binary_big_endian" ? 2 : -1;
            if (encoding < 0 || header.RequireWord("the format version") != "1.0")
                fail("PLY", "unknown format \"" + std::string(f.substr(0, 32)) + "\"", at);
        } else if (key == "element") {
            PlyElement e;
            e.name = header.RequireWord("the element name");
            const double count = header.Number("the element count");
            if (!(count >= 0.0 && count < 9e15) || count != std::floor(count))
                fail("PLY", "element count " + std::to_string(count), at);
            e.count = static_cast<unsigned long long>(count);
            elements.push_back(std::move(e));
        } else if (key == "property") {
            if (elements.empty())
                fail("PLY", "property before any element", at);
            PlyProperty p;
            std::string_view type = header.RequireWord("the property type");
            if (type == "list") {
                p.countType = plyType(header.RequireWord("the list count type"));
                type = header.RequireWord("the list item type");
                if (p.countType == PlyType::None || p.countType == PlyType::Float32
                    || p.countType == PlyType::Float64)
                    fail("PLY", "bad list count type", at);
            }
            p.type = plyType(type);
            if (p.type == PlyType::None)
                fail("PLY", "unknown property type \"" + std::string(type.substr(0, 32)) + "\"", at);
            p.name = header.RequireWord("the property name");
            elements.back().properties.push_back(std::move(p));
        } else {
            fail("PLY", "unknown header line \"" + std::string(key.substr(0, 32)) + "\"", at);
        }
    }
    if (encoding < 0)
        fail("PLY", "no format line", 0);

    // Every count must fit the bytes left before anything is allocated for it: a value takes at
    // least its size in binary and two characters in ASCII.
    const size_t bodyStart = header.Position();
    unsigned long long points = 0, faces = 0;
    unsigned long long minimumBytes = 0;
    for (const PlyElement& e : elements) {
        if (e.count > 0 && e.properties.empty())
            fail("PLY", "element \"" + e.name + "\" has no properties", bodyStart);
        if (e.count == 0)
            continue;
        unsigned long long perItem = 0;
        for (const PlyProperty& p : e.properties)
            perItem += encoding == 0 ? 2 : plySize(p.countType != PlyType::None ? p.countType : p.type);
        if (e.count > (bytes.size - bodyStart) / perItem + 1 || (minimumBytes += e.count * perItem) > bytes.size - bodyStart + 1)
            fail("PLY", "element \"" + e.name + "\" claims " + std::to_string(e.count) + " items but "
                           + std::to_string(bytes.size - bodyStart) + " bytes follow the header", bodyStart);
        if (e.name == "vertex")
            points = e.count;
        else if (e.name == "face")
            faces = e.count;
    }
    if (points > 3ull * static_cast<unsigned long long>(maxTriangles) || faces > static_cast<unsigned long long>(maxTriangles))
        fail("PLY", std::to_string(points) + " vertices and " + std::to_string(faces)
                        + " faces exceed the reader limit of " + std::to_string(maxTriangles) + " triangles",
             bodyStart);

    IndexedMesh out;
    out.positions.reserve(3 * points);
    out.indices.reserve(3 * faces);
    PlyValues values(bytes, bodyStart, encoding);
    std::vector<long long> corners;
    for (const PlyElement& e : elements) {
        const bool isVertex = e.name == "vertex", isFace = e.name == "face";
        int axis[3] = {-1, -1, -1};
        int indexProperty = -1;
        for (size_t i = 0; i < e.properties.size(); ++i) {
            const PlyProperty& p = e.properties[i];
            const bool scalar = p.countType == PlyType::None;
            if (isVertex && scalar && p.name.size() == 1 && p.name[0] >= 'x' && p.name[0] <= 'z')
                axis[p.name[0] - 'x'] = static_cast<int>(i);
            if (isFace && !scalar && (p.name == "vertex_indices" || p.name == "vertex_index"))
                indexProperty = static_cast<int>(i);
        }
        if (isVertex && (axis[0] < 0 || axis[1] < 0 || axis[2] < 0))
            fail("PLY", "vertex element without scalar x, y and z", bodyStart);
        if (isFace && indexProperty < 0)
            fail("PLY", "face element without vertex_indices", bodyStart);
        for (unsigned long long item = 0; item < e.count; ++item) {
            float p[3] = {0.0f, 0.0f, 0.0f};
            for (size_t i = 0; i < e.properties.size(); ++i) {
                const PlyProperty& prop = e.properties[i];
                const size_t at = values.Position();
                if (prop.countType == PlyType::None) {
                    const double v = values.Read(prop.type, "a property");
                    for (int k = 0; k < 3; ++k)
                        if (isVertex && axis[k] == static_cast<int>(i))
                            p[k] = coordinate(v, "PLY", at);
                    continue;
                }
                const long long n = listCount(values.Read(prop.countType, "a list length"), at);
                if (static_cast<unsigned long long>(n) * (encoding == 0 ? 2 : plySize(prop.type)) > values.Remaining())
                    fail("PLY", "a list of " + std::to_string(n) + " items longer than the file", at);
                const bool indices = isFace && indexProperty == static_cast<int>(i);
                corners.clear();
                for (long long k = 0; k < n; ++k) {
                    const size_t itemAt = values.Position();
                    const double v = values.Read(prop.type, "a list item");
                    if (!indices)
                        continue;
                    if (!(v >= 0.0 && v < static_cast<double>(points)) || v != std::floor(v))
                        fail("PLY", "vertex index " + std::to_string(v) + " outside the " + std::to_string(points)
                                        + " vertices",
                             itemAt);
                    corners.push_back(static_cast<long long>(v));
                }
                if (indices)
                    appendFan(out, corners, maxTriangles, "PLY", at);
            }
            if (isVertex)
                out.positions.insert(out.positions.end(), {p[0], p[1], p[2]});
        }
    }
    if (points == 0 && !out.indices.empty())
        fail("PLY", "faces without vertices", bodyStart);
    return out;
}

// ----- STL -------------------------------------------------------------------------------------

IndexedMesh ReadStl(const MeshBytes& bytes, long long maxTriangles)
{
    IndexedMesh out;
    if (bytes.size >= 84) {
        std::uint32_t n = 0;
        for (int i = 3; i >= 0; --i)
            n = (n << 8) | bytes.data[80 + i];
        if (84 + 50ull * n == bytes.size) {
            if (n > static_cast<unsigned long long>(maxTriangles))
                fail("STL", std::to_string(n) + " triangles exceed the reader limit of " + std::to_string(maxTriangles), 80);
            out.positions.reserve(9ull * n);
            out.indices.reserve(3ull * n);
            for (std::uint32_t t = 0; t < n; ++t) {
                const size_t base = 84 + 50ull * t + 12;
                for (int k = 0; k < 9; ++k) {
                    std::uint32_t bits = 0;
                    for (int i = 3; i >= 0; --i)
                        bits = (bits << 8) | bytes.data[base + 4 * k + i];
                    out.positions.push_back(coordinate(std::bit_cast<float>(bits), "STL", base + 4 * k));
                }
                for (int k = 0; k < 3; ++k)
                    out.indices.push_back(static_cast<std::int32_t>(3 * t + k));
            }
            return out;
        }
    }

    TextCursor text(bytes, "STL");
    if (text.Word() != "solid")
        fail("STL", "neither binary STL (84 + 50 n bytes) nor ASCII STL (\"solid\")", 0);
    text.SkipLine();
    for (;;) {
        const size_t at = text.Position();
        const std::string_view key = text.Word();
        if (key == "endsolid")
            break;
        if (key != "facet")
            fail("STL", key.empty() ? std::string("file ends before endsolid") : "expected \"facet\"", at);
        text.Expect("normal");
        for (int k = 0; k < 3; ++k)
            text.Number("the facet normal");
        text.Expect("outer");
        text.Expect("loop");
        const std::vector<long long> corners = {static_cast<long long>(out.positions.size() / 3),
                                                static_cast<long long>(out.positions.size() / 3 + 1),
                                                static_cast<long long>(out.positions.size() / 3 + 2)};
        for (int v = 0; v < 3; ++v) {
            text.Expect("vertex");
            float p[3];
            for (float& c : p) {
                const size_t cAt = text.Position();
                c = coordinate(text.Number("a vertex coordinate"), "STL", cAt);
            }
            appendPoint(out, p, maxTriangles, "STL", at);
        }
        text.Expect("endloop");
        text.Expect("endfacet");
        appendFan(out, corners, maxTriangles, "STL", at);
    }
    return out;
}

// ----- OBJ -------------------------------------------------------------------------------------

IndexedMesh ReadObj(const MeshBytes& bytes, long long maxTriangles)
{
    IndexedMesh out;
    TextCursor text(bytes, "OBJ");
    std::vector<long long> corners;
    std::vector<size_t> faceOffsets; // where each triangle's face began, for index errors
    while (!text.AtEnd()) {
        const size_t at = text.Position();
        const std::string_view key = text.Word(true);
        if (key == "v") {
            float p[3];
            for (float& c : p) {
                const size_t cAt = text.Position();
                const std::string_view w = text.Word(true);
                if (w.empty())
                    fail("OBJ", "a vertex line with fewer than three coordinates", cAt);
                c = coordinate(text.parseNumber(w, "a vertex coordinate", cAt), "OBJ", cAt);
            }
            appendPoint(out, p, maxTriangles, "OBJ", at);
        } else if (key == "f") {
            corners.clear();
            const long long defined = static_cast<long long>(out.positions.size() / 3);
            for (;;) {
                const size_t cAt = text.Position();
                const std::string_view w = text.Word(true);
                if (w.empty())
                    break;
                long long index = 0;
                const std::string_view first = w.substr(0, w.find('/'));
                const auto r = std::from_chars(first.data(), first.data() + first.size(), index);
                if (r.ec != std::errc() || r.ptr != first.data() + first.size() || index == 0)
                    fail("OBJ", "bad face corner \"" + std::string(w.substr(0, 32)) + "\"", cAt);
                // Negative indices count back from the last point defined so far.
                const long long resolved = index < 0 ? defined + index : index - 1;
                if (resolved < 0 || resolved >= 3 * maxTriangles)
                    fail("OBJ", "face corner " + std::to_string(index) + " outside the points", cAt);
                corners.push_back(resolved);
            }
            appendFan(out, corners, maxTriangles, "OBJ", at);
            faceOffsets.resize(out.indices.size() / 3, at);
        }
        text.SkipLine();
    }
    const long long points = static_cast<long long>(out.positions.size() / 3);
    for (size_t i = 0; i < out.indices.size(); ++i)
        if (out.indices[i] >= points)
            fail("OBJ", "face corner " + std::to_string(out.indices[i] + 1) + " outside the "
                            + std::to_string(points) + " points",
                 faceOffsets[i / 3]);
    return out;
}

} // namespace qzsse::detail
