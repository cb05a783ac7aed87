// Steps 4 and 5: the height mesh and its scan conversion; Delaunay triangulation of a point
// sample and the octree of the mesh.

#include <algorithm>
#include <cmath>
#include <map>
#include <random>
#include <utility>
#include <vector>

#include "demo/DemoSteps.h"
#include "demo/Stopwatch.h"
#include "demo/Text.h"
#include "qzsse/geometry/CH2DDelaunay.h"
#include "qzsse/geometry/CHOctree.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/mesh/MeshInterchange.h"

namespace qzsse::demo {
namespace {

__extension__ typedef __int128 Wide;

// Sign of the in-circle determinant of d against triangle (a, b, c), exact on the grid.
int inCircle(const tVertexStructure* a, const tVertexStructure* b, const tVertexStructure* c, long long dx, long long dy)
{
    const Wide ax = a->x - dx, ay = a->y - dy, bx = b->x - dx, by = b->y - dy, cx = c->x - dx, cy = c->y - dy;
    const Wide det = (ax * ax + ay * ay) * (bx * cy - cx * by) - (bx * bx + by * by) * (ax * cy - cx * ay)
                     + (cx * cx + cy * cy) * (ax * by - bx * ay);
    return det > 0 ? 1 : det < 0 ? -1 : 0;
}

int orientation(const tVertexStructure* a, const tVertexStructure* b, const tVertexStructure* c)
{
    const Wide det = static_cast<Wide>(b->x - a->x) * (c->y - a->y) - static_cast<Wide>(b->y - a->y) * (c->x - a->x);
    return det > 0 ? 1 : det < 0 ? -1 : 0;
}

// Level of the octree cell a triangle was filed in, from the tag code the octree stamps.
int levelOfTag(int tag)
{
    static constexpr int codes[] = {1, 4, 2, 3, 5, 6, 7, 8, 9, 10, 11};
    for (int level = 0; level < 11; ++level)
        if (codes[level] == tag)
            return level;
    return -1;
}

} // namespace

void DemoSteps::MeshAndScanConvert()
{
    Stopwatch watch;
    const int w = m_input.width, h = m_input.height;
    // About 70 000 triangles at most: neighbour finding compares border triangles with all.
    const int step = std::max(1, static_cast<int>(std::ceil(std::sqrt(2.0 * w * h / 70000.0))));
    const float below = m_minHeight - std::max(1.0f, std::fabs(m_minHeight) * 1.0e-5f);
    m_mesh = std::make_unique<CHTriangulation>(&m_heights, below, true, 1.0f, 1.0f, 1.0f, step, step);
    const int triangles = m_mesh->GetNumTriangles();
    const int cellsX = (w - step + step - 1) / step, cellsY = (h - step + step - 1) / step;
    if (triangles != 2 * cellsX * cellsY)
        throw CheckFailed(Sprintf("the mesh has %d triangles; %d x %d full cells make %d", triangles, cellsX, cellsY,
                                  2 * cellsX * cellsY));

    m_mesh->CalcNeighbours();
    m_mesh->FindBorderTriangles();
    int border = 0, links = 0;
    for (int t = 0; t < triangles; ++t) {
        const t_htriangle* tri = m_mesh->GetTriangle(t);
        border += tri->iTag == 13;
        for (const t_htriangle* n : tri->pNeighbour)
            links += n != nullptr;
    }
    // A full grid of cells: every edge inside is shared, the 2 (cellsX + cellsY) outer ones
    // are not, and 2 (cellsX + cellsY - 1) triangles touch the outside.
    if (links != 3 * triangles - 2 * (cellsX + cellsY) || border != 2 * (cellsX + cellsY - 1))
        throw CheckFailed(Sprintf("neighbours: %d links and %d border triangles, expected %d and %d", links, border,
                                  3 * triangles - 2 * (cellsX + cellsY), 2 * (cellsX + cellsY - 1)));

    m_mesh->ScanConvertTriangulationMax(&m_envelope, 0.0f);
    const double milliseconds = watch.Milliseconds();

    // The envelope starts at the mesh's lowest corner and holds heights above it; its
    // outermost ring is never drawn, so the comparison runs inside it.
    const SSEPoint lowest = m_mesh->GetMinPoint();
    const int ox = static_cast<int>(lowest.x), oy = static_cast<int>(lowest.y);
    const int ew = m_envelope.GetSizeX(), eh = m_envelope.GetSizeY();
    float worst = 0.0f;
    double sum = 0.0;
    int compared = 0, undrawn = 0;
    for (int y = 1; y + 1 < eh; ++y)
        for (int x = 1; x + 1 < ew; ++x) {
            const float e = m_envelope.GetPointUnsafe(x, y);
            undrawn += e == 0.0f;
            const float difference = std::fabs(e + lowest.z - inputAt(x + ox, y + oy));
            worst = std::max(worst, difference);
            sum += difference;
            ++compared;
        }

    MeshFileCounts ply;
    m_output.WriteFile("mesh.ply", [&](const std::filesystem::path& p) {
        ply = WriteMeshFile(*m_mesh, p, MeshFileFormat::PlyBinary, "made by qzsse-demo");
    });
    printStep(4, "meshed, scan-converted",
              Sprintf("step %d: %d triangles (%lld vertices in mesh.ply), %d on the border; envelope %d x %d, inside its "
                      "ring largest difference %.3f, mean %.3f, %d px empty (0)",
                      step, triangles, ply.vertices, border, ew, eh, static_cast<double>(worst),
                      compared ? sum / compared : 0.0, undrawn),
              milliseconds);

    // envelope.png: the envelope in the input's frame and colours; never drawn pixels grey.
    std::vector<float> frame(m_input.values.size(), m_minHeight);
    std::vector<bool> blank(m_input.values.size(), true);
    for (int y = 1; y + 1 < eh; ++y)
        for (int x = 1; x + 1 < ew; ++x) {
            const float e = m_envelope.GetPointUnsafe(x, y);
            if (x + ox >= w || y + oy >= h || e == 0.0f)
                continue;
            const size_t i = static_cast<size_t>(y + oy) * static_cast<size_t>(w) + static_cast<size_t>(x + ox);
            frame[i] = e + lowest.z;
            blank[i] = false;
        }
    const Picture envelope = RenderHeights(frame, w, h, m_minHeight, m_maxHeight, true, &blank);
    m_output.WriteFile("envelope.png", [&](const std::filesystem::path& p) { envelope.WritePng(p); });
}

void DemoSteps::DelaunayAndOctree()
{
    Stopwatch watch;
    const int w = m_input.width, h = m_input.height;

    // About 1500 surface points, denser where the ground is steep; fixed seed, so every run
    // draws the same sample. The grid of the triangulation is 0.1 units: plane positions
    // are scaled so that large images keep their coordinates moderate.
    const float scale = std::min(1.0f, 2000.0f / static_cast<float>(std::max(w, h)));
    std::vector<float> slope(m_input.values.size());
    float steepest = 0.0f;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const float gx = inputAt(std::min(x + 1, w - 1), y) - inputAt(std::max(x - 1, 0), y);
            const float gy = inputAt(x, std::min(y + 1, h - 1)) - inputAt(x, std::max(y - 1, 0));
            const float s = std::sqrt(gx * gx + gy * gy);
            slope[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)] = s;
            steepest = std::max(steepest, s);
        }
    double totalWeight = 0.0;
    for (const float s : slope)
        totalWeight += 0.25 + (steepest > 0.0f ? s / steepest : 0.0f);
    const double wanted = std::min(1500.0, static_cast<double>(w) * h / 8.0);
    std::mt19937 random(20240521u);
    std::vector<std::pair<int, int>> points{{0, 0}, {w - 1, 0}, {0, h - 1}, {w - 1, h - 1}};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            const bool corner = (x == 0 || x == w - 1) && (y == 0 || y == h - 1);
            const double weight = 0.25 + (steepest > 0.0f ? slope[static_cast<size_t>(y) * static_cast<size_t>(w) + static_cast<size_t>(x)] / steepest : 0.0f);
            const double u = static_cast<double>(random() >> 8) / 16777216.0;
            if (!corner && u < wanted * weight / totalWeight)
                points.emplace_back(x, y);
        }

    CH2DDelaunay delaunay;
    for (size_t i = 0; i < points.size(); ++i)
        delaunay.AppendVertex(static_cast<float>(points[i].first) * scale, static_cast<float>(points[i].second) * scale,
                              static_cast<int>(i), false);
    delaunay.CalcDelaunayTriangulation();
    CHTriangulation delaunayMesh(&delaunay, 1.0f / scale, 1.0f / scale, 1.0f);
    const double delaunayMilliseconds = watch.Milliseconds();

    // Checks on the face list: a triangulated disc (V - E + F = 1, boundary edges used
    // once, inner ones twice) and no sample point strictly inside any face's circumcircle.
    std::vector<const tFaceStructure*> faces;
    if (tFaceStructure* head = delaunay.GetFaces()) {
        const tFaceStructure* f = head;
        do {
            faces.push_back(f);
            f = f->next;
        } while (f != head);
    }
    std::map<std::pair<const tVertexStructure*, const tVertexStructure*>, int> edgeUse;
    std::map<const tVertexStructure*, int> used;
    for (const tFaceStructure* f : faces)
        for (int k = 0; k < 3; ++k) {
            const tVertexStructure* a = f->vertex[k];
            const tVertexStructure* b = f->vertex[(k + 1) % 3];
            ++edgeUse[std::minmax(a, b)];
            ++used[a];
        }
    long long boundary = 0;
    for (const auto& [edge, count] : edgeUse) {
        if (count > 2)
            throw CheckFailed("a Delaunay edge is shared by more than two triangles");
        boundary += count == 1;
    }
    const auto vertices = static_cast<long long>(used.size()), edges = static_cast<long long>(edgeUse.size());
    const auto faceCount = static_cast<long long>(faces.size());
    if (vertices - edges + faceCount != 1 || faceCount != delaunay.GetNumFaces()
        || delaunayMesh.GetNumTriangles() != delaunay.GetNumFaces())
        throw CheckFailed(Sprintf("the Delaunay faces do not form a triangulated disc (V %lld, E %lld, F %lld, mesh %d)",
                                  vertices, edges, faceCount, delaunayMesh.GetNumTriangles()));
    for (const tFaceStructure* f : faces) {
        const int turn = orientation(f->vertex[0], f->vertex[1], f->vertex[2]);
        for (const auto& [x, y] : points) {
            const auto gx = static_cast<long long>(static_cast<float>(x) * scale * 10.0f + 0.5f);
            const auto gy = static_cast<long long>(static_cast<float>(y) * scale * 10.0f + 0.5f);
            if (turn * inCircle(f->vertex[0], f->vertex[1], f->vertex[2], gx, gy) > 0)
                throw CheckFailed(Sprintf("sample point (%d, %d) lies inside a Delaunay circumcircle", x, y));
        }
    }

    Stopwatch octreeWatch;
    SSEPoint upper = m_mesh->GetMaxPoint(), lower = m_mesh->GetMinPoint();
    const float extent = std::max({upper.x - lower.x, upper.y - lower.y, upper.z - lower.z});
    CHOctree octree(upper, lower, extent / 32.0f);
    octree.CalculateOctreeEntries(m_mesh.get(), 0);
    std::vector<int> perLevel(static_cast<size_t>(std::max(octree.GetDepth(), 1)), 0);
    int filed = 0;
    for (int t = 0; t < m_mesh->GetNumTriangles(); ++t) {
        const int level = levelOfTag(m_mesh->GetTriangle(t)->iTag);
        if (level >= 0 && level < octree.GetDepth()) {
            ++perLevel[static_cast<size_t>(level)];
            ++filed;
        }
    }
    if (filed != m_mesh->GetNumTriangles())
        throw CheckFailed(Sprintf("the octree filed %d of %d triangles", filed, m_mesh->GetNumTriangles()));
    std::string levels;
    for (const int n : perLevel)
        levels += Sprintf("%s%d", levels.empty() ? "" : "/", n);

    printStep(5, "Delaunay, octree",
              Sprintf("%zu points -> %lld triangles (%lld vertices, %lld on the hull), empty circumcircles checked; "
                      "octree depth %d, %d cells, triangles per level %s (%.1f ms)",
                      points.size(), faceCount, vertices, boundary, octree.GetDepth(), octree.GetNumBricks(),
                      levels.c_str(), octreeWatch.Milliseconds()),
              delaunayMilliseconds);

    // delaunay.png: the triangles in white over the dimmed heights, the points in black.
    Picture picture = *m_shaded;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            picture.BlendImagePixel(x, y, Rgb{20, 20, 20}, 0.35f);
    auto position = [scale](const tVertexStructure* v) {
        return std::pair<float, float>(static_cast<float>(v->x) / 10.0f / scale, static_cast<float>(v->y) / 10.0f / scale);
    };
    for (const auto& [edge, count] : edgeUse) {
        const auto [ax, ay] = position(edge.first);
        const auto [bx, by] = position(edge.second);
        picture.DrawLine(ax, ay, bx, by, count == 1 ? Rgb{255, 220, 0} : Rgb{255, 255, 255}, 1.0f, 0.7f);
    }
    for (const auto& [vertex, count] : used) {
        const auto [x, y] = position(vertex);
        picture.DrawDot(x, y, Rgb{10, 10, 10}, 1.6f);
    }
    m_output.WriteFile("delaunay.png", [&](const std::filesystem::path& p) { picture.WritePng(p); });
}

} // namespace qzsse::demo
