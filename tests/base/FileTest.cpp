#include <gtest/gtest.h>

#include <filesystem>
#include <string>

#include "base/BaseTestUtil.h"
#include "qzsse/base/CFile.h"

namespace {

std::string ReadUpTo(CFile& file, unsigned count)
{
    std::string out(count, '\0');
    out.resize(file.Read(out.data(), count));
    return out;
}

} // namespace

TEST(File, FailedOpenReturnsFalseAndLeavesAFileThatThrowsOnUse)
{
    TempFile missing;
    CFile file;
    char c = 0;
    EXPECT_FALSE(file.Open(missing.Path(), CFile::modeRead));
    EXPECT_FALSE(file.Open(missing.Path(), CFile::modeWrite));
    EXPECT_FALSE(file.Open(missing.Path() + "/inside", CFile::modeCreate | CFile::modeWrite));
    EXPECT_FALSE(file.Open(std::filesystem::temp_directory_path().string(), CFile::modeRead));
    EXPECT_FALSE(file.IsOpen());
    EXPECT_THROW(file.Read(&c, 1), CFileException);
    EXPECT_THROW(file.Write(&c, 1), CFileException);
    EXPECT_THROW(file.Seek(0, CFile::begin), CFileException);
    EXPECT_THROW(file.GetLength(), CFileException);
    EXPECT_NO_THROW(file.Close());
}

TEST(File, CreateTruncatesUnlessAskedNotTo)
{
    TempFile temp;
    temp.WriteBytes({'o', 'l', 'd', '!'});
    CFile file;
    ASSERT_TRUE(file.Open(temp.Path(), CFile::modeCreate | CFile::modeNoTruncate | CFile::modeReadWrite));
    EXPECT_EQ(ReadUpTo(file, 10), "old!");
    ASSERT_TRUE(file.Open(temp.Path(), CFile::modeCreate | CFile::modeWrite | CFile::shareExclusive));
    EXPECT_EQ(file.GetLength(), 0u);
    file.Write("new", 3);
    EXPECT_EQ(file.GetLength(), 3u);  // bytes not yet flushed count
    file.Close();
    EXPECT_EQ(temp.ReadBytes(), (Bytes{'n', 'e', 'w'}));
}

TEST(File, ReadsAndWritesAtOnePositionSeekingFromEachOrigin)
{
    TempFile temp;
    CFile file;
    ASSERT_TRUE(file.Open(temp.Path(), CFile::modeCreate | CFile::modeReadWrite));
    file.Write("abcdef", 6);
    EXPECT_EQ(file.Seek(0, CFile::begin), 0u);
    file.Write("XY", 2);
    EXPECT_EQ(ReadUpTo(file, 2), "cd");  // a read continues where the write stopped
    file.Write("Z", 1);
    EXPECT_EQ(file.Seek(1, CFile::begin), 1u);
    EXPECT_EQ(file.Seek(2, CFile::current), 3u);
    EXPECT_EQ(ReadUpTo(file, 1), "d");
    EXPECT_EQ(file.Seek(-2, CFile::end), 4u);
    EXPECT_EQ(ReadUpTo(file, 5), "Zf");  // short at the end, then nothing
    EXPECT_EQ(ReadUpTo(file, 5), "");
    EXPECT_THROW(file.Seek(-1, CFile::begin), CFileException);
    EXPECT_THROW(file.Seek(-7, CFile::end), CFileException);
    EXPECT_EQ(file.GetPosition(), 6u);
    file.Close();
    EXPECT_EQ(temp.ReadBytes(), (Bytes{'X', 'Y', 'c', 'd', 'Z', 'f'}));
}

TEST(File, KeepsReadingTheOpenedFileAfterItsNameIsReplaced)
{
    // A store rewritten beside itself and renamed over the original: a reader that still
    // holds the original must see the original's bytes and length.
    TempFile original, replacement;
    original.WriteBytes({'o', 'l', 'd'});
    CFile file;
    ASSERT_TRUE(file.Open(original.Path(), CFile::modeRead));
    replacement.WriteBytes({'r', 'e', 'p', 'l', 'a', 'c', 'e', 'd'});
    std::filesystem::rename(replacement.Path(), original.Path());
    EXPECT_EQ(file.GetLength(), 3u);
    EXPECT_EQ(ReadUpTo(file, 10), "old");
}
