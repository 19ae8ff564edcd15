#include "process/CommandWords.h"

#include <gtest/gtest.h>

using Words = std::vector<std::string>;

namespace {

TEST(CommandWords, BlanksSeparateAndQuotesKeepThem)
{
    const struct
    {
        const char* text;
        Words words;
    } cases[] = {
        {"", {}},
        {"  \t ", {}},
        {"stopmod", {"stopmod"}},
        {"  a  b\tc ", {"a", "b", "c"}},
        {"'a b' c", {"a b", "c"}},
        {"\"a b\" c", {"a b", "c"}},
        {"x'a b'\"c d\"y", {"xa bc dy"}},
        {"''", {""}},
        {"a '' \"\"", {"a", "", ""}},
        {"'\"' \"'\"", {"\"", "'"}},
        {"a\\ b", {"a\\", "b"}},
        {"\"a\\\" b", {"a\\", "b"}},
        {"$HOME `id` ; | > *", {"$HOME", "`id`", ";", "|", ">", "*"}},
        {"a\nb", {"a\nb"}},
    };
    for (const auto& row : cases)
        EXPECT_EQ(row.words, VelCore::SplitCommandWords(row.text).value_or(Words{"nothing"})) << row.text;
}

TEST(CommandWords, AQuoteThatIsNotClosedIsRefused)
{
    for (const char* text : {"'", "\"", "a 'b", "'a\"", "a '' '"})
        EXPECT_FALSE(VelCore::SplitCommandWords(text).has_value()) << text;
}

} // namespace
