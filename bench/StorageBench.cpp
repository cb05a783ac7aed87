// Matrix compression as a store entry holds it (the matrix stream of CSSEMatrix::Serialize)
// on real height grids, beside LERC on the same floats in the same run. For every method
// and a few pass counts and error bounds: encode and decode throughput (bytes of float
// input), and as counters the entry's size, the largest absolute error a reader sees
// (measured on the decoded matrix) and the entry's size over LERC's blob when LERC is
// given that error as its maxZErr. A second group codes changed surveys against a stored
// reference with the store's difference modes 0-3 and reports their sizes.
//
// Grids: tests/storage/data (override with QZSSE_STORAGE_DATA=<dir>) and a 4096 x 4096
// surface built from them (SurfaceFromGrids).

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <numbers>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "support/NpyReader.h"
#include "qzsse/base/RbStreamReadBinaryBuffer.h"
#include "qzsse/base/RbStreamWriteBinaryBuffer.h"
#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/storage/QzCSSEMatrixLibrary.h"
#include "qzsse/storage/detail/PassDecoding.h"

#if defined(QZSSE_BENCH_WITH_LERC)
#include <Lerc_c_api.h>
#endif

namespace {

using qzsse::detail::NpyGrid;
using Bytes = std::vector<unsigned char>;
using MatrixParameters = CSSEMatrix::QzSCompressionParameters;
using LibraryParameters = QzCSSEMatrixLibrary::QzSCompressionParameters;

std::filesystem::path DataDir()
{
    if (const char* dir = std::getenv("QZSSE_STORAGE_DATA"))
        return dir;
    return std::filesystem::path(__FILE__).parent_path().parent_path() / "tests" / "storage" / "data";
}

const NpyGrid& Jacksboro()
{
    static const NpyGrid grid = qzsse::detail::ReadNpy(DataDir() / "jacksboro_fault_dem.npy");
    return grid;
}

const NpyGrid& Topobathy()
{
    static const NpyGrid grid = qzsse::detail::ReadNpy(DataDir() / "topobathy.npy");
    return grid;
}

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

std::vector<float> RowMajor(const CSSEMatrix& m)
{
    std::vector<float> out;
    out.reserve(static_cast<size_t>(m.GetSizeX()) * static_cast<size_t>(m.GetSizeY()));
    for (int y = 0; y < m.GetSizeY(); ++y)
        for (int x = 0; x < m.GetSizeX(); ++x)
            out.push_back(m.GetPointUnsafe(x, y));
    return out;
}

float MaxAbsError(const CSSEMatrix& a, const CSSEMatrix& b)
{
    float largest = 0.0f;
    for (int y = 0; y < a.GetSizeY(); ++y)
        for (int x = 0; x < a.GetSizeX(); ++x)
            largest = std::max(largest, std::fabs(a.GetPointUnsafe(x, y) - b.GetPointUnsafe(x, y)));
    return largest;
}

float MaxAbsError(const std::vector<float>& a, const std::vector<float>& b)
{
    float largest = 0.0f;
    for (size_t i = 0; i < a.size(); ++i)
        largest = std::max(largest, std::fabs(a[i] - b[i]));
    return largest;
}

Bytes StreamBytes(const CSSEMatrix& m)
{
    RbStreamWriteBinaryBuffer out;
    m.Serialize(out);
    return out.GetBytes();
}

void ReadStream(CSSEMatrix& m, const Bytes& bytes)
{
    RbStreamReadBinaryBuffer in(bytes.data(), bytes.size());
    m.Serialize(in);
}

// Bilinear sample at (u, v), 0 <= u <= width - 1, 0 <= v <= height - 1.
double Bilinear(const NpyGrid& g, double u, double v)
{
    const int x0 = std::min(static_cast<int>(u), g.width - 2);
    const int y0 = std::min(static_cast<int>(v), g.height - 2);
    const double fx = u - x0, fy = v - y0;
    const double top = g.at(x0, y0) + (g.at(x0 + 1, y0) - g.at(x0, y0)) * fx;
    const double bottom = g.at(x0, y0 + 1) + (g.at(x0 + 1, y0 + 1) - g.at(x0, y0 + 1)) * fx;
    return top + (bottom - top) * fy;
}

// t reflected into [0, n] (period 2n): mirrored copies of a grid join without a step.
double Fold(double t, double n)
{
    t = std::fmod(t, 2.0 * n);
    if (t < 0.0)
        t += 2.0 * n;
    return t > n ? 2.0 * n - t : t;
}

constexpr int kSurfaceSize = 4096;

// The 4096 x 4096 surface: the DEM at twice its resolution, mirrored at its edges to cover
// the area, on a regional trend from the topobathy grid. Pixel (x, y) is
//   DEM(Fold(u, W - 1), Fold(v, H - 1)) + 0.05 * TOPO(x * (w - 1) / 4095, y * (h - 1) / 4095)
//   u = x / 2 + 9 sin(2 pi x / 1187) + 5 sin(2 pi y / 1451)
//   v = y / 2 + 9 sin(2 pi y / 1061) + 5 sin(2 pi x / 1327)
// (W x H the DEM, w x h the topobathy grid, both sampled bilinearly). The gentle warp,
// incommensurate with the mirror period, and the trend keep tiles from repeating exactly,
// so no codec can profit from copies that real ground does not have (measured: without
// them the entry sizes moved by less than 7 %, LERC's by less than 2 %).
CSSEMatrix SurfaceFromGrids()
{
    const NpyGrid& dem = Jacksboro();
    const NpyGrid& topo = Topobathy();
    const double twoPi = 2.0 * std::numbers::pi;
    std::vector<double> ux(kSurfaceSize), uy(kSurfaceSize), vx(kSurfaceSize), vy(kSurfaceSize);
    for (int i = 0; i < kSurfaceSize; ++i) {
        ux[static_cast<size_t>(i)] = 0.5 * i + 9.0 * std::sin(twoPi * i / 1187.0);
        uy[static_cast<size_t>(i)] = 5.0 * std::sin(twoPi * i / 1451.0);
        vy[static_cast<size_t>(i)] = 0.5 * i + 9.0 * std::sin(twoPi * i / 1061.0);
        vx[static_cast<size_t>(i)] = 5.0 * std::sin(twoPi * i / 1327.0);
    }
    const double tx = (topo.width - 1) / double(kSurfaceSize - 1);
    const double ty = (topo.height - 1) / double(kSurfaceSize - 1);
    return MatrixOf(kSurfaceSize, kSurfaceSize, [&](int x, int y) {
        const size_t i = static_cast<size_t>(x), j = static_cast<size_t>(y);
        const double u = Fold(ux[i] + uy[j], dem.width - 1);
        const double v = Fold(vy[j] + vx[i], dem.height - 1);
        return static_cast<float>(Bilinear(dem, u, v) + 0.05 * Bilinear(topo, x * tx, y * ty));
    });
}

// --- the grids and their two-level versions ---------------------------------------------------

struct Dataset {
    CSSEMatrix matrix;
    std::vector<float> plain;   // the same values row-major, for LERC
    // Above the median 1.0, else 0.0, the invalid value: a mask for the CCITT method.
    CSSEMatrix twoLevel;
    std::vector<float> twoLevelPlain;
    CSSEMatrix decoded;                 // our decoder's target
    std::vector<float> lercDecoded;     // LERC's
    size_t InputBytes() const { return plain.size() * sizeof(float); }
};

enum DatasetId { kJacksboro, kTopobathy, kSurface, kDatasetCount };

std::unique_ptr<Dataset> BuildDataset(DatasetId id)
{
    auto d = std::make_unique<Dataset>();
    if (id == kSurface) {
        d->matrix = SurfaceFromGrids();
    } else {
        const NpyGrid& g = id == kJacksboro ? Jacksboro() : Topobathy();
        d->matrix = MatrixOf(g.width, g.height, [&](int x, int y) { return g.at(x, y); });
    }
    d->plain = RowMajor(d->matrix);
    std::vector<float> sorted = d->plain;
    std::nth_element(sorted.begin(), sorted.begin() + static_cast<std::ptrdiff_t>(sorted.size() / 2), sorted.end());
    const float median = sorted[sorted.size() / 2];
    d->twoLevel = MatrixOf(d->matrix.GetSizeX(), d->matrix.GetSizeY(),
                           [&](int x, int y) { return d->matrix.GetPointUnsafe(x, y) > median ? 1.0f : 0.0f; });
    d->twoLevelPlain = RowMajor(d->twoLevel);
    d->decoded.Create(d->matrix.GetSizeX(), d->matrix.GetSizeY());
    d->lercDecoded.resize(d->plain.size());
    return d;
}

Dataset& GetDataset(DatasetId id)
{
    static std::unique_ptr<Dataset> datasets[kDatasetCount];
    if (!datasets[id])
        datasets[id] = BuildDataset(id);
    return *datasets[id];
}

// --- settings ------------------------------------------------------------------------------

struct Setting {
    const char* name;
    int method;
    unsigned int passes;
    float jpegQuality;
    float maxAbsError;
    bool twoLevel;
};

const Setting kSettings[] = {
    {"jpeg.q95.1pass", 1, 1, 0.95f, 0.0f, false},
    {"jpeg.q95.2pass", 1, 2, 0.95f, 0.0f, false},
    {"png.1pass", 2, 1, 0.95f, 0.0f, false},
    {"png.2pass.e0.5", 2, 2, 0.95f, 0.5f, false},
    {"png.2pass.e0.05", 2, 2, 0.95f, 0.05f, false},
    {"png+jpeg.q95.2pass", 3, 2, 0.95f, 0.0f, false},
    {"ccitt.twolevel", 4, 1, 0.95f, 0.0f, true},
};
constexpr int kSettingCount = static_cast<int>(std::size(kSettings));

// The matrix a setting codes, carrying the setting's parameters.
CSSEMatrix& Source(Dataset& d, const Setting& s)
{
    CSSEMatrix& m = s.twoLevel ? d.twoLevel : d.matrix;
    MatrixParameters p;
    p.m_eMethod = s.method;
    p.m_uiNumberOfPasses = s.passes;
    p.m_fJPEGQuality = s.jpegQuality;
    p.m_fMaxAbsError = s.maxAbsError;
    p.m_bUseInvalidValue = s.twoLevel;
    p.m_fInvalidValue = 0.0f;
    m.SetCompressionParameters(p);
    return m;
}

const std::vector<float>& SourcePlain(const Dataset& d, const Setting& s)
{
    return s.twoLevel ? d.twoLevelPlain : d.plain;
}

#if defined(QZSSE_BENCH_WITH_LERC)
constexpr unsigned int kLercFloat = 6;

Bytes LercEncode(const std::vector<float>& plain, int width, int height, double maxZErr)
{
    unsigned int capacity = 0;
    if (lerc_computeCompressedSize(plain.data(), kLercFloat, 1, width, height, 1, 0, nullptr, maxZErr, &capacity) != 0)
        return {};
    Bytes blob(capacity);
    unsigned int written = 0;
    if (lerc_encode(plain.data(), kLercFloat, 1, width, height, 1, 0, nullptr, maxZErr, blob.data(), capacity,
                    &written) != 0)
        return {};
    blob.resize(written);
    return blob;
}

bool LercDecode(const Bytes& blob, int width, int height, std::vector<float>& out)
{
    return lerc_decode(blob.data(), static_cast<unsigned int>(blob.size()), 0, nullptr, 1, width, height, 1,
                       kLercFloat, out.data())
           == 0;
}
#endif

// One setting coded once, outside the timed loops: the entry, the error a reader sees, and
// LERC's blob for that error.
struct Coded {
    Bytes entry;
    float error = 0.0f;           // measured on the decoded matrix
    float reportedError = 0.0f;   // GetMaxAbsCompressionError after writing
    Bytes lerc;
    float lercError = 0.0f;       // measured on LERC's decoded floats
    bool lercOk = false;
};

const Coded& GetCoded(DatasetId id, int setting)
{
    static std::map<std::pair<int, int>, Coded> cache;
    const auto key = std::make_pair(static_cast<int>(id), setting);
    if (auto it = cache.find(key); it != cache.end())
        return it->second;
    Dataset& d = GetDataset(id);
    const Setting& s = kSettings[setting];
    const CSSEMatrix& source = Source(d, s);
    Coded c;
    RbStreamWriteBinaryBuffer out;
    source.Serialize(out);
    c.entry = out.GetBytes();
    c.reportedError = source.GetMaxAbsCompressionError();
    ReadStream(d.decoded, c.entry);
    c.error = MaxAbsError(d.decoded, source);
#if defined(QZSSE_BENCH_WITH_LERC)
    const int w = source.GetSizeX(), h = source.GetSizeY();
    c.lerc = LercEncode(SourcePlain(d, s), w, h, c.error);
    c.lercOk = !c.lerc.empty() && LercDecode(c.lerc, w, h, d.lercDecoded);
    if (c.lercOk)
        c.lercError = MaxAbsError(d.lercDecoded, SourcePlain(d, s));
#endif
    return cache.emplace(key, std::move(c)).first->second;
}

void SetInput(benchmark::State& state, const Dataset& d)
{
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(d.InputBytes()));
}

void EntryCounters(benchmark::State& state, const Coded& c, bool withRatio)
{
    state.counters["bytes"] = static_cast<double>(c.entry.size());
    state.counters["max_err"] = c.error;
    if (withRatio && c.lercOk)
        state.counters["vs_lerc"] = static_cast<double>(c.entry.size()) / static_cast<double>(c.lerc.size());
}

void EncodeEntry(benchmark::State& state, DatasetId id, int setting)
{
    Dataset& d = GetDataset(id);
    const Coded& c = GetCoded(id, setting);
    const CSSEMatrix& source = Source(d, kSettings[setting]);
    for (auto _ : state) {
        RbStreamWriteBinaryBuffer out;
        source.Serialize(out);
        benchmark::DoNotOptimize(out.GetData());
    }
    SetInput(state, d);
    EntryCounters(state, c, true);
    if (c.reportedError != c.error)
        state.counters["reported_err"] = c.reportedError;
}

void DecodeEntry(benchmark::State& state, DatasetId id, int setting)
{
    Dataset& d = GetDataset(id);
    const Coded& c = GetCoded(id, setting);
    for (auto _ : state) {
        RbStreamReadBinaryBuffer in(c.entry.data(), c.entry.size());
        d.decoded.Serialize(in);
        benchmark::ClobberMemory();
    }
    SetInput(state, d);
    EntryCounters(state, c, false);
}

#if defined(QZSSE_BENCH_WITH_LERC)
void LercCounters(benchmark::State& state, const Coded& c)
{
    state.counters["bytes"] = static_cast<double>(c.lerc.size());
    state.counters["max_err"] = c.lercError;
}

void EncodeLerc(benchmark::State& state, DatasetId id, int setting)
{
    Dataset& d = GetDataset(id);
    const Coded& c = GetCoded(id, setting);
    if (!c.lercOk) {
        state.SkipWithError("lerc_encode or lerc_decode failed");
        return;
    }
    const std::vector<float>& plain = SourcePlain(d, kSettings[setting]);
    const int w = d.matrix.GetSizeX(), h = d.matrix.GetSizeY();
    // The caller's buffer, sized once as a caller would (lerc_computeCompressedSize).
    unsigned int capacity = 0;
    lerc_computeCompressedSize(plain.data(), kLercFloat, 1, w, h, 1, 0, nullptr, c.error, &capacity);
    Bytes blob(capacity);
    for (auto _ : state) {
        unsigned int written = 0;
        const lerc_status status = lerc_encode(plain.data(), kLercFloat, 1, w, h, 1, 0, nullptr, c.error,
                                               blob.data(), capacity, &written);
        benchmark::DoNotOptimize(status);
        benchmark::DoNotOptimize(blob.data());
    }
    SetInput(state, d);
    LercCounters(state, c);
}

void DecodeLerc(benchmark::State& state, DatasetId id, int setting)
{
    Dataset& d = GetDataset(id);
    const Coded& c = GetCoded(id, setting);
    if (!c.lercOk) {
        state.SkipWithError("lerc_encode or lerc_decode failed");
        return;
    }
    const int w = d.matrix.GetSizeX(), h = d.matrix.GetSizeY();
    for (auto _ : state) {
        benchmark::DoNotOptimize(LercDecode(c.lerc, w, h, d.lercDecoded));
        benchmark::ClobberMemory();
    }
    SetInput(state, d);
    LercCounters(state, c);
}
#endif

// --- difference modes ----------------------------------------------------------------------

class DifferenceCoder : public QzCSSEMatrixLibrary {
public:
    using QzCSSEMatrixLibrary::serializeMatrix;
};

float Bump(float distance, float radius) // 1 at the centre, 0 from radius on, smooth between
{
    return distance >= radius ? 0.0f : 0.5f * (1.0f + std::cos(std::numbers::pi_v<float> * distance / radius));
}

// A mound raised on a slope and a steep-walled pit: small, local changes (mode 1).
CSSEMatrix LocalChange(const NpyGrid& g)
{
    return MatrixOf(g.width, g.height, [&](int x, int y) {
        const float mound = 12.0f * Bump(std::hypot(x - 120.0f, y - 200.0f), 30.0f);
        const float pit = std::hypot(x - 300.0f, y - 80.0f) < 15.0f ? -6.0f : 0.0f;
        return g.at(x, y) + mound + pit;
    });
}

// A landslide: a wide, smoothly varying drop inside a sharp outline over about a third of
// the area, its surface roughened by up to `noise` (mode 2).
CSSEMatrix WideChange(const NpyGrid& g, float noise)
{
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> jitter(-noise, noise);
    return MatrixOf(g.width, g.height, [&](int x, int y) {
        const float u = (x - 200.0f) / 150.0f;
        const float v = (y - 170.0f) / 110.0f;
        if (u * u + v * v > 1.0f)
            return g.at(x, y);
        return g.at(x, y) - (8.0f + 4.0f * std::sin(x / 40.0f) * std::cos(y / 50.0f)) + jitter(rng);
    });
}

// A re-survey: the whole surface warped and tilted a little, with measurement noise
// (mode 3).
CSSEMatrix Resurvey(const NpyGrid& g, float noise)
{
    std::mt19937 rng(7);
    std::uniform_real_distribution<float> jitter(-noise, noise);
    const float pi = std::numbers::pi_v<float>;
    return MatrixOf(g.width, g.height, [&](int x, int y) {
        const float warp = 3.0f * std::sin(2.0f * pi * x / g.width) * std::cos(2.0f * pi * y / g.height);
        return g.at(x, y) + warp + 0.002f * x + jitter(rng);
    });
}

// The grid averaged over 4 x 4 blocks: a coarser survey of the same ground.
CSSEMatrix Coarser(const NpyGrid& g)
{
    return MatrixOf(g.width, g.height, [&](int x, int y) {
        const int x0 = x / 4 * 4, y0 = y / 4 * 4;
        float sum = 0.0f;
        int n = 0;
        for (int yy = y0; yy < std::min(y0 + 4, g.height); ++yy)
            for (int xx = x0; xx < std::min(x0 + 4, g.width); ++xx, ++n)
                sum += g.at(xx, yy);
        return sum / static_cast<float>(n);
    });
}

CSSEMatrix Grid(const NpyGrid& g)
{
    return MatrixOf(g.width, g.height, [&](int x, int y) { return g.at(x, y); });
}

LibraryParameters PngEntry(float bound, unsigned int passes)
{
    LibraryParameters p;
    p.m_eMethod = 2;
    p.m_fMaxAbsError = bound;
    p.m_uiNumberOfPasses = passes;
    return p;
}

// m as a store reader gets it back when stored with params.
CSSEMatrix AsStored(const CSSEMatrix& m, const MatrixParameters& params)
{
    CSSEMatrix coded(m);
    coded.SetCompressionParameters(params);
    CSSEMatrix decoded;
    ReadStream(decoded, StreamBytes(coded));
    return decoded;
}

struct DifferenceCase {
    const char* name;
    CSSEMatrix matrix;
    CSSEMatrix reference;   // as the store holds it
    float bound;
};

const char* const kCaseNames[] = {"local.ref0.5", "landslide.ref0.1", "resurvey.ref0.1", "resurvey.ref0.5",
                                  "topobathy.vs.4x4means"};
constexpr int kCaseCount = static_cast<int>(std::size(kCaseNames));

// The changes each mode is meant for, on the DEM, against the original stored finely (0.1)
// or at the entry's own bound (0.5); and the topobathy grid against its 4 x 4 means.
const DifferenceCase& GetCase(int i)
{
    static std::unique_ptr<DifferenceCase> cases[kCaseCount];
    if (!cases[i]) {
        const NpyGrid& g = Jacksboro();
        const CSSEMatrix original = Grid(g);
        auto c = std::make_unique<DifferenceCase>();
        c->name = kCaseNames[i];
        c->bound = 0.5f;
        switch (i) {
        case 0: c->matrix = LocalChange(g); c->reference = AsStored(original, PngEntry(0.5f, 2)); break;
        case 1: c->matrix = WideChange(g, 0.3f); c->reference = AsStored(original, PngEntry(0.1f, 2)); break;
        case 2: c->matrix = Resurvey(g, 0.3f); c->reference = AsStored(original, PngEntry(0.1f, 2)); break;
        case 3: c->matrix = Resurvey(g, 0.3f); c->reference = AsStored(original, PngEntry(0.5f, 2)); break;
        default:
            c->matrix = Grid(Topobathy());
            c->reference = Coarser(Topobathy());
            c->bound = 5.0f;
            break;
        }
        cases[i] = std::move(c);
    }
    return *cases[i];
}

struct DifferenceCoded {
    LibraryParameters params;
    size_t bytes = 0;
    float error = 0.0f;        // measured on what a reader reconstructs
    size_t plainBytes = 0;     // the matrix as an entry without reference (PNG)
    size_t lercBytes = 0;      // the matrix alone in LERC at the same bound
    bool ok = false;
};

// Mode 0 and the plain entry take the smallest pass count that meets the bound, which
// modes 1-3 find for themselves.
const DifferenceCoded& GetDifferenceCoded(int caseIndex, int mode)
{
    static std::map<std::pair<int, int>, DifferenceCoded> cache;
    const auto key = std::make_pair(caseIndex, mode);
    if (auto it = cache.find(key); it != cache.end())
        return it->second;
    const DifferenceCase& dc = GetCase(caseIndex);
    DifferenceCoded r;
    DifferenceCoder coder;
    for (unsigned int passes = 1; passes <= 3; ++passes) {
        r.params = PngEntry(dc.bound, passes);
        r.params.m_iDifferenceCodingMode = mode;
        RbStreamWriteBinaryBuffer out;
        float reported = 0.0f;
        r.ok = coder.serializeMatrix(out, dc.matrix, dc.reference, r.params, reported);
        if (!r.ok)
            break;
        RbStreamReadBinaryBuffer in(out.GetData(), out.GetSize());
        CSSEMatrix decoded;
        r.ok = coder.serializeMatrix(in, decoded, dc.reference);
        r.bytes = out.GetSize();
        r.error = MaxAbsError(decoded, dc.matrix);
        if (mode != 0 || r.error <= dc.bound)
            break;
    }
    for (unsigned int passes = 1; passes <= 3; ++passes) {
        CSSEMatrix plain(dc.matrix);
        plain.SetCompressionParameters(PngEntry(dc.bound, passes));
        const Bytes bytes = StreamBytes(plain);
        r.plainBytes = bytes.size();
        CSSEMatrix decoded;
        ReadStream(decoded, bytes);
        if (MaxAbsError(decoded, dc.matrix) <= dc.bound)
            break;
    }
#if defined(QZSSE_BENCH_WITH_LERC)
    r.lercBytes = LercEncode(RowMajor(dc.matrix), dc.matrix.GetSizeX(), dc.matrix.GetSizeY(), dc.bound).size();
#endif
    return cache.emplace(key, std::move(r)).first->second;
}

void EncodeDifference(benchmark::State& state, int caseIndex, int mode)
{
    const DifferenceCase& dc = GetCase(caseIndex);
    const DifferenceCoded& coded = GetDifferenceCoded(caseIndex, mode);
    if (!coded.ok) {
        state.SkipWithError("the difference coder refused the case");
        return;
    }
    DifferenceCoder coder;
    for (auto _ : state) {
        RbStreamWriteBinaryBuffer out;
        float error = 0.0f;
        benchmark::DoNotOptimize(coder.serializeMatrix(out, dc.matrix, dc.reference, coded.params, error));
        benchmark::DoNotOptimize(out.GetData());
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations()) * dc.matrix.GetSizeX() * dc.matrix.GetSizeY()
                            * static_cast<int64_t>(sizeof(float)));
    state.counters["bytes"] = static_cast<double>(coded.bytes);
    state.counters["max_err"] = coded.error;
    if (mode == 0)
        state.counters["passes"] = coded.params.m_uiNumberOfPasses;
    state.counters["plain_bytes"] = static_cast<double>(coded.plainBytes);
    if (coded.lercBytes > 0)
        state.counters["lerc_bytes"] = static_cast<double>(coded.lercBytes);
}

// The writer as it was, decoding every PNG pass back, beside the one that reuses its codes.
void EncodeEntryDecodingPasses(benchmark::State& state, DatasetId id, int setting)
{
    qzsse::detail::g_bDirectPassDecoding = true;
    EncodeEntry(state, id, setting);
    qzsse::detail::g_bDirectPassDecoding = false;
}

// Registered at start-up in this order, so each peer runs right beside our coder on the
// same input; the data are built on first use, so a filter skips what it does not run.
int RegisterAll()
{
    const DatasetId order[] = {kJacksboro, kTopobathy, kSurface};
    const char* const datasetNames[] = {"jacksboro_403x344", "topobathy_120x91", "surface_4096x4096"};
    for (DatasetId id : order)
        for (int s = 0; s < kSettingCount; ++s) {
            const std::string stem = std::string(kSettings[s].name) + "/" + datasetNames[id] + "/";
            const auto unit = benchmark::kMillisecond;
            benchmark::RegisterBenchmark(("Encode/" + stem + "qzsse").c_str(), EncodeEntry, id, s)->Unit(unit);
            if ((kSettings[s].method == 2 || kSettings[s].method == 3) && kSettings[s].passes > 1)
                benchmark::RegisterBenchmark(("Encode/" + stem + "qzsse.decodingpasses").c_str(),
                                             EncodeEntryDecodingPasses, id, s)
                    ->Unit(unit);
#if defined(QZSSE_BENCH_WITH_LERC)
            benchmark::RegisterBenchmark(("Encode/" + stem + "lerc").c_str(), EncodeLerc, id, s)->Unit(unit);
#endif
            benchmark::RegisterBenchmark(("Decode/" + stem + "qzsse").c_str(), DecodeEntry, id, s)->Unit(unit);
#if defined(QZSSE_BENCH_WITH_LERC)
            benchmark::RegisterBenchmark(("Decode/" + stem + "lerc").c_str(), DecodeLerc, id, s)->Unit(unit);
#endif
        }
    for (int c = 0; c < kCaseCount; ++c)
        for (int mode = 0; mode <= 3; ++mode)
            benchmark::RegisterBenchmark(
                ("DifferenceEncode/" + std::string(kCaseNames[c]) + "/mode" + std::to_string(mode)).c_str(),
                EncodeDifference, c, mode)
                ->Unit(benchmark::kMillisecond);
    return 0;
}

[[maybe_unused]] const int registered = RegisterAll();

} // namespace

// --- encode with a thread pool (opt-in) -------------------------------------------------------

#include "qzsse/base/RbThreadPool.h"

namespace {

// Serialize(stream, pool) with a pool of `threads` workers, timed on the wall clock; the
// entry is the same as the caller's thread alone writes.
void EncodeEntryWithPool(benchmark::State& state, DatasetId id, int setting, int threads)
{
    Dataset& d = GetDataset(id);
    const Coded& c = GetCoded(id, setting);
    const CSSEMatrix& source = Source(d, kSettings[setting]);
    RbThreadPool pool(threads);
    for (auto _ : state) {
        RbStreamWriteBinaryBuffer out;
        source.Serialize(out, &pool);
        benchmark::DoNotOptimize(out.GetData());
    }
    SetInput(state, d);
    EntryCounters(state, c, true);
}

int RegisterPoolEncodes()
{
    const DatasetId order[] = {kJacksboro, kTopobathy, kSurface};
    const char* const datasetNames[] = {"jacksboro_403x344", "topobathy_120x91", "surface_4096x4096"};
    for (DatasetId id : order)
        for (int s = 0; s < kSettingCount; ++s)
            if (kSettings[s].method == 2 || kSettings[s].method == 3)
                benchmark::RegisterBenchmark(("EncodePool/" + std::string(kSettings[s].name) + "/" + datasetNames[id]
                                              + "/qzsse.pool2")
                                                 .c_str(),
                                             EncodeEntryWithPool, id, s, 2)
                    ->Unit(benchmark::kMillisecond)
                    ->UseRealTime();
    return 0;
}

[[maybe_unused]] const int poolRegistered = RegisterPoolEncodes();

} // namespace
