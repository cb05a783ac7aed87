// Writing and reading a mesh of about a million triangles (a 708 x 708 height grid) as binary
// PLY and as OBJ, in memory, beside CGAL's polygon soup PLY and OBJ writer and reader on the
// same data when it is installed. Our writers also merge the corners the mesh stores once per
// triangle; CGAL is handed the already indexed soup.

#include <cmath>
#include <sstream>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/MeshInterchange.h"

#if defined(QZSSE_BENCH_WITH_CGAL)
#include <CGAL/Exact_predicates_inexact_constructions_kernel.h>
#include <CGAL/IO/OBJ.h>
#include <CGAL/IO/PLY.h>
#endif

namespace {

using qzsse::MeshFileFormat;

const CHTriangulation& GridMesh()
{
    static CHTriangulation* mesh = [] {
        CSSEMatrix matrix;
        matrix.Create(708, 708);
        for (int y = 0; y < 708; ++y)
            for (int x = 0; x < 708; ++x)
                matrix.SetPoint(x, y, 100.0f + 20.0f * std::sin(0.03f * float(x)) * std::cos(0.02f * float(y)));
        return new CHTriangulation(&matrix, 0.0f, true, 0.5f, 0.5f, 1.0f, 1, 1);
    }();
    return *mesh;
}

void BM_Write(benchmark::State& state, MeshFileFormat format)
{
    const CHTriangulation& mesh = GridMesh();
    for (auto _ : state) {
        const std::string bytes = qzsse::WriteMeshToString(mesh, format);
        benchmark::DoNotOptimize(bytes.data());
    }
    state.SetItemsProcessed(state.iterations() * mesh.GetNumTriangles());
}

void BM_Read(benchmark::State& state, MeshFileFormat format)
{
    const CHTriangulation& mesh = GridMesh();
    const std::string bytes = qzsse::WriteMeshToString(mesh, format);
    for (auto _ : state) {
        CHTriangulation back;
        qzsse::ReadMeshFromMemory(bytes.data(), bytes.size(), format, back);
        benchmark::DoNotOptimize(back.GetNumTriangles());
    }
    state.SetItemsProcessed(state.iterations() * mesh.GetNumTriangles());
}

BENCHMARK_CAPTURE(BM_Write, PlyBinary, MeshFileFormat::PlyBinary)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Read, PlyBinary, MeshFileFormat::PlyBinary)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Write, Obj, MeshFileFormat::Obj)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_Read, Obj, MeshFileFormat::Obj)->Unit(benchmark::kMillisecond);

#if defined(QZSSE_BENCH_WITH_CGAL)
using Point3 = CGAL::Exact_predicates_inexact_constructions_kernel::Point_3;
using Soup = std::vector<std::vector<std::size_t>>;

void CgalSoup(std::vector<Point3>& points, Soup& polygons)
{
    const qzsse::IndexedMesh indexed = qzsse::ToIndexedMesh(GridMesh());
    for (size_t i = 0; i < indexed.positions.size(); i += 3)
        points.emplace_back(indexed.positions[i], indexed.positions[i + 1], indexed.positions[i + 2]);
    for (size_t i = 0; i < indexed.indices.size(); i += 3)
        polygons.push_back({size_t(indexed.indices[i]), size_t(indexed.indices[i + 1]), size_t(indexed.indices[i + 2])});
}

std::string CgalWrite(bool ply, const std::vector<Point3>& points, const Soup& polygons)
{
    std::ostringstream out(std::ios::binary);
    if (ply)
        CGAL::IO::write_PLY(out, points, polygons, CGAL::parameters::use_binary_mode(true));
    else
        CGAL::IO::write_OBJ(out, points, polygons, CGAL::parameters::stream_precision(9));
    return out.str();
}

void BM_CgalWrite(benchmark::State& state, bool ply)
{
    std::vector<Point3> points;
    Soup polygons;
    CgalSoup(points, polygons);
    for (auto _ : state) {
        const std::string bytes = CgalWrite(ply, points, polygons);
        benchmark::DoNotOptimize(bytes.data());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(polygons.size()));
}

void BM_CgalRead(benchmark::State& state, bool ply)
{
    std::vector<Point3> points;
    Soup polygons;
    CgalSoup(points, polygons);
    const std::string bytes = CgalWrite(ply, points, polygons);
    for (auto _ : state) {
        std::istringstream in(bytes, std::ios::binary);
        std::vector<Point3> p;
        Soup f;
        const bool ok = ply ? CGAL::IO::read_PLY(in, p, f, CGAL::parameters::use_binary_mode(true))
                            : CGAL::IO::read_OBJ(in, p, f);
        if (!ok || f.size() != polygons.size())
            state.SkipWithError("CGAL could not read its own output");
        benchmark::DoNotOptimize(f.data());
    }
    state.SetItemsProcessed(state.iterations() * int64_t(polygons.size()));
}

BENCHMARK_CAPTURE(BM_CgalWrite, PlyBinary, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_CgalRead, PlyBinary, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_CgalWrite, Obj, false)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_CgalRead, Obj, false)->Unit(benchmark::kMillisecond);
#endif

} // namespace
