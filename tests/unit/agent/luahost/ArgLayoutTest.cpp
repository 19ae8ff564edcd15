#include "luahost/ArgLayout.h"

#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

using Table = std::map<int, std::string>;

namespace {

Table LayOut(const std::vector<wxString>& words, const wxString& name = L"app")
{
    Table table;
    for (const ScriptArgument& argument : LayOutArguments(words, name))
        EXPECT_TRUE(table.emplace(argument.key, argument.text).second) << "key " << argument.key << " twice";
    return table;
}

TEST(ArgLayout, WordsStandAroundTheFirstDoubleDash)
{
    EXPECT_EQ((Table{{-2, "prog"}, {-1, "-x"}, {0, "app"}, {1, "a"}, {2, "b"}}),
              LayOut({L"prog", L"-x", L"--", L"a", L"b"}));
}

TEST(ArgLayout, WithoutADoubleDashAllWordsStandBefore)
{
    EXPECT_EQ((Table{{-2, "prog"}, {-1, "-x"}, {0, "app"}}), LayOut({L"prog", L"-x"}));
}

TEST(ArgLayout, ADoubleDashAtTheEndGivesNoParameters)
{
    EXPECT_EQ((Table{{-1, "prog"}, {0, "app"}}), LayOut({L"prog", L"--"}));
}

TEST(ArgLayout, ALaterDoubleDashIsAParameter)
{
    EXPECT_EQ((Table{{-1, "prog"}, {0, "app"}, {1, "a"}, {2, "--"}, {3, "b"}}),
              LayOut({L"prog", L"--", L"a", L"--", L"b"}));
}

TEST(ArgLayout, TheSearchStartsWithTheProgram)
{
    EXPECT_EQ((Table{{0, "app"}, {1, "a"}}), LayOut({L"--", L"a"}));
}

TEST(ArgLayout, NoWordsAtAllLeaveTheName)
{
    EXPECT_EQ((Table{{0, "app"}}), LayOut({}));
}

TEST(ArgLayout, OtherWordsWithDashesDoNotSplit)
{
    EXPECT_EQ((Table{{-4, "prog"}, {-3, "---"}, {-2, "-"}, {-1, "--x"}, {0, "app"}}),
              LayOut({L"prog", L"---", L"-", L"--x"}));
}

TEST(ArgLayout, TextIsUtf8AndForeignBytesAreKept)
{
    EXPECT_EQ((Table{{-1, "caf\xC3\xA9"}, {0, "na\xC3\xAFve"}, {1, "\xFF"}, {2, ""}}),
              LayOut({L"caf\x00E9", L"--", VelCore::FromUtf8("\xFF"), L""}, L"na\x00EFve"));
}

} // namespace
