// Runs the built demo as a user would and checks what it prints and writes.

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <sstream>
#include <string>

#include <unistd.h>

#include "qzsse/matrix/CSSEMatrix.h"
#include "qzsse/storage/QzCSSEMatrixLibrary.h"
#include "support/NpyReader.h"
#include "tests/TestFiles.h"

namespace {

using namespace demotest;

std::string quoted(const std::string& s)
{
    std::string q = "'";
    for (const char c : s)
        q += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return q + "'";
}

std::string slurp(const fs::path& path)
{
    std::ifstream in(path);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

struct DemoRun {
    int exitCode = -1;
    std::string out;
    std::string err;
};

// A scratch folder per test; the demo writes into its "out" subfolder.
class DemoTest : public ::testing::Test {
protected:
    void SetUp() override
    {
        std::string pattern = (fs::temp_directory_path() / "qzsse_demo_test_XXXXXX").string();
        ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
        m_dir = pattern;
    }
    void TearDown() override { fs::remove_all(m_dir); }

    fs::path Out() const { return m_dir / "out"; }
    fs::path File(const std::string& name) const { return m_dir / name; }

    DemoRun RunDemo(const std::string& arguments) const
    {
        const std::string command = quoted(QZSSE_DEMO_PROGRAM) + " " + arguments + " --out " + quoted(Out().string())
                                    + " >" + quoted(File("stdout.txt").string()) + " 2>"
                                    + quoted(File("stderr.txt").string());
        const int status = std::system(command.c_str());
        DemoRun run;
        run.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        run.out = slurp(File("stdout.txt"));
        run.err = slurp(File("stderr.txt"));
        return run;
    }

    fs::path m_dir;
};

// The number printed right after the first `anchor` (after `after`, if given), or NaN.
double printed(const std::string& out, const std::string& anchor, const std::string& after = "")
{
    size_t at = after.empty() ? 0 : out.find(after);
    if (at != std::string::npos)
        at = out.find(anchor, at);
    if (at == std::string::npos)
        return std::nan("");
    const char* start = out.c_str() + at + anchor.size();
    char* end = nullptr;
    const double value = std::strtod(start, &end);
    return end == start ? std::nan("") : value;
}

// Whether some output line starts with "<step> " and ends with its time "(... ms)".
bool hasStepLine(const std::string& out, int step)
{
    std::istringstream lines(out);
    std::string line;
    const std::string head = std::to_string(step) + " ";
    while (std::getline(lines, line))
        if (line.rfind(head, 0) == 0 && line.size() > 4 && line.compare(line.size() - 4, 4, " ms)") == 0)
            return true;
    return false;
}

int expectedZoom(int w, int h)
{
    // Enlarged so the larger side reaches 600 picture pixels, at most eightfold.
    int zoom = 1;
    while (zoom < 8 && zoom * std::max(w, h) < 600)
        ++zoom;
    return zoom;
}

// What every successful run must leave: all outputs complete, no temporary names, PNGs of
// the input's size times the zoom, and a mesh whose vertices sit on the input's heights.
void expectCompleteOutputs(const fs::path& out, const DemoRun& run, const Grid& heights)
{
    for (const char* name : {"heights.png", "contour.png", "mask.png", "envelope.png", "delaunay.png"}) {
        const int zoom = expectedZoom(heights.width, heights.height);
        EXPECT_EQ(DecodePngSize(out / name), std::make_pair(heights.width * zoom, heights.height * zoom)) << name;
    }
    for (const auto& entry : fs::directory_iterator(out))
        EXPECT_NE(entry.path().filename().string()[0], '.') << "left behind: " << entry.path();

    const PlyMesh mesh = ReadPly(out / "mesh.ply");
    ASSERT_EQ(mesh.error, "");
    EXPECT_EQ(static_cast<double>(mesh.corners.size() / 3), printed(run.out, ": ", "scan-converted step"));
    int offGrid = 0;
    for (size_t v = 0; v < mesh.xyz.size(); v += 3) {
        const float x = mesh.xyz[v], y = mesh.xyz[v + 1], z = mesh.xyz[v + 2];
        const bool onPixel = x == std::floor(x) && y == std::floor(y) && x >= 0 && y >= 0 && x < static_cast<float>(heights.width)
                             && y < static_cast<float>(heights.height);
        offGrid += !onPixel || z != heights.at(static_cast<int>(x), static_cast<int>(y));
    }
    EXPECT_EQ(offGrid, 0) << "mesh vertices not on an input pixel with its height";
    // Faces of a height surface turn counter-clockwise seen from above (+z), so viewers
    // light their upper side.
    int clockwise = 0;
    for (size_t f = 0; f < mesh.corners.size(); f += 3) {
        const float* a = &mesh.xyz[3 * static_cast<size_t>(mesh.corners[f])];
        const float* b = &mesh.xyz[3 * static_cast<size_t>(mesh.corners[f + 1])];
        const float* c = &mesh.xyz[3 * static_cast<size_t>(mesh.corners[f + 2])];
        clockwise += (b[0] - a[0]) * (c[1] - a[1]) - (b[1] - a[1]) * (c[0] - a[0]) <= 0.0f;
    }
    EXPECT_EQ(clockwise, 0);
}

Grid rollingSurface(int w, int h, float base, float amplitude)
{
    Grid g{w, h, {}};
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            g.values.push_back(std::round(base + amplitude * std::sin(0.15f * static_cast<float>(x))
                                                     * std::cos(0.11f * static_cast<float>(y))
                                          + 0.4f * static_cast<float>(x)));
    return g;
}

TEST_F(DemoTest, RunsOnTheShippedSampleAndStoresWithinTheReportedError)
{
    const DemoRun run = RunDemo("");
    ASSERT_EQ(run.exitCode, 0) << run.err;
    for (int step = 1; step <= 6; ++step)
        EXPECT_TRUE(hasStepLine(run.out, step)) << "no line for step " << step;

    const qzsse::detail::NpyGrid sample = qzsse::detail::ReadNpy(QZSSE_DEMO_SAMPLE);
    const Grid heights{sample.width, sample.height, sample.values};
    expectCompleteOutputs(Out(), run, heights);

    // The store read back by a library of our own: the heights within the error the demo
    // reported, the mask exactly two-level with the pixel count it printed.
    const double reported = printed(run.out, "max error reported ");
    ASSERT_FALSE(std::isnan(reported));
    QzCSSEMatrixLibrary store;
    ASSERT_TRUE(store.Init((Out() / "matrices.store").string()));
    CSSEMatrix loaded;
    ASSERT_TRUE(store.LoadSSEMatrix("heights", loaded));
    ASSERT_EQ(loaded.GetSizeX(), heights.width);
    ASSERT_EQ(loaded.GetSizeY(), heights.height);
    double worst = 0;
    for (int y = 0; y < heights.height; ++y)
        for (int x = 0; x < heights.width; ++x)
            worst = std::max(worst, std::fabs(static_cast<double>(loaded.GetPoint(x, y)) - heights.at(x, y)));
    EXPECT_LE(worst, reported * (1 + 1e-5));
    EXPECT_GT(worst, 0.0);   // PNG passes with a bound are lossy on this range
    ASSERT_TRUE(store.LoadSSEMatrix("mask", loaded));
    int ones = 0, others = 0;
    for (int y = 0; y < loaded.GetSizeY(); ++y)
        for (int x = 0; x < loaded.GetSizeX(); ++x) {
            ones += loaded.GetPoint(x, y) == 1.0f;
            others += loaded.GetPoint(x, y) != 0.0f && loaded.GetPoint(x, y) != 1.0f;
        }
    EXPECT_EQ(others, 0);
    EXPECT_EQ(ones, printed(run.out, "polygon fill "));
    EXPECT_GT(ones, 1000);
}

TEST_F(DemoTest, ReadsEveryInputFormatOfAGeneratedSurface)
{
    const Grid surface = rollingSurface(64, 48, 120.0f, 40.0f);
    WriteNpy(File("f4.npy"), surface, "<f4", {48, 64});
    WriteNpy(File("i2.npy"), surface, "<i2", {48, 64});
    WriteNpy(File("f8.npy"), surface, "<f8", {48, 64});
    WritePngGrey(File("grey8.png"), surface, 8);
    WritePngGrey(File("grey16.PNG"), surface, 16);
    WriteTiffFloat(File("heights.tif"), surface);
    for (const char* name : {"f4.npy", "i2.npy", "f8.npy", "grey8.png", "grey16.PNG", "heights.tif"}) {
        SCOPED_TRACE(name);
        fs::remove_all(Out());
        const DemoRun run = RunDemo(quoted(File(name).string()));
        ASSERT_EQ(run.exitCode, 0) << run.err;
        expectCompleteOutputs(Out(), run, surface);
        // A small image is meshed at full resolution: two triangles per cell.
        EXPECT_EQ(printed(run.out, ": ", "scan-converted step"), 2.0 * 63 * 47);
        // The envelope is drawn in crosses over a cell's samples, so it stays within a
        // couple of pixel steps of the smooth input; a shifted origin would miss by far more.
        float steepest = 0;
        for (int y = 0; y + 1 < 48; ++y)
            for (int x = 0; x + 1 < 64; ++x)
                steepest = std::max({steepest, std::fabs(surface.at(x + 1, y) - surface.at(x, y)),
                                     std::fabs(surface.at(x, y + 1) - surface.at(x, y)),
                                     std::fabs(surface.at(x + 1, y + 1) - surface.at(x, y))});
        const double difference = printed(run.out, "largest difference ");
        EXPECT_LE(difference, 3.0 * steepest);
    }
}

TEST_F(DemoTest, RefusesBadInputWithAMessageAndWritesNothing)
{
    const Grid surface = rollingSurface(40, 30, 50.0f, 10.0f);
    WriteNpy(File("cube.npy"), surface, "<f4", {4, 30, 40});
    WriteNpy(File("line.npy"), surface, "<f4", {1200});
    WriteNpy(File("unsigned.npy"), surface, "<f4", {30, 40});
    {   // the same bytes, but an element type the demo does not read
        std::string bytes = slurp(File("unsigned.npy"));
        bytes.replace(bytes.find("<f4"), 3, "<u4");
        std::ofstream(File("unsigned.npy"), std::ios::binary) << bytes;
    }
    WriteNpy(File("short.npy"), surface, "<f4", {30, 40});
    Truncate(File("short.npy"), fs::file_size(File("short.npy")) - 100);
    WriteNpy(File("tiny.npy"), surface, "<f4", {8, 8});
    WritePngRgb(File("colour.png"), 40, 30);
    WritePngGrey(File("cut.png"), surface, 16);
    Truncate(File("cut.png"), fs::file_size(File("cut.png")) / 2);
    WriteTiffFloat(File("cut.tif"), surface);
    Truncate(File("cut.tif"), fs::file_size(File("cut.tif")) / 2);
    std::ofstream(File("notes.txt")) << "not a height image\n";
    std::ofstream(File("fake.png")) << "not a PNG at all\n";

    const std::pair<std::string, std::string> cases[] = {
        {quoted(File("missing.npy").string()), "no such file"},
        {quoted(File("notes.txt").string()), "extension"},
        {quoted(File("cube.npy").string()), "3-D"},
        {quoted(File("line.npy").string()), "1-D"},
        {quoted(File("unsigned.npy").string()), "element type"},
        {quoted(File("short.npy").string()), "truncated"},
        {quoted(File("tiny.npy").string()), "8 x 8"},
        {quoted(File("colour.png").string()), "colour"},
        {quoted(File("cut.png").string()), "truncated"},
        {quoted(File("fake.png").string()), "not a PNG"},
        {quoted(File("cut.tif").string()), "TIFF"},
        {"--frobnicate", "unknown option"},
        {"a.npy b.npy", "only one input"},
    };
    for (const auto& [arguments, message] : cases) {
        SCOPED_TRACE(arguments);
        const DemoRun run = RunDemo(arguments);
        EXPECT_EQ(run.exitCode, 2);
        EXPECT_NE(run.err.find(message), std::string::npos) << run.err;
        EXPECT_FALSE(fs::exists(Out())) << "output written for bad arguments";
        EXPECT_EQ(run.out, "");
    }
}

TEST_F(DemoTest, AFailedWriteLeavesNoPartialFile)
{
    // A folder where the mesh file should go makes its rename fail after it was written.
    WritePngGrey(File("small.png"), rollingSurface(32, 32, 100.0f, 30.0f), 8);
    fs::create_directories(Out() / "mesh.ply");
    const DemoRun run = RunDemo(quoted(File("small.png").string()));
    EXPECT_EQ(run.exitCode, 1);
    EXPECT_NE(run.err.find("mesh.ply"), std::string::npos) << run.err;
    for (const auto& entry : fs::directory_iterator(Out()))
        EXPECT_NE(entry.path().filename().string()[0], '.') << "left behind: " << entry.path();
    // What was finished before the failure is whole; nothing after it was written.
    EXPECT_EQ(DecodePngSize(Out() / "contour.png"), std::make_pair(32 * 8, 32 * 8));
    EXPECT_FALSE(fs::exists(Out() / "envelope.png"));
}

} // namespace
