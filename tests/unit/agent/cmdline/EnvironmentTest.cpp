#include "cmdline/Environment.h"

#include <cstdlib>
#include <string>

#include <gtest/gtest.h>

#include <wx/config.h>

#include <VelCore/Utf8.h>

#include "support/Capture.h"

namespace {

std::string Expanded(const std::string& name)
{
    return VelCore::ToUtf8(ExpandFileName(VelCore::FromUtf8(name)));
}

class Environment : public testing::Test
{
protected:
    Environment()
    {
        setenv("KX_PART", "part", 1);
        setenv("KX_EMPTY", "", 1);
        setenv("KX_LETTERS",
               "gr\xC3\xB6\xC3\x9F"
               "e",
               1);
        setenv("KX_BYTES", "caf\xE9", 1);
        setenv("KX_HOME", "~", 1);
        setenv("HOME", "/home/caf\xE9", 1);
        unsetenv("KX_NONE");
    }

    ~Environment() override
    {
        for (const char* name : {"KX_PART", "KX_EMPTY", "KX_LETTERS", "KX_BYTES", "KX_HOME"})
            unsetenv(name);
        if (m_hadHome)
            setenv("HOME", m_home.c_str(), 1);
        else
            unsetenv("HOME");
    }

    VelTest::CLogCapture m_log;

private:
    const bool m_hadHome = std::getenv("HOME") != nullptr;
    const std::string m_home = m_hadHome ? std::getenv("HOME") : "";
};

TEST_F(Environment, VariablesAreReplacedInEveryNotation)
{
    EXPECT_EQ("part", Expanded("$KX_PART"));
    EXPECT_EQ("/a/part/b", Expanded("/a/$KX_PART/b"));
    EXPECT_EQ("apartb", Expanded("a${KX_PART}b"));
    EXPECT_EQ("apartb", Expanded("a$(KX_PART)b"));
    EXPECT_EQ("partpart", Expanded("$KX_PART$KX_PART"));
    EXPECT_EQ("ab", Expanded("a${KX_EMPTY}b"));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(Environment, ValuesAreNotExpandedAgain)
{
    setenv("KX_EMPTY", "$KX_PART", 1);
    EXPECT_EQ("$KX_PART", Expanded("$KX_EMPTY"));
}

TEST_F(Environment, WhatIsNoVariableStays)
{
    for (const char* name :
         {"", "a b", "$", "a$", "$/x", "$-", "$KX_NONE/x", "${KX_NONE}", "$(KX_NONE)", "${}", "%s", "\\x"})
        EXPECT_EQ(name, Expanded(name));
    EXPECT_TRUE(m_log.Records().empty());
}

TEST_F(Environment, ABackslashKeepsTheDollarSign)
{
    EXPECT_EQ("$KX_PART", Expanded("\\$KX_PART"));
    EXPECT_EQ("\\$KX_PART", Expanded("\\\\$KX_PART"));
}

TEST_F(Environment, TheSyntaxIsTheFrameworks)
{
    for (const wchar_t* name : {L"$KX_PART", L"${KX_PART}/$(KX_PART)", L"$KX_PART.x", L"$KX_PART-x", L"$KX_NONE",
                                L"${KX_NONE}", L"$(KX_NONE)/x", L"\\$KX_PART", L"\\\\$KX_PART", L"\\x", L"\\%",
                                L"%KX_PART%", L"$$KX_PART", L"$", L"a$", L"${}", L"{$KX_PART}", L"\\"})
        EXPECT_EQ(wxExpandEnvVars(name), ExpandFileName(name));
}

TEST_F(Environment, ValuesKeepTheirBytes)
{
    EXPECT_EQ("gr\xC3\xB6\xC3\x9F"
              "e/x",
              Expanded("$KX_LETTERS/x"));
    EXPECT_EQ("caf\xE9/x", Expanded("$KX_BYTES/x"));
    EXPECT_EQ("/home/caf\xE9/x", Expanded("~/x"));
}

TEST_F(Environment, ABracketThatIsNotClosedStaysAndIsNamed)
{
    EXPECT_EQ("a/${KX_PART", Expanded("a/${KX_PART"));
    EXPECT_EQ("$(KX_PART}", Expanded("$(KX_PART}"));
    const auto records = m_log.Records();
    ASSERT_EQ(2u, records.size());
    EXPECT_EQ("'a/${KX_PART': a '}' is missing", records[0].text);
    EXPECT_EQ("'$(KX_PART}': a ')' is missing", records[1].text);
}

TEST_F(Environment, OnlyALeadingTildeOfItsOwnIsHome)
{
    EXPECT_EQ("/home/caf\xE9", Expanded("~"));
    EXPECT_EQ("/home/caf\xE9/x", Expanded("$KX_HOME/x"));
    for (const char* name : {"a~", "a/~", "~user", "~user/x", "/~"})
        EXPECT_EQ(name, Expanded(name));
}

TEST_F(Environment, WithoutHomeTheTildeStays)
{
    setenv("HOME", "", 1);
    EXPECT_EQ("~/x", Expanded("~/x"));
    unsetenv("HOME");
    EXPECT_EQ("~/x", Expanded("~/x"));
}

} // namespace
