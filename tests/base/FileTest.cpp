#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "base/TempFile.h"
#include "qzsse/base/CFile.h"

namespace {

using Bytes = std::vector<unsigned char>;

std::string ReadAll(CFile& file, unsigned count)
{
    std::string out(count, '\0');
    out.resize(file.Read(out.data(), count));
    return out;
}

} // namespace

TEST(File, OpenFailsWithoutThrowing)
{
    TempFile missing;
    CFile file;
    EXPECT_FALSE(file.Open(missing.Path(), CFile::modeRead));
    EXPECT_FALSE(file.Open(missing.Path(), CFile::modeWrite));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_FALSE(file.Open(missing.Path() + "/inside", CFile::modeCreate | CFile::modeWrite));
    const std::string directory = std::filesystem::temp_directory_path().string();
    EXPECT_FALSE(file.Open(directory, CFile::modeRead | CFile::shareDenyWrite | CFile::osRandomAccess));
    EXPECT_FALSE(file.IsOpen());
}

TEST(File, CreateTruncatesUnlessAskedNotTo)
{
    TempFile temp;
    temp.WriteBytes({'o', 'l', 'd', '!'});
    {
        CFile file;
        ASSERT_TRUE(file.Open(temp.Path(), CFile::modeCreate | CFile::modeNoTruncate | CFile::modeReadWrite));
        EXPECT_EQ(file.GetLength(), 4u);
        EXPECT_EQ(ReadAll(file, 10), "old!");
    }
    {
        CFile file;
        ASSERT_TRUE(file.Open(temp.Path(), CFile::modeCreate | CFile::modeWrite | CFile::shareExclusive));
        EXPECT_EQ(file.GetLength(), 0u);
        file.Write("new", 3);
        // Bytes not yet flushed count towards the length.
        EXPECT_EQ(file.GetLength(), 3u);
    }
    EXPECT_EQ(temp.ReadBytes(), (Bytes{'n', 'e', 'w'}));
}

TEST(File, ReadsShortAtTheEndAndSeeksFromEachOrigin)
{
    TempFile temp;
    temp.WriteBytes({'a', 'b', 'c', 'd', 'e', 'f'});
    CFile file;
    ASSERT_TRUE(file.Open(temp.Path(), CFile::modeRead));
    EXPECT_EQ(file.Seek(2, CFile::begin), 2u);
    EXPECT_EQ(file.Seek(1, CFile::current), 3u);
    EXPECT_EQ(ReadAll(file, 1), "d");
    EXPECT_EQ(file.Seek(-2, CFile::end), 4u);
    EXPECT_EQ(ReadAll(file, 5), "ef");
    EXPECT_EQ(ReadAll(file, 5), "");
    EXPECT_THROW(file.Seek(-1, CFile::begin), CFileException);
    EXPECT_THROW(file.Seek(-7, CFile::end), CFileException);
    EXPECT_EQ(file.GetPosition(), 6u);
}

TEST(File, SwitchesBetweenWritingAndReading)
{
    TempFile temp;
    CFile file;
    ASSERT_TRUE(file.Open(temp.Path(), CFile::modeCreate | CFile::modeReadWrite));
    file.Write("abcdef", 6);
    file.Seek(0, CFile::begin);
    file.Write("XY", 2);
    // A read straight after a write continues where the write stopped.
    EXPECT_EQ(ReadAll(file, 2), "cd");
    file.Write("Z", 1);
    file.Close();
    EXPECT_EQ(temp.ReadBytes(), (Bytes{'X', 'Y', 'c', 'd', 'Z', 'f'}));
}

TEST(File, ClosedFileThrowsOnUse)
{
    CFile file;
    char c = 0;
    EXPECT_THROW(file.Read(&c, 1), CFileException);
    EXPECT_THROW(file.Write(&c, 1), CFileException);
    EXPECT_THROW(file.Seek(0, CFile::begin), CFileException);
    EXPECT_THROW(file.GetLength(), CFileException);
    EXPECT_NO_THROW(file.Close());
}

TEST(File, KeepsReadingTheOpenedFileAfterItsNameIsReplaced)
{
    // A store rewritten beside itself and renamed over the original: a reader that still
    // holds the original must see the original's bytes and length.
    TempFile original;
    TempFile replacement;
    original.WriteBytes({'o', 'l', 'd'});
    CFile file;
    ASSERT_TRUE(file.Open(original.Path(), CFile::modeRead));
    replacement.WriteBytes({'r', 'e', 'p', 'l', 'a', 'c', 'e', 'd'});
    std::filesystem::rename(replacement.Path(), original.Path());
    EXPECT_EQ(file.GetLength(), 3u);
    EXPECT_EQ(ReadAll(file, 10), "old");
}
