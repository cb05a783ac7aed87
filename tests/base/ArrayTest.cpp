#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "qzsse/base/RbArray.h"

TEST(RbArray, AddReturnsTheNewIndexAndIteratesInOrder)
{
    RbArray<std::string> ids;
    EXPECT_EQ(ids.Add("first"), 0);
    EXPECT_EQ(ids.Add("second"), 1);
    EXPECT_EQ(ids.GetSize(), 2);
    EXPECT_EQ(std::vector<std::string>(ids.begin(), ids.end()), (std::vector<std::string>{"first", "second"}));
    RbArray<std::string> copy = ids;
    copy[0] = "changed";
    EXPECT_EQ(ids[0], "first");
}

TEST(RbArray, SetSizeZeroFillsGrowthAndKeepsThePrefix)
{
    RbArray<unsigned char> codes;
    codes.Add(7);
    codes.SetSize(4);
    ASSERT_EQ(codes.GetSize(), 4);
    EXPECT_EQ(codes[0], 7);
    EXPECT_EQ(codes[1], 0);
    EXPECT_EQ(codes[3], 0);
    codes.GetData()[2] = 9;  // contiguous storage
    EXPECT_EQ(codes[2], 9);
    codes.SetSize(1);
    EXPECT_EQ(codes.GetSize(), 1);
    EXPECT_EQ(codes[0], 7);
    EXPECT_THROW(codes.SetSize(-1), std::length_error);
}
