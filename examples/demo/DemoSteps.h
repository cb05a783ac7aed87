#pragma once

// The demonstration's six steps, run in order on one height image. Each step prints one
// line (what it made, its counts, the error reached, the time taken) and leaves its
// pictures or files in the output folder. Steps check their own results where an
// independent check is cheap and throw CheckFailed when one does not hold.

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "demo/HeightImageInput.h"
#include "demo/OutputFolder.h"
#include "demo/Pictures.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/polygon/CSSE2dPolygon.h"
#include "qzsse/polygon/CSSE3dPolygon.h"

class CHTriangulation;

namespace qzsse::demo {

class CheckFailed : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class DemoSteps {
public:
    DemoSteps(HeightImage input, std::string inputName, OutputFolder& output);
    ~DemoSteps();
    DemoSteps(const DemoSteps&) = delete;
    DemoSteps& operator=(const DemoSteps&) = delete;

    // 1: the height image into a CSSEMatrix; loadMilliseconds is the time the file took.
    void LoadMatrix(double loadMilliseconds);
    // 2: range, integral and counts; the level for the contour; heights.png.
    void ThresholdAndMeasure();
    // 3: contour of the largest region above the level, its polygon, triangulation, hull and
    // the polygon filled back into a mask; contour.png, mask.png.
    void TraceContour();
    // 4: mesh of the heights, neighbours and border, scan conversion back into an envelope
    // image compared with the input; mesh.ply, envelope.png.
    void MeshAndScanConvert();
    // 5: Delaunay triangulation of a sample of surface points, octree of the mesh;
    // delaunay.png.
    void DelaunayAndOctree();
    // 6: heights, mask and envelope into a matrix store file, read back and compared;
    // matrices.store.
    void StoreAndReload();

private:
    void printStep(int number, const char* title, const std::string& details, double milliseconds) const;
    float inputAt(int x, int y) const
    {
        return m_input.values[static_cast<size_t>(y) * static_cast<size_t>(m_input.width) + static_cast<size_t>(x)];
    }

    HeightImage m_input;
    std::string m_inputName;
    OutputFolder& m_output;

    CSSEMatrix m_heights;
    float m_minHeight = 0.0f;
    float m_maxHeight = 0.0f;
    float m_level = 0.0f;
    std::unique_ptr<Picture> m_shaded;     // hill-shaded heights, the background of overlays

    std::vector<unsigned char> m_region;   // largest 8-connected region above the level
    CSSE3dPolygon m_contour;
    CSSEMatrix m_mask;                     // the contour polygon filled with 1

    std::unique_ptr<CHTriangulation> m_mesh;
    CSSEMatrix m_envelope;
};

} // namespace qzsse::demo
