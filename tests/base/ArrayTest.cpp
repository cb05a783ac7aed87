#include <gtest/gtest.h>

#include <stdexcept>
#include <vector>

#include "qzsse/base/RbArray.h"

TEST(RbArray, AddReturnsTheNewIndexAndSetSizeZeroFillsOrShrinks)
{
    RbArray<int> codes;
    const int seven = 7;
    EXPECT_EQ(codes.Add(seven), 0);
    EXPECT_EQ(codes.Add(8), 1);
    codes.SetSize(4);
    EXPECT_EQ(std::vector<int>(codes.begin(), codes.end()), (std::vector<int>{7, 8, 0, 0}));
    codes.SetSize(1);
    EXPECT_EQ(std::vector<int>(codes.begin(), codes.end()), std::vector<int>{7});
    EXPECT_THROW(codes.SetSize(-1), std::length_error);
}
