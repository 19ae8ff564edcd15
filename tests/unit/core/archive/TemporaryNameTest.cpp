#include "archive/TemporaryName.h"

#include <cstdint>
#include <string>

#include <gtest/gtest.h>

using VelCore::IsTemporaryName;
using VelCore::TemporaryName;

namespace {

TEST(TemporaryName, ShowsItsNumber)
{
    EXPECT_EQ(".vel-unfinished-0000000000000000", TemporaryName(0));
    EXPECT_EQ(".vel-unfinished-0123456789abcdef", TemporaryName(0x0123456789ABCDEF));
    EXPECT_EQ(".vel-unfinished-ffffffffffffffff", TemporaryName(0xFFFFFFFFFFFFFFFF));
}

TEST(TemporaryName, IsRecognised)
{
    for (const std::uint64_t number : {std::uint64_t(0), std::uint64_t(1), std::uint64_t(0xFEDCBA9876543210)})
        EXPECT_TRUE(IsTemporaryName(TemporaryName(number))) << number;
}

TEST(TemporaryName, IsNothingElse)
{
    for (const char* name :
         {"", "a", ".vel-unfinished-", ".vel-unfinished-0123456789abcde", ".vel-unfinished-0123456789abcdef0",
          ".vel-unfinished-0123456789abcdeF", ".vel-unfinished-0123456789abcdeg", "xvel-unfinished-0123456789abcdef",
          "a/.vel-unfinished-0123456789abcdef"})
        EXPECT_FALSE(IsTemporaryName(name)) << name;
}

} // namespace
