// Steps 1, 2 and 6: the matrix itself, its measures, and the matrix store.

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include "demo/DemoSteps.h"
#include "demo/Stopwatch.h"
#include "demo/Text.h"
#include "qzsse/mesh/CHTriangulation.h"
#include "qzsse/storage/QzCSSEMatrixLibrary.h"

namespace qzsse::demo {
namespace {

// Whole-storage operations also write the padding rows below the image; clearing them keeps
// counts and sums to the image itself.
void clearPaddingRows(CSSEMatrix& m)
{
    for (int y = m.GetSizeY(); y < 4 * m.GetSSESizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            m.SetPointUnsafe(x, y, 0.0f);
}

// Largest |a - b| over the real pixels of two equally sized matrices.
float maxDifference(const CSSEMatrix& a, const CSSEMatrix& b)
{
    float worst = 0.0f;
    for (int y = 0; y < a.GetSizeY(); ++y)
        for (int x = 0; x < a.GetSizeX(); ++x)
            worst = std::max(worst, std::fabs(a.GetPointUnsafe(x, y) - b.GetPointUnsafe(x, y)));
    return worst;
}

float largestMagnitude(const CSSEMatrix& m)
{
    float largest = 0.0f;
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            largest = std::max(largest, std::fabs(m.GetPointUnsafe(x, y)));
    return largest;
}

// Removes the folder of intermediate matrix files however the store step ends.
struct ScratchFolder {
    std::filesystem::path path;
    ~ScratchFolder()
    {
        std::error_code ignored;
        std::filesystem::remove_all(path, ignored);
    }
};

} // namespace

DemoSteps::DemoSteps(HeightImage input, std::string inputName, OutputFolder& output)
    : m_input(std::move(input)), m_inputName(std::move(inputName)), m_output(output)
{
}

DemoSteps::~DemoSteps() = default;

void DemoSteps::printStep(int number, const char* title, const std::string& details, double milliseconds) const
{
    std::printf("%d %-22s %s  (%.1f ms)\n", number, title, details.c_str(), milliseconds);
    std::fflush(stdout);
}

void DemoSteps::LoadMatrix(double loadMilliseconds)
{
    Stopwatch watch;
    m_heights.Create(m_input.width, m_input.height);
    for (int y = 0; y < m_input.height; ++y)
        for (int x = 0; x < m_input.width; ++x)
            m_heights.SetPointUnsafe(x, y, inputAt(x, y));
    std::string details = Sprintf("%d x %d %s from %s, %d bands of 4 rows", m_heights.GetSizeX(), m_heights.GetSizeY(),
                                 m_input.format.c_str(), m_inputName.c_str(), m_heights.GetSSESizeY());
    if (m_input.replacedNoData > 0)
        details += Sprintf(", %d no-data samples set to the lowest height", m_input.replacedNoData);
    printStep(1, "height image loaded", details, loadMilliseconds + watch.Milliseconds());
}

void DemoSteps::ThresholdAndMeasure()
{
    Stopwatch watch;
    m_heights.CalcMinMaxValues(&m_maxHeight, &m_minHeight);
    const float integral = m_heights.IntegrateMatrixValid();

    // The contour level: midway between the 70th-percentile height and the next higher
    // one, so that no sample lies on it and about 30 % of the image is above it.
    std::vector<float> sorted = m_input.values;
    std::sort(sorted.begin(), sorted.end());
    const size_t k = sorted.size() * 7 / 10;
    const auto next = std::upper_bound(sorted.begin(), sorted.end(), sorted[k]);
    m_level = next != sorted.end() ? sorted[k] + (*next - sorted[k]) * 0.5f : sorted[k] - 0.5f;

    CSSEMatrix above(m_heights);
    above.TresholdAbove(m_level, 1.0f);
    clearPaddingRows(above);
    const int count = above.NumValuesAbove(0.5f);
    CSSEMatrix volume(m_heights);
    volume.OffsetMatrix(-m_level);
    volume.MaskOut(above);
    const float volumeAbove = volume.IntegrateMatrixValid();
    const double milliseconds = watch.Milliseconds();

    // The same measures by plain loops over the input.
    const auto [lowest, highest] = std::minmax_element(m_input.values.begin(), m_input.values.end());
    const auto plainCount = std::count_if(m_input.values.begin(), m_input.values.end(), [&](float v) { return v > m_level; });
    if (*lowest != m_minHeight || *highest != m_maxHeight || plainCount != count)
        throw CheckFailed(Sprintf("matrix measures disagree with the input: min %g/%g max %g/%g count %d/%ld",
                                 m_minHeight, *lowest, m_maxHeight, *highest, count, static_cast<long>(plainCount)));

    const double pixels = static_cast<double>(m_input.width) * m_input.height;
    printStep(2, "thresholded, measured",
              Sprintf("heights %.2f .. %.2f, mean %.2f; level %.2f: %d px above (%.1f %%), volume above %.4g",
                     m_minHeight, m_maxHeight, integral / pixels, m_level, count, 100.0 * count / pixels, volumeAbove),
              milliseconds);

    m_shaded = std::make_unique<Picture>(RenderHeights(m_input.values, m_input.width, m_input.height, m_minHeight,
                                                       m_maxHeight, true));
    m_output.WriteFile("heights.png", [&](const std::filesystem::path& p) { m_shaded->WritePng(p); });
}

void DemoSteps::StoreAndReload()
{
    Stopwatch watch;
    ScratchFolder scratch{m_output.PathOf(".qzsse-demo-work-" + std::to_string(::getpid()))};
    std::filesystem::create_directories(scratch.path);

    // Heights: PNG passes until the error is within 1/10000 of the height range.
    QzCSSEMatrixLibrary::QzSCompressionParameters heightParameters;
    heightParameters.m_eMethod = 2;
    heightParameters.m_uiNumberOfPasses = 2;
    heightParameters.m_fMaxAbsError = std::max((m_maxHeight - m_minHeight) * 1.0e-4f, 1.0e-6f);
    // The mask is two-level: CCITT group 4 with 0 as the second level is exact.
    QzCSSEMatrixLibrary::QzSCompressionParameters maskParameters;
    maskParameters.m_eMethod = 4;
    maskParameters.m_fInvalidValue = 0.0f;
    // The envelope: a PNG pass, then a JPEG pass for the remainder (lossy).
    QzCSSEMatrixLibrary::QzSCompressionParameters envelopeParameters;
    envelopeParameters.m_eMethod = 3;
    envelopeParameters.m_uiNumberOfPasses = 2;
    envelopeParameters.m_fJPEGQuality = 0.9f;
    envelopeParameters.m_fMaxAbsError = heightParameters.m_fMaxAbsError;

    struct Entry {
        const char* id;
        CSSEMatrix* matrix;
        const QzCSSEMatrixLibrary::QzSCompressionParameters* parameters;
    };
    const Entry entries[] = {{"heights", &m_heights, &heightParameters},
                             {"mask", &m_mask, &maskParameters},
                             {"envelope", &m_envelope, &envelopeParameters}};

    QzCSSEMatrixLibrary library;
    long long rawBytes = 0;
    for (const Entry& e : entries) {
        const std::string file = (scratch.path / (std::string(e.id) + ".matrix")).string();
        if (!e.matrix->Store(file) || !library.AddSSEMatrix(e.id, file, CString(), *e.parameters))
            throw std::runtime_error(std::string("cannot register the matrix ") + e.id);
        rawBytes += 4LL * e.matrix->GetSizeX() * e.matrix->GetSizeY();
    }
    m_output.WriteFile("matrices.store", [&](const std::filesystem::path& p) {
        if (!library.Store(p.string()))
            throw std::runtime_error("cannot write the matrix store " + p.string());
    });
    const float reported = library.GetMaxAbsCompressionError();
    const auto storeBytes = static_cast<long long>(std::filesystem::file_size(m_output.PathOf("matrices.store")));

    // Read every entry back through a second library opened on the file.
    QzCSSEMatrixLibrary reader;
    if (!reader.Init(m_output.PathOf("matrices.store").string()))
        throw CheckFailed("the written matrix store cannot be opened");
    const RbArray<CString> ids = reader.GetIDs();
    if (static_cast<int>(ids.GetSize()) != 3)
        throw CheckFailed(Sprintf("the store holds %d entries, not 3", static_cast<int>(ids.GetSize())));
    std::string errors;
    float measured = 0.0f;
    for (const Entry& e : entries) {
        CSSEMatrix loaded;
        if (!reader.LoadSSEMatrix(e.id, loaded))
            throw CheckFailed(std::string("entry ") + e.id + " cannot be loaded from the store");
        if (loaded.GetSizeX() != e.matrix->GetSizeX() || loaded.GetSizeY() != e.matrix->GetSizeY())
            throw CheckFailed(Sprintf("entry %s comes back as %d x %d instead of %d x %d", e.id, loaded.GetSizeX(),
                                     loaded.GetSizeY(), e.matrix->GetSizeX(), e.matrix->GetSizeY()));
        const float error = maxDifference(loaded, *e.matrix);
        // A multi-pass reader adds the passes up, so it may differ from the writer's
        // residual by a few float steps of the values' magnitude.
        const float slack = 4.0f * FLT_EPSILON * (largestMagnitude(*e.matrix) + reported);
        if (!(error <= reported + slack))
            throw CheckFailed(Sprintf("entry %s differs from its original by %g, more than the reported %g", e.id,
                                     static_cast<double>(error), static_cast<double>(reported)));
        measured = std::max(measured, error);
        errors += Sprintf("%s%s %.3g", errors.empty() ? "" : ", ", e.id, static_cast<double>(error));
    }
    printStep(6, "stored and reloaded",
              Sprintf("3 matrices, %lld -> %lld bytes (ratio %.1f); max error reported %.6g, measured %.6g (%s)", rawBytes,
                     storeBytes, static_cast<double>(rawBytes) / static_cast<double>(storeBytes),
                     static_cast<double>(reported), static_cast<double>(measured), errors.c_str()),
              watch.Milliseconds());
}

} // namespace qzsse::demo
