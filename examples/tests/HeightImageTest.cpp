// The shared height-image reader on TIFFs of every sample type and layout, written here
// with libtiff: values come back as the grid that was written, no-data as the lowest
// valid height.

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <unistd.h>
#include <vector>

#include "support/HeightImage.h"
#include "support/HeightTiffWriter.h"
#include "tests/TestFiles.h"

namespace {

namespace fs = std::filesystem;
using qzsse::support::HeightTiffLayout;

class HeightTiffTest : public ::testing::Test {
protected:
    void SetUp() override { fs::create_directories(m_dir); }
    void TearDown() override { fs::remove_all(m_dir); }
    fs::path File(const std::string& name) const { return m_dir / name; }

private:
    fs::path m_dir = fs::temp_directory_path() / ("qzsse_height_" + std::to_string(::getpid()));
};

constexpr uint32_t kWidth = 21;
constexpr uint32_t kHeight = 18;

// Heights that fit every sample type tested, with fractions only where floats hold them.
std::vector<double> Grid(bool fractions, double noData, int noDataCount)
{
    std::vector<double> v(kWidth * kHeight);
    for (uint32_t y = 0; y < kHeight; ++y)
        for (uint32_t x = 0; x < kWidth; ++x)
            v[y * kWidth + x] = 3.0 * x + 2.0 * y + 7.0 + (fractions ? 0.25 * (x % 3) : 0.0);
    for (int k = 0; k < noDataCount; ++k)
        v[static_cast<size_t>(37 * k + 5) % v.size()] = noData;
    return v;
}

TEST_F(HeightTiffTest, EverySampleTypeAndLayoutReadsTheWrittenGridWithNoDataAsTheLowestHeight)
{
    struct Case {
        const char* name;
        HeightTiffLayout layout;
        bool fractions;
        double noDataValue;   // written into noDataCount pixels
        int noDataCount;
        const char* format;
    };
    const Case cases[] = {
        {"int16-lzw-nodata", {SAMPLEFORMAT_INT, 16, COMPRESSION_LZW, 0, 5, "-32768"}, false, -32768, 6, "16-bit signed integer TIFF"},
        {"float64-tiled", {SAMPLEFORMAT_IEEEFP, 64, COMPRESSION_ADOBE_DEFLATE, 16, 0, ""}, true, 0, 0, "64-bit float TIFF"},
        {"uint8", {SAMPLEFORMAT_UINT, 8, COMPRESSION_NONE, 0, 4, ""}, false, 0, 0, "8-bit unsigned integer TIFF"},
        {"uint8-nodata", {SAMPLEFORMAT_UINT, 8, COMPRESSION_PACKBITS, 0, 18, "255"}, false, 255, 3, "8-bit unsigned integer TIFF"},
        {"uint16-tiled", {SAMPLEFORMAT_UINT, 16, COMPRESSION_LZW, 16, 0, "  0 "}, false, 0, 0, "16-bit unsigned integer TIFF"},
        {"int32-nodata", {SAMPLEFORMAT_INT, 32, COMPRESSION_ADOBE_DEFLATE, 0, 7, "-9999"}, false, -9999, 4, "32-bit signed integer TIFF"},
        {"float32-nodata", {SAMPLEFORMAT_IEEEFP, 32, COMPRESSION_NONE, 0, 7, "-3.4e38"}, true, -3.4e38, 2, "32-bit float TIFF"},
        {"int8-text-nodata", {SAMPLEFORMAT_INT, 8, COMPRESSION_NONE, 0, 7, "none"}, false, 0, 0, "8-bit signed integer TIFF"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::vector<double> grid = Grid(c.fractions, c.noDataValue, c.noDataCount);
        qzsse::support::WriteHeightTiff(File("h.tif"), kWidth, kHeight, grid, c.layout);
        const qzsse::support::HeightImage image = qzsse::support::LoadHeightImage(File("h.tif"));
        ASSERT_EQ(image.width, static_cast<int>(kWidth));
        ASSERT_EQ(image.height, static_cast<int>(kHeight));
        EXPECT_EQ(image.format, c.format);
        EXPECT_EQ(image.replacedNoData, c.noDataCount);
        const double lowest = Grid(c.fractions, 0, 0)[0];   // the corner is the lowest valid height
        for (size_t i = 0; i < grid.size(); ++i) {
            const bool noData = c.noDataCount > 0 && grid[i] == c.noDataValue;
            EXPECT_EQ(image.values[i], static_cast<float>(noData ? lowest : grid[i])) << "pixel " << i;
        }
    }
}

TEST_F(HeightTiffTest, UnsupportedSamplesAndDamagedFilesAreRefusedWithTheirReason)
{
    struct Case {
        const char* name;
        HeightTiffLayout layout;
        uint32_t width;
        std::uintmax_t keepBytes;   // 0: the whole file
        const char* message;
    };
    const Case cases[] = {
        {"float16", {SAMPLEFORMAT_IEEEFP, 16, COMPRESSION_NONE, 0, 4, ""}, kWidth, 0, "one sample per pixel"},
        {"int64", {SAMPLEFORMAT_INT, 64, COMPRESSION_NONE, 0, 4, ""}, kWidth, 0, "one sample per pixel"},
        {"narrow", {SAMPLEFORMAT_INT, 16, COMPRESSION_NONE, 0, 4, ""}, 15, 0, "between 16 and 8192"},
        {"truncated", {SAMPLEFORMAT_INT, 16, COMPRESSION_NONE, 0, 4, ""}, kWidth, 300, "TIFF"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        qzsse::support::WriteHeightTiff(File("bad.tif"), c.width, kHeight, std::vector<double>(c.width * kHeight, 1.0),
                                        c.layout);
        if (c.keepBytes)
            demotest::Truncate(File("bad.tif"), c.keepBytes);
        try {
            qzsse::support::LoadHeightImage(File("bad.tif"));
            ADD_FAILURE() << "read without error";
        } catch (const qzsse::support::InputError& e) {
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
}

} // namespace
