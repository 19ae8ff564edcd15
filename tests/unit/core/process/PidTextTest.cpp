#include "process/PidText.h"

#include <string>

#include <gtest/gtest.h>

namespace {

TEST(PidText, ExactlyOnePositiveNumber)
{
    const struct
    {
        const char* text;
        int process;
    } cases[] = {
        {"1", 1},
        {"4711\n", 4711},
        {"2147483647\n", 2147483647},
        {"0004711", 4711},
        {"", 0},
        {"\n", 0},
        {"0", 0},
        {"0\n", 0},
        {"-1", 0},
        {"+1", 0},
        {"2147483648", 0},
        {"4294967297", 0},
        {"99999999999999999999999", 0},
        {" 1", 0},
        {"1 ", 0},
        {"1\r\n", 0},
        {"1\n\n", 0},
        {"\n1", 0},
        {"1 2", 0},
        {"1\n2", 0},
        {"1x", 0},
        {"0x10", 0},
        {"1.0", 0},
        {"1e3", 0},
        {"text", 0},
    };
    for (const auto& row : cases)
        EXPECT_EQ(row.process, VelCore::ParsePid(row.text)) << '"' << row.text << '"';
    EXPECT_EQ(0, VelCore::ParsePid(std::string("1\0", 2)));
}

} // namespace
