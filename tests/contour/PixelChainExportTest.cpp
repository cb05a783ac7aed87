#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "qzsse/contour/CPixelChain.h"

namespace {

std::string readAll(const std::filesystem::path& path)
{
    std::ifstream in(path, std::ios::binary);
    std::ostringstream out;
    out << in.rdbuf();
    return out.str();
}

// Points the export at a fresh directory and restores the previous one afterwards.
class PixelChainExport : public ::testing::Test {
protected:
    void SetUp() override
    {
        m_previous = CPixelChain::GetExportDirectory();
        m_dir = std::filesystem::temp_directory_path() /
                ("qzsse_pixelchain_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) + "_" +
                 ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(m_dir);
        std::filesystem::create_directories(m_dir);
        CPixelChain::SetExportDirectory(m_dir.string() + "/");
    }
    void TearDown() override
    {
        CPixelChain::SetExportDirectory(m_previous);
        std::filesystem::remove_all(m_dir);
    }
    std::string m_previous;
    std::filesystem::path m_dir;
};

} // namespace

TEST_F(PixelChainExport, WritesTabSeparatedLinesWithDecimalComma)
{
    CPixelChain chain;
    chain.AddPoint(1, 2, 1.5f);
    chain.AddPoint(-3, 4, -0.25f);
    chain.AddPoint(5, 6, 1234.5678f);
    chain.ExportPixelChain("chain");
    EXPECT_EQ(readAll(m_dir / "chain.txt"), "Length: 3\n"
                                            "Index\tXPos\tYPos\tValue\n"
                                            "0\t1\t2\t1,500\n"
                                            "1\t-3\t4\t-0,250\n"
                                            "2\t5\t6\t1234,568\n");

    // A second export of the same name replaces the file.
    chain.RemovePoints();
    chain.ExportPixelChain("chain");
    EXPECT_EQ(readAll(m_dir / "chain.txt"), "Length: 0\nIndex\tXPos\tYPos\tValue\n");
}

TEST_F(PixelChainExport, MissingDirectoryIsSkippedQuietly)
{
    EXPECT_EQ(m_previous, "Export/PixelChain/");
    CPixelChain::SetExportDirectory((m_dir / "absent").string() + "/");
    CPixelChain chain;
    chain.AddPoint(1, 1, 1.0f);
    chain.ExportPixelChain("chain");
    EXPECT_FALSE(std::filesystem::exists(m_dir / "absent"));
    EXPECT_TRUE(std::filesystem::is_empty(m_dir));
}
