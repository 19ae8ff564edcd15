#include "CommandLine.h"

#include <gtest/gtest.h>

namespace {

const std::vector<OptionSpec> kKnown = {
    {"output", 'o', "OUT", ""},
    {"help", 'h', nullptr, ""},
    {"plain", 0, "VALUE", ""},
};

struct Case
{
    std::vector<std::string> words;
    std::map<std::string, std::string> options;
    std::vector<std::string> operands;
};

struct WrongCase
{
    std::vector<std::string> words;
    const char* problem;
};

} // namespace

TEST(CommandLine, OptionsAndOperandsInAnyOrder)
{
    const Case cases[] = {
        {{}, {}, {}},
        {{"a", "b"}, {}, {"a", "b"}},
        {{"-o", "x", "a"}, {{"output", "x"}}, {"a"}},
        {{"a", "-ox"}, {{"output", "x"}}, {"a"}},
        {{"a", "--output", "x", "b"}, {{"output", "x"}}, {"a", "b"}},
        {{"--output=x=y"}, {{"output", "x=y"}}, {}},
        {{"--output="}, {{"output", ""}}, {}},
        {{"--plain", "-o"}, {{"plain", "-o"}}, {}},
        {{"-o", "--"}, {{"output", "--"}}, {}},
        {{"-h", "--help"}, {{"help", ""}}, {}},
        {{"-o", "x", "-o", "y"}, {{"output", "y"}}, {}},
        {{"--", "-o", "--"}, {}, {"-o", "--"}},
        {{"a", "--", "b"}, {}, {"a", "b"}},
        {{"-", ""}, {}, {"-", ""}},
    };
    for (const Case& one : cases) {
        Arguments arguments;
        std::string problem;
        EXPECT_TRUE(ParseWords(one.words, kKnown, arguments, problem)) << problem;
        EXPECT_EQ(one.options, arguments.options) << testing::PrintToString(one.words);
        EXPECT_EQ(one.operands, arguments.operands) << testing::PrintToString(one.words);
    }
}

TEST(CommandLine, WrongWordsAreNamed)
{
    const WrongCase cases[] = {
        {{"--wrong"}, "unknown option '--wrong'"},
        {{"--wrong=x"}, "unknown option '--wrong'"},
        {{"--out"}, "unknown option '--out'"},
        {{"-x"}, "unknown option '-x'"},
        {{"-p", "x"}, "unknown option '-p'"},
        {{"a", "-o"}, "option '-o' needs a value"},
        {{"--output"}, "option '--output' needs a value"},
        {{"--help=x"}, "option '--help' takes no value"},
        {{"-ho"}, "option '-h' takes no value"},
    };
    for (const WrongCase& one : cases) {
        Arguments arguments;
        std::string problem;
        EXPECT_FALSE(ParseWords(one.words, kKnown, arguments, problem)) << one.problem;
        EXPECT_EQ(one.problem, problem);
    }
}

TEST(CommandLine, GetPrefersWhatWasGiven)
{
    Arguments arguments;
    arguments.options["output"] = "given";

    EXPECT_EQ("given", arguments.Get("output", "otherwise"));
    EXPECT_EQ("otherwise", arguments.Get("plain", "otherwise"));
    EXPECT_TRUE(arguments.Has("output"));
    EXPECT_FALSE(arguments.Has("plain"));
}
