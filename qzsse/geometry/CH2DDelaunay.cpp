#include "qzsse/geometry/CH2DDelaunay.h"

#include <chrono>
#include <limits>

#include "qzsse/geometry/detail/ExactIntegerSign.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

void CH2DDelaunay::CalcDelaunayTriangulation()
{
    // The start time is read and not used, as callers have always had it.
    [[maybe_unused]] const auto started = std::chrono::steady_clock::now();
    DoubleTriangle();
    ConstructHull();
    // EdgeOrderOnFaces, LowerFaces and storeCounts with the face list walked twice instead
    // of six times: on a large hull each walk is a cache miss per face.
    int faces = 0;
    if (tFaceStructure* f = m_pFaces) {
        do {
            orderEdgesOf(f);
            if (facesDown(f))
                f->bLowerFace = true;
            ++faces;
            f = f->next;
        } while (f != m_pFaces);
        m_nFaces = keepLowerFaces(faces, m_nEdges);
    } else {
        m_nFaces = 0;
        m_nEdges = CalcNumEdges();
    }
    m_nVertices = CalcNumVertices();
    m_nVertexCounter = m_nVertices;
}

long long CH2DDelaunay::NormZ(tFaceStructure* face) const
{
    const tVertexStructure* a = face->vertex[0];
    const tVertexStructure* b = face->vertex[1];
    const tVertexStructure* c = face->vertex[2];
    // Unsigned arithmetic wraps where signed 64-bit would overflow.
    using U = unsigned long long;
    const U n = (U(c->y) - U(a->y)) * (U(b->x) - U(a->x)) - (U(b->y) - U(a->y)) * (U(c->x) - U(a->x));
    return static_cast<long long>(n);
}

bool CH2DDelaunay::facesDown(const tFaceStructure* f)
{
    const tVertexStructure* a = f->vertex[0];
    const tVertexStructure* b = f->vertex[1];
    const tVertexStructure* c = f->vertex[2];
    return qzsse::detail::OrientationSign2(a->x, a->y, b->x, b->y, c->x, c->y) < 0;
}

void CH2DDelaunay::LowerFaces()
{
    tFaceStructure* f = m_pFaces;
    if (!f)
        return;
    int faces = 0;
    do {
        if (facesDown(f))
            f->bLowerFace = true;
        ++faces;
        f = f->next;
    } while (f != m_pFaces);
    int edges = 0;
    keepLowerFaces(faces, edges);
}

int CH2DDelaunay::keepLowerFaces(int numFaces, int& numEdges)
{
    numEdges = 0;
    if (tEdgeStructure* e = m_pEdges) {
        do {
            for (tFaceStructure*& adjacent : e->adjface)
                if (adjacent && !adjacent->bLowerFace)
                    adjacent = nullptr;
            ++numEdges;
            e = e->next;
        } while (e != m_pEdges);
    }

    int kept = 0;
    tFaceStructure* f = m_pFaces;
    for (int i = 0; i < numFaces; ++i) {
        tFaceStructure* next = f->next;
        if (f->bLowerFace)
            ++kept;
        else
            DeleteFace(f);
        f = next;
    }
    return kept;
}

void CH2DDelaunay::LoftWith3DTriangulation(CHTriangulation* first, CHTriangulation* second)
{
    invalidateGridIndex();
    tVertexStructure* v = m_pVertices;
    if (!v)
        return;
    do {
        CHTriangulation* mesh = v->bFlag ? first : second;
        const t_htriangle* t = (mesh && v->iIndex >= 0) ? mesh->GetTriangle(v->iIndex / 3) : nullptr;
        if (t) {
            const SSEPoint& corner = *t->pPoint[v->iIndex % 3];
            v->x = static_cast<long long>(10.0f * corner.x);
            v->y = static_cast<long long>(10.0f * corner.y);
            v->z = static_cast<long long>(10.0f * corner.z);
        }
        v = v->next;
    } while (v != m_pVertices);
}

void CH2DDelaunay::RemoveFacesOutOfBorderLines(float tolerance)
{
    // An empty line never replaces these, so it bounds nothing.
    float upper = std::numeric_limits<float>::max();
    float lower = -std::numeric_limits<float>::max();
    const int n = CalcNumFaces();
    tFaceStructure* f = m_pFaces;
    for (int i = 0; i < n; ++i) {
        tFaceStructure* next = f->next;
        bool outside = false;
        for (int k = 0; k < 3 && !outside; ++k) {
            const tVertexStructure* p = f->edge[k]->endpts[0];
            const tVertexStructure* q = f->edge[k]->endpts[1];
            const float tx[3] = {static_cast<float>(2 * p->x + q->x) / 3.0f, 0.5f * static_cast<float>(p->x + q->x),
                                 static_cast<float>(p->x + 2 * q->x) / 3.0f};
            const float ty[3] = {static_cast<float>(2 * p->y + q->y) / 3.0f, 0.5f * static_cast<float>(p->y + q->y),
                                 static_cast<float>(p->y + 2 * q->y) / 3.0f};
            for (int s = 0; s < 3; ++s) {
                float unused;
                m_UpperBorderLine.GetPoint(m_UpperBorderLine.ClosestPointX(tx[s]), unused, upper);
                m_LowerBorderLine.GetPoint(m_LowerBorderLine.ClosestPointX(tx[s]), unused, lower);
                if (ty[s] > upper + tolerance || ty[s] < lower - tolerance) {
                    outside = true;
                    break;
                }
            }
        }
        if (outside) {
            for (tEdgeStructure* e : f->edge)
                for (tFaceStructure*& adjacent : e->adjface)
                    if (adjacent == f)
                        adjacent = nullptr;
            DeleteFace(f);
        }
        f = next;
    }
    m_nFaces = CalcNumFaces();
}

void CH2DDelaunay::appendBorderPoints(CHTriangulation* mesh, bool fromFirstMesh, bool top)
{
    const int n = mesh->GetNumTriangles();
    float minZ = std::numeric_limits<float>::max();
    float maxZ = -std::numeric_limits<float>::max();
    for (int i = 0; i < n; ++i) {
        const t_htriangle* t = mesh->GetTriangle(i);
        if (t->iTag != 13)
            continue;
        for (const SSEPoint* corner : t->pPoint) {
            minZ = corner->z < minZ ? corner->z : minZ;
            maxZ = corner->z > maxZ ? corner->z : maxZ;
        }
    }
    const float middle = 0.5f * (minZ + maxZ);
    for (int i = 0; i < n; ++i) {
        const t_htriangle* t = mesh->GetTriangle(i);
        if (t->iTag != 13)
            continue;
        for (int k = 0; k < 3; ++k) {
            const SSEPoint& corner = *t->pPoint[k];
            if (top ? corner.z >= middle : corner.z <= middle)
                AppendVertex(corner.x, corner.y, 3 * i + k, fromFirstMesh);
        }
    }
}

void CH2DDelaunay::GetBorderPointsTop(CHTriangulation* mesh, bool fromFirstMesh)
{
    appendBorderPoints(mesh, fromFirstMesh, true);
}

void CH2DDelaunay::GetBorderPointsBottom(CHTriangulation* mesh, bool fromFirstMesh)
{
    appendBorderPoints(mesh, fromFirstMesh, false);
}

namespace {

void fillBorderLine(CSSE2dPolygon& line, const CSSE3dPolygon& polygon)
{
    const int n = polygon.GetNumPoints();
    line.Create(n);
    for (int i = 0; i < n; ++i) {
        float x, y;
        polygon.GetPointXY(i, x, y);
        line.SetPoint(i, 10.0f * x, 10.0f * y);
    }
}

} // namespace

void CH2DDelaunay::CreateTriangulationFromTwoBorderPolygons(CSSE3dPolygon* upper, CSSE3dPolygon* lower,
                                                             bool upperFromFirst)
{
    fillBorderLine(m_UpperBorderLine, *upper);
    fillBorderLine(m_LowerBorderLine, *lower);
    for (int i = 0; i < upper->GetNumPoints(); ++i) {
        float x, y;
        upper->GetPointXY(i, x, y);
        AppendVertex(x, y, i, upperFromFirst);
    }
    for (int i = 0; i < lower->GetNumPoints(); ++i) {
        float x, y;
        lower->GetPointXY(i, x, y);
        AppendVertex(x, y, i, !upperFromFirst);
    }
    CalcDelaunayTriangulation();
    RemoveFacesOutOfBorderLines(1.0f);
}
