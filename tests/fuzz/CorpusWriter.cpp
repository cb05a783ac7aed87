// Writes the seed corpus of every fuzz target with the library's own writers: small valid
// inputs of each form, so that the fuzzer starts from the structures real files have.
// Usage: qzsse_fuzz_corpus <corpus folder>   (one sub-folder per target)

#include <cmath>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>
#include <unistd.h>

#include "qzsse/base/CArchive.h"
#include "qzsse/base/CFile.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/base/RyJPEGWriter.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/MeshInterchange.h"
#include "qzsse/polygon/CSSE3dPolygon.h"
#include "qzsse/storage/QzCSSEMatrixLibrary.h"
#include "qzsse/storage/detail/ImageCodecs.h"
#include "support/HeightTiffWriter.h"

namespace fs = std::filesystem;

namespace {

void writeBytes(const fs::path& path, const unsigned char* data, size_t size)
{
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
    if (!out)
        throw std::runtime_error("cannot write " + path.string());
}

// A small surface with a plateau of invalid values in one corner.
CSSEMatrix sampleMatrix(int width, int height, int method, unsigned passes, bool invalid)
{
    CSSEMatrix m;
    m.Create(width, height);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            m.SetPoint(x, y, invalid && x < 2 && y < 2 ? -1.0f : std::sin(0.7f * static_cast<float>(x)) * 20.0f + static_cast<float>(y));
    CSSEMatrix::QzSCompressionParameters p;
    p.m_eMethod = method;
    p.m_uiNumberOfPasses = passes;
    p.m_bUseInvalidValue = invalid;
    p.m_fInvalidValue = -1.0f;
    m.SetCompressionParameters(p);
    return m;
}

struct MatrixSeed {
    const char* name;
    int width, height, method;
    unsigned passes;
    bool invalid;
};
const MatrixSeed kMatrixSeeds[] = {
    {"raw", 5, 5, 0, 1, false},       {"jpeg", 12, 9, 1, 1, false},  {"png", 12, 9, 2, 1, true},
    {"png-jpeg", 12, 9, 3, 2, true},  {"png-3-passes", 7, 6, 2, 3, false},
    {"bit-plane", 17, 9, 4, 1, true}, {"empty", 0, 0, 0, 1, false},
};

void matrixSeeds(const fs::path& root)
{
    fs::create_directories(root / "MatrixStream");
    fs::create_directories(root / "MatrixArchive");
    for (const MatrixSeed& s : kMatrixSeeds) {
        CSSEMatrix m = sampleMatrix(s.width, s.height, s.method, s.passes, s.invalid);
        RbStreamWriteBinaryBuffer stream;
        m.Serialize(stream);
        writeBytes(root / "MatrixStream" / s.name, stream.GetData(), stream.GetSize());
        if (!m.Store(CString((root / "MatrixArchive" / s.name).string())))
            throw std::runtime_error("cannot store the archive seed");
    }
}

void storeSeeds(const fs::path& root, const fs::path& scratch)
{
    fs::create_directories(root / "StoreFile");
    const CString a((scratch / "a.ssem").string());
    const CString b((scratch / "b.ssem").string());
    sampleMatrix(9, 7, 2, 1, true).Store(a);
    CSSEMatrix second = sampleMatrix(9, 7, 2, 1, true);
    second.SetPoint(4, 4, 50.0f);
    second.Store(b);
    for (int mode = 0; mode <= 3; ++mode) {
        QzCSSEMatrixLibrary library;
        QzCSSEMatrixLibrary::QzSCompressionParameters p;
        p.m_eMethod = 2;
        p.m_iDifferenceCodingMode = mode;
        p.m_fMaxAbsError = 0.5f;
        library.AddSSEMatrix("a", a, CSSEMatrix::QzSCompressionParameters(p));
        library.AddSSEMatrix("b", b, "a", p);
        if (!library.Store(CString((root / "StoreFile" / ("mode-" + std::to_string(mode))).string())))
            throw std::runtime_error("cannot write the store seed");
    }
}

void polygonSeeds(const fs::path& root)
{
    fs::create_directories(root / "PolygonStream");
    fs::create_directories(root / "PolygonArchive");
    CSSE3dPolygon polygon;
    polygon.Create(6);
    for (int i = 0; i < 6; ++i)
        polygon.SetPoint(i, std::cos(static_cast<float>(i)) * 10.0f, std::sin(static_cast<float>(i)) * 10.0f,
                         static_cast<float>(i));
    RbStreamWriteBinaryBuffer stream;
    polygon.Serialize(stream);
    writeBytes(root / "PolygonStream" / "hexagon", stream.GetData(), stream.GetSize());
    CFile file;
    if (!file.Open(CString((root / "PolygonArchive" / "hexagon").string()), CFile::modeCreate | CFile::modeWrite))
        throw std::runtime_error("cannot write the polygon archive seed");
    CArchive archive(&file, CArchive::store);
    polygon.Serialize(archive);
    archive.Close();
    file.Close();
}

// Four triangles of a 3 x 2 height grid, with neighbours, in every mesh form.
void meshSeeds(const fs::path& root)
{
    for (const char* dir : {"MeshStream", "MeshArchive", "MeshFile"})
        fs::create_directories(root / dir);
    CSSEMatrix matrix;
    matrix.Create(3, 2);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x)
            matrix.SetPoint(x, y, 1.0f + 0.5f * static_cast<float>(x + 2 * y));
    CHTriangulation mesh(&matrix, 0.0f, true, 1.0f, 1.0f, 1.0f, 1, 1);
    mesh.CalcNeighbours();
    RbStreamWriteBinaryBuffer stream;
    mesh.Serialize(stream);
    writeBytes(root / "MeshStream" / "grid", stream.GetData(), stream.GetSize());
    CFile file;
    if (!file.Open(CString((root / "MeshArchive" / "grid").string()), CFile::modeCreate | CFile::modeWrite))
        throw std::runtime_error("cannot write the mesh archive seed");
    CArchive archive(&file, CArchive::store);
    mesh.Serialize(archive);
    archive.Close();
    file.Close();
    // The first byte picks the reader: 0 PLY, 1 STL, 2 OBJ.
    const struct {
        const char* name;
        char reader;
        qzsse::MeshFileFormat format;
    } files[] = {{"ply-binary", 0, qzsse::MeshFileFormat::PlyBinary}, {"ply-ascii", 0, qzsse::MeshFileFormat::PlyAscii},
                 {"stl-binary", 1, qzsse::MeshFileFormat::StlBinary}, {"stl-ascii", 1, qzsse::MeshFileFormat::StlAscii},
                 {"obj", 2, qzsse::MeshFileFormat::Obj}};
    for (const auto& f : files) {
        const std::string bytes = f.reader + qzsse::WriteMeshToString(mesh, f.format);
        writeBytes(root / "MeshFile" / f.name, reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size());
    }
}

void payloadSeeds(const fs::path& root)
{
    using namespace qzsse::detail;
    for (const char* dir : {"PngPayload", "JpegPayload", "TiffPayload"})
        fs::create_directories(root / dir);
    const unsigned width = 13, height = 11;
    RbArray<unsigned char> codes;
    codes.SetSize(width * height);
    for (unsigned i = 0; i < width * height; ++i)
        codes[static_cast<std::ptrdiff_t>(i)] = static_cast<unsigned char>(i * 7);
    std::vector<unsigned char> file;
    if (!EncodePngGrey8(codes.GetData(), width, height, file))
        throw std::runtime_error("cannot encode the PNG seed");
    writeBytes(root / "PngPayload" / "grey8", file.data(), file.size());
    const unsigned char bits[] = {0xF0, 0x0F, 0xAA, 0x55, 0xFF, 0x00, 0x81, 0x18};
    if (!EncodeTiffBilevelG4(bits, 16, 4, file))
        throw std::runtime_error("cannot encode the TIFF seed");
    writeBytes(root / "TiffPayload" / "g4", file.data(), file.size());
    RyJPEGWriter jpeg(codes, static_cast<int>(width), static_cast<int>(height));
    jpeg.SetQuality(0.8f);
    RbStreamWriteBinaryBuffer buffer;
    if (!jpeg.Serialize(buffer))
        throw std::runtime_error("cannot encode the JPEG seed");
    writeBytes(root / "JpegPayload" / "grey8", buffer.GetData(), buffer.GetSize());
}

// Height TIFFs of the common kinds (16-bit integers with LZW and no-data, tiled doubles,
// bytes) and a .npy grid; 16 x 16, the smallest the reader takes.
void heightImageSeeds(const fs::path& root)
{
    using qzsse::support::HeightTiffLayout;
    fs::create_directories(root / "HeightImage");
    const uint32_t side = 16;
    std::vector<double> grid(side * side);
    for (uint32_t i = 0; i < grid.size(); ++i)
        grid[i] = static_cast<double>(i % side) * 3.0 + static_cast<double>(i / side);
    grid[17] = -32768.0;
    const struct {
        const char* name;
        HeightTiffLayout layout;
    } tiffs[] = {
        {"int16-lzw-nodata.tif", {SAMPLEFORMAT_INT, 16, COMPRESSION_LZW, 0, 5, "-32768"}},
        {"float64-tiled.tif", {SAMPLEFORMAT_IEEEFP, 64, COMPRESSION_ADOBE_DEFLATE, 16, 0, ""}},
        {"uint8.tif", {SAMPLEFORMAT_UINT, 8, COMPRESSION_PACKBITS, 0, 16, ""}},
    };
    for (const auto& t : tiffs)
        qzsse::support::WriteHeightTiff(root / "HeightImage" / t.name, side, side, grid, t.layout);

    std::string header = "{'descr': '<f4', 'fortran_order': False, 'shape': (16, 16), }";
    header.append((64 - (10 + header.size() + 1) % 64) % 64, ' ');
    header += '\n';
    std::string npy = std::string("\x93NUMPY\x01\x00", 8) + static_cast<char>(header.size()) + '\0' + header;
    for (const double v : grid) {
        const float f = static_cast<float>(v);
        npy.append(reinterpret_cast<const char*>(&f), sizeof f);
    }
    writeBytes(root / "HeightImage" / "float32.npy", reinterpret_cast<const unsigned char*>(npy.data()), npy.size());
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <corpus folder>\n", argv[0]);
        return 2;
    }
    const fs::path root = argv[1];
    const fs::path scratch = fs::temp_directory_path() / ("qzsse-corpus-" + std::to_string(::getpid()));
    fs::create_directories(scratch);
    try {
        matrixSeeds(root);
        storeSeeds(root, scratch);
        polygonSeeds(root);
        meshSeeds(root);
        payloadSeeds(root);
        heightImageSeeds(root);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "%s\n", e.what());
        fs::remove_all(scratch);
        return 1;
    }
    fs::remove_all(scratch);
    return 0;
}
