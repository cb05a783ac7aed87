// Mesh interchange and persistence: PLY/STL/OBJ checked against CGAL's polygon soup reader and
// writer, the indexed form, the stream and archive forms, and damaged input of each.

#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/IO/polygon_soup_io.h>
#include <gtest/gtest.h>

#include <cmath>
#include <filesystem>
#include <fstream>
#include <memory>
#include <random>
#include <string>
#include <system_error>
#include <unistd.h>
#include <vector>

#include "MeshTestUtil.h"
#include "qzsse/base/CArchive.h"
#include "qzsse/base/CFile.h"
#include "qzsse/base/RbStreamException.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/mesh/MeshInterchange.h"
#include "qzsse/storage/ReaderLimits.h"

namespace fs = std::filesystem;
using namespace qzsse;
using namespace qzsse::test;

namespace {

using Point3 = CGAL::Exact_predicates_inexact_constructions_kernel::Point_3;
using Soup = std::vector<std::vector<std::size_t>>;

// A w x h grid of split cells with awkward float heights (not short decimals), sharing corners.
void makeGrid(CHTriangulation& mesh, int w, int h, unsigned seed)
{
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> height(-1000.0f, 1000.0f);
    std::vector<float> z(static_cast<size_t>((w + 1) * (h + 1)));
    for (float& v : z)
        v = height(rng) / 3.0f;
    auto at = [&](int x, int y) { return z[static_cast<size_t>(y * (w + 1) + x)]; };
    mesh.BaseInitialization(1.0f, 1.0f, 1.0f);
    mesh.CreateTriangulation(2 * w * h);
    writeGrid(mesh, w, h);
    for (int t = 0; t < mesh.GetNumTriangles(); ++t)
        for (int k = 0; k < 3; ++k) {
            SSEPoint& p = *mesh.GetTriangle(t)->pPoint[k];
            p.z = at(static_cast<int>(p.x), static_cast<int>(p.y));
            p.x *= 0.1f;
        }
    mesh.CalcSTV();
    mesh.CalcBoundingBox();
}

void expectSameCorners(const CHTriangulation& a, const CHTriangulation& b)
{
    ASSERT_EQ(a.GetNumTriangles(), b.GetNumTriangles());
    for (int t = 0; t < a.GetNumTriangles(); ++t)
        for (int k = 0; k < 3; ++k)
            ASSERT_TRUE(sameQuad(partOf(a, t, k), partOf(b, t, k))) << "triangle " << t << " corner " << k;
}

// One scratch folder per process, removed at exit.
fs::path scratch(const std::string& name)
{
    struct Folder {
        fs::path path = fs::temp_directory_path() / ("qzsse-mesh-io-" + std::to_string(::getpid()));
        Folder() { fs::create_directories(path); }
        ~Folder()
        {
            std::error_code ignored;
            fs::remove_all(path, ignored);
        }
    };
    static const Folder folder;
    return folder.path / name;
}

struct FormatCase {
    MeshFileFormat format;
    const char* extension;
    bool sharesCorners;
};

const FormatCase kFormats[] = {
    {MeshFileFormat::PlyBinary, ".ply", true}, {MeshFileFormat::PlyAscii, ".ply", true},
    {MeshFileFormat::StlBinary, ".stl", false}, {MeshFileFormat::StlAscii, ".stl", false},
    {MeshFileFormat::Obj, ".obj", true},
};

} // namespace

// What we write, CGAL reads back with the same corners; what we read back is bit-identical.
TEST(MeshInterchange, EveryFormatReadsBackInCgalAndInOurReader)
{
    CHTriangulation mesh;
    makeGrid(mesh, 7, 5, 1);
    for (const FormatCase& c : kFormats) {
        SCOPED_TRACE(c.extension + std::to_string(static_cast<int>(c.format)));
        const fs::path path = scratch("grid" + std::to_string(static_cast<int>(c.format)) + c.extension);
        const MeshFileCounts counts = WriteMeshFile(mesh, path, c.format, "made by the tests");
        EXPECT_EQ(counts.vertices, c.sharesCorners ? 8 * 6 : 3 * 70);

        std::vector<Point3> points;
        Soup polygons;
        ASSERT_TRUE(CGAL::IO::read_polygon_soup(path.string(), points, polygons));
        ASSERT_EQ(polygons.size(), 70u);
        if (c.sharesCorners) {
            EXPECT_EQ(points.size(), 48u);
        }
        for (int t = 0; t < 70; ++t) {
            ASSERT_EQ(polygons[t].size(), 3u);
            for (int k = 0; k < 3; ++k) {
                const Point3& p = points[polygons[t][k]];
                const Quad expected = partOf(mesh, t, k);
                ASSERT_EQ(static_cast<float>(p.x()), expected[0]);
                ASSERT_EQ(static_cast<float>(p.y()), expected[1]);
                ASSERT_EQ(static_cast<float>(p.z()), expected[2]);
            }
        }

        CHTriangulation back;
        ReadMeshFile(path, c.format, back);
        expectSameCorners(mesh, back);
        // STL carries the records' face normals, which the reader recomputes: compared above.
        if (c.sharesCorners) {
            EXPECT_TRUE(WriteMeshToString(back, c.format) == WriteMeshToString(mesh, c.format));
        }
    }
}

// Files CGAL writes (binary and ASCII where it has both) read into the same polygons, a quad
// split into a fan from its first corner.
TEST(MeshInterchange, ReadsWhatCgalWrites)
{
    const std::vector<Point3> points = {{0, 0, 0.5}, {1, 0, 1.25}, {1, 1, -2}, {0, 1, 3}, {2, 0.5, 0.1}};
    const Soup triangles = {{0, 1, 2}, {0, 2, 3}, {1, 4, 2}};
    const Soup withQuad = {{0, 1, 2, 3}, {1, 4, 2}};
    struct Case {
        const char* name;
        MeshFileFormat format;
        bool binary;
        const Soup* soup;
    } cases[] = {
        {"b.ply", MeshFileFormat::PlyBinary, true, &withQuad}, {"a.ply", MeshFileFormat::PlyAscii, false, &withQuad},
        {"b.stl", MeshFileFormat::StlBinary, true, &triangles}, {"a.stl", MeshFileFormat::StlAscii, false, &triangles},
        {"a.obj", MeshFileFormat::Obj, false, &withQuad},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const fs::path path = scratch(c.name);
        ASSERT_TRUE(CGAL::IO::write_polygon_soup(path.string(), points, *c.soup,
                                                 CGAL::parameters::use_binary_mode(c.binary).stream_precision(17)));
        CHTriangulation mesh;
        ReadMeshFile(path, c.format, mesh);
        ASSERT_EQ(mesh.GetNumTriangles(), 3);
        for (int t = 0; t < 3; ++t)
            for (int k = 0; k < 3; ++k) {
                const Point3& p = points[triangles[t][k]];
                EXPECT_EQ(partOf(mesh, t, k), (Quad{float(p.x()), float(p.y()), float(p.z()), 0.0f}))
                    << "triangle " << t << " corner " << k;
            }
        // Normals come from the corner order: triangle 0 is counter-clockwise seen from +z.
        EXPECT_GT(mesh.GetTriangle(0)->pMainNormal->z, 0.0f);
    }
}

// Damaged, hostile or unsupported bytes are refused and leave the mesh as it was.
TEST(MeshInterchange, DamagedFilesAreRefused)
{
    CHTriangulation grid;
    makeGrid(grid, 2, 2, 3);
    const std::string binaryPly = WriteMeshToString(grid, MeshFileFormat::PlyBinary);
    const std::string binaryStl = WriteMeshToString(grid, MeshFileFormat::StlBinary);
    const std::string header = "ply\nformat ascii 1.0\nelement vertex 3\nproperty float x\nproperty float y\n"
                               "property float z\nelement face 1\nproperty list uchar int vertex_indices\nend_header\n";
    struct Case {
        const char* what;
        MeshFileFormat format;
        std::string bytes;
    } cases[] = {
        {"binary PLY cut short", MeshFileFormat::PlyBinary, binaryPly.substr(0, binaryPly.size() - 5)},
        {"PLY header only", MeshFileFormat::PlyBinary, binaryPly.substr(0, binaryPly.find("end_header"))},
        {"PLY counts beyond the bytes", MeshFileFormat::PlyAscii,
         "ply\nformat ascii 1.0\nelement vertex 2000000000\nproperty float x\nproperty float y\nproperty float z\n"
         "end_header\n0 0 0\n"},
        {"PLY index out of range", MeshFileFormat::PlyAscii, header + "0 0 0\n1 0 0\n0 1 0\n3 0 1 3\n"},
        {"PLY negative index", MeshFileFormat::PlyAscii, header + "0 0 0\n1 0 0\n0 1 0\n3 0 -1 2\n"},
        {"PLY NaN", MeshFileFormat::PlyAscii, header + "0 0 0\nnan 0 0\n0 1 0\n3 0 1 2\n"},
        {"PLY overflowing float", MeshFileFormat::PlyAscii, header + "0 0 0\n1e39 0 0\n0 1 0\n3 0 1 2\n"},
        {"PLY face of two corners", MeshFileFormat::PlyAscii, header + "0 0 0\n1 0 0\n0 1 0\n2 0 1\n"},
        {"PLY unknown format", MeshFileFormat::PlyAscii, "ply\nformat binary_middle_endian 1.0\nend_header\n"},
        {"not PLY", MeshFileFormat::PlyAscii, "solid x\nendsolid x\n"},
        {"binary STL cut short", MeshFileFormat::StlBinary, binaryStl.substr(0, binaryStl.size() - 1)},
        {"binary STL with a huge count", MeshFileFormat::StlBinary,
         std::string(80, 'x') + std::string("\xff\xff\xff\x7f", 4) + std::string(50, '\0')},
        {"ASCII STL cut short", MeshFileFormat::StlAscii,
         "solid s\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 0\n"},
        {"ASCII STL NaN", MeshFileFormat::StlAscii,
         "solid s\nfacet normal 0 0 1\nouter loop\nvertex 0 0 0\nvertex 1 0 inf\nvertex 0 1 0\nendloop\n"
         "endfacet\nendsolid s\n"},
        {"OBJ index out of range", MeshFileFormat::Obj, "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 4\n"},
        {"OBJ relative index before the first point", MeshFileFormat::Obj, "v 0 0 0\nv 1 0 0\nv 0 1 0\nf -1 -2 -4\n"},
        {"OBJ index zero", MeshFileFormat::Obj, "v 0 0 0\nv 1 0 0\nv 0 1 0\nf 0 1 2\n"},
        {"OBJ NaN", MeshFileFormat::Obj, "v 0 0 nan\nv 1 0 0\nv 0 1 0\nf 1 2 3\n"},
        {"OBJ short vertex line", MeshFileFormat::Obj, "v 0 0\nv 1 0 0\nv 0 1 0\nf 1 2 3\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        CHTriangulation mesh;
        makeGrid(mesh, 1, 1, 4);
        CHTriangulation before(&mesh);
        EXPECT_THROW(ReadMeshFromMemory(c.bytes.data(), c.bytes.size(), c.format, mesh), RbStreamException);
        expectSameCorners(before, mesh);
    }
}

TEST(MeshInterchange, ReaderLimitBoundsTheTriangles)
{
    CHTriangulation grid;
    makeGrid(grid, 4, 4, 5); // 32 triangles, 25 shared points
    ReaderLimits limits;
    limits.maxMeshTriangles = 31;
    SetReaderLimits(limits);
    for (const FormatCase& c : kFormats) {
        const std::string bytes = WriteMeshToString(grid, c.format);
        CHTriangulation mesh;
        EXPECT_THROW(ReadMeshFromMemory(bytes.data(), bytes.size(), c.format, mesh), RbStreamException)
            << static_cast<int>(c.format);
    }
    limits.maxMeshTriangles = 32;
    SetReaderLimits(limits);
    for (const FormatCase& c : kFormats) {
        const std::string bytes = WriteMeshToString(grid, c.format);
        CHTriangulation mesh;
        EXPECT_NO_THROW(ReadMeshFromMemory(bytes.data(), bytes.size(), c.format, mesh)) << static_cast<int>(c.format);
    }
    SetReaderLimits({});
    EXPECT_EQ(GetReaderLimits().maxMeshTriangles, ReaderLimits::c_ullDefaultMaxMeshTriangles);
}

TEST(MeshInterchange, IndexedFormSharesBitEqualCornersOnly)
{
    CHTriangulation mesh;
    makeGrid(mesh, 3, 2, 6);
    // -0.0 is a different corner from +0.0 in a file: kept apart.
    mesh.GetTriangle(0)->pPoint[0]->x = -0.0f;
    const IndexedMesh indexed = ToIndexedMesh(mesh);
    EXPECT_EQ(indexed.positions.size(), 3u * (4 * 3 + 1));
    EXPECT_EQ(indexed.indices.size(), 3u * 12);

    CHTriangulation back;
    FromIndexedMesh(indexed, back);
    expectSameCorners(mesh, back);

    IndexedMesh bad = indexed;
    bad.indices[7] = static_cast<std::int32_t>(indexed.positions.size() / 3);
    EXPECT_THROW(FromIndexedMesh(bad, back), std::invalid_argument);
    bad = indexed;
    bad.positions.pop_back();
    EXPECT_THROW(FromIndexedMesh(bad, back), std::invalid_argument);
    expectSameCorners(mesh, back);
}

TEST(MeshInterchange, NonFiniteCornersAreNotExported)
{
    CHTriangulation mesh;
    makeGrid(mesh, 1, 1, 7);
    mesh.GetTriangle(1)->pPoint[2]->z = std::nanf("");
    for (const FormatCase& c : kFormats)
        EXPECT_THROW(WriteMeshToString(mesh, c.format), std::invalid_argument);
}

namespace {

// Every stored field of the two meshes, bit for bit, and the neighbours as indices.
void expectSameMesh(const CHTriangulation& a, const CHTriangulation& b)
{
    ASSERT_EQ(a.GetNumTriangles(), b.GetNumTriangles());
    for (int t = 0; t < a.GetNumTriangles(); ++t) {
        for (int part = 0; part < 7; ++part)
            ASSERT_TRUE(sameQuad(partOf(a, t, part), partOf(b, t, part))) << t << " part " << part;
        const t_htriangle* ra = a.GetTriangle(t);
        const t_htriangle* rb = b.GetTriangle(t);
        for (const auto& [pa, pb] : {std::pair{ra->pS, rb->pS}, {ra->pT, rb->pT}, {ra->pV, rb->pV},
                                     {ra->pMinPoint, rb->pMinPoint}, {ra->pMaxPoint, rb->pMaxPoint}})
            ASSERT_TRUE(sameQuad(lanesOf(*pa), lanesOf(*pb))) << t;
        EXPECT_EQ(ra->iTag, rb->iTag);
        for (int k = 0; k < 3; ++k)
            EXPECT_EQ(ra->pNeighbour[k] ? ra->pNeighbour[k]->iIndex : -1,
                      rb->pNeighbour[k] ? rb->pNeighbour[k]->iIndex : -1);
    }
    for (int k = 0; k < 3; ++k)
        EXPECT_TRUE(sameQuad(lanesOf(a.GetPointArray()[k]), lanesOf(b.GetPointArray()[k])));
    EXPECT_EQ(a.GetScaleX(), b.GetScaleX());
    EXPECT_EQ(a.GetScaleZ(), b.GetScaleZ());
}

std::unique_ptr<CHTriangulation> makeMatrixMesh()
{
    CSSEMatrix matrix;
    matrix.Create(9, 7);
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 9; ++x)
            matrix.SetPoint(x, y, (x * 7 + y * 3) % 5 == 0 ? 0.0f : 1.0f + 0.37f * float(x) - 0.11f * float(y * y));
    auto mesh = std::make_unique<CHTriangulation>(&matrix, 0.5f, true, 0.25f, 0.5f, 2.0f, 1, 1);
    mesh->CalcNeighbours();
    mesh->FindBorderTriangles();
    mesh->CalcCenterPoint();
    mesh->GetTriangle(1)->pNormal[2]->y = std::nanf(""); // kept bit for bit in this form
    return mesh;
}

} // namespace

TEST(MeshStream, RoundTripKeepsEveryFieldAndDamageLeavesTheMeshAlone)
{
    const std::unique_ptr<CHTriangulation> owner = makeMatrixMesh();
    CHTriangulation& mesh = *owner;
    ASSERT_GT(mesh.GetNumTriangles(), 20);

    RbStreamWriteBinaryBuffer out;
    mesh.Serialize(out);
    const std::vector<unsigned char> bytes = out.GetBytes();
    CHTriangulation back;
    RbStreamReadBinaryBuffer in(bytes.data(), bytes.size());
    back.Serialize(in);
    expectSameMesh(mesh, back);
    EXPECT_EQ(in.GetRemaining(), 0u);

    // Every truncation, and hand-made damage: count beyond the bytes, a neighbour outside
    // the mesh, a newer version.
    std::vector<std::vector<unsigned char>> damaged;
    for (size_t cut = 0; cut < bytes.size(); cut += 7)
        damaged.emplace_back(bytes.begin(), bytes.begin() + static_cast<long>(cut));
    auto patched = [&](size_t offset, std::int32_t v) {
        std::vector<unsigned char> b = bytes;
        std::memcpy(&b[offset], &v, 4);
        return b;
    };
    damaged.push_back(patched(28, 0x7fffffff));
    damaged.push_back(patched(28, -1));
    damaged.push_back(patched(32 + 84 + 4, mesh.GetNumTriangles()));
    damaged.push_back(patched(0, 2));
    damaged.push_back(patched(0, 0));
    for (const auto& b : damaged) {
        CHTriangulation target(&mesh);
        RbStreamReadBinaryBuffer s(b.data(), b.size());
        EXPECT_THROW(target.Serialize(s), RbStreamException) << b.size();
        expectSameMesh(mesh, target);
    }
}

TEST(MeshStream, ArchiveFormIsTaggedAndRefusesOtherData)
{
    const std::unique_ptr<CHTriangulation> owner = makeMatrixMesh();
    CHTriangulation& mesh = *owner;
    const fs::path path = scratch("mesh.arc");
    {
        CFile file;
        ASSERT_TRUE(file.Open(path.string(), CFile::modeCreate | CFile::modeWrite));
        CArchive archive(&file, CArchive::store);
        mesh.Serialize(archive);
        archive.Close();
    }
    {
        CFile file;
        ASSERT_TRUE(file.Open(path.string(), CFile::modeRead));
        CArchive archive(&file, CArchive::load);
        CHTriangulation back;
        back.Serialize(archive);
        expectSameMesh(mesh, back);
    }
    {
        std::ofstream(path, std::ios::binary | std::ios::trunc) << "no mesh in here";
        CFile file;
        ASSERT_TRUE(file.Open(path.string(), CFile::modeRead));
        CArchive archive(&file, CArchive::load);
        CHTriangulation back(&mesh);
        EXPECT_THROW(back.Serialize(archive), RbStreamException);
        expectSameMesh(mesh, back);
    }
}
