#include "shell/ExceptionText.h"

#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>
#include <typeinfo>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

namespace {

template <typename Thrown>
std::string Describe(Thrown thrown)
{
    try {
        throw thrown;
    } catch (...) {
        return VelCore::ToUtf8(DescribeCurrentException());
    }
}

struct CDerived : std::exception
{
    const char* what() const noexcept override { return "caf\xC3\xA9 100%s"; }
};

struct CUnrelated
{
};

enum class Colour { Red };

TEST(ExceptionText, AStandardExceptionHasItsDynamicTypeAndItsText)
{
    EXPECT_EQ("std::exception of type \"St13runtime_error\", what() = \"x\"", Describe(std::runtime_error("x")));
    EXPECT_EQ("std::exception of type \"St9bad_alloc\", what() = \"std::bad_alloc\"", Describe(std::bad_alloc()));
    const std::string name = typeid(CDerived).name();
    EXPECT_EQ("std::exception of type \"" + name.substr(name[0] == '*' ? 1 : 0) + "\", what() = \"caf\xC3\xA9 100%s\"",
              Describe(CDerived()));
}

TEST(ExceptionText, TextsStandBetweenSingleQuotes)
{
    EXPECT_EQ("char * exception 'literal'", Describe<const char*>("literal"));
    EXPECT_EQ("char * exception ''", Describe<const char*>(""));
    EXPECT_EQ("char * exception '100%s %n'", Describe<const char*>("100%s %n"));
    EXPECT_EQ("wchar_t * exception 'caf\xC3\xA9'", Describe<const wchar_t*>(L"caf\x00E9"));
    char text[] = "changeable";
    EXPECT_EQ("char * exception 'changeable'", Describe<char*>(text));
}

TEST(ExceptionText, EachIntegerTypeHasItsOwnFormat)
{
    EXPECT_EQ("int exception 42", Describe(42));
    EXPECT_EQ("int exception -42", Describe(-42));
    EXPECT_EQ("unsigned int exception 42", Describe(42u));
    EXPECT_EQ("unsigned int exception 4294967295", Describe(4294967295u));
    EXPECT_EQ("long exception -42", Describe(-42L));
    EXPECT_EQ("unsigned long exception 18446744073709551615", Describe(18446744073709551615UL));
    EXPECT_EQ("long long exception -9223372036854775807", Describe(-9223372036854775807LL));
    EXPECT_EQ("unsigned long long exception 42", Describe(42ULL));
}

TEST(ExceptionText, OtherTypesAreUnknownWithoutConversion)
{
    EXPECT_EQ("<unknown exception>", Describe(CUnrelated()));
    EXPECT_EQ("<unknown exception>", Describe(std::string("text")));
    EXPECT_EQ("<unknown exception>", Describe('c'));
    EXPECT_EQ("<unknown exception>", Describe(true));
    EXPECT_EQ("<unknown exception>", Describe(static_cast<short>(1)));
    EXPECT_EQ("<unknown exception>", Describe(1.5));
    EXPECT_EQ("<unknown exception>", Describe(Colour::Red));
    EXPECT_EQ("<unknown exception>", Describe<const unsigned char*>(nullptr));
}

// A report must not crash over what it reports.
TEST(ExceptionText, ANullPointerIsDescribed)
{
    EXPECT_EXIT(std::exit(Describe<const char*>(nullptr).find("char * exception '") == 0 ? 0 : 1),
                testing::ExitedWithCode(0), "");
    EXPECT_EXIT(std::exit(Describe<const wchar_t*>(nullptr).find("wchar_t * exception '") == 0 ? 0 : 1),
                testing::ExitedWithCode(0), "");
}

} // namespace
