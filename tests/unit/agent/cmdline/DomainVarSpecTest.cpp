#include "cmdline/DomainVarSpec.h"

#include <clocale>
#include <string>

#include <gtest/gtest.h>

namespace {

TEST(DomainVarSpec, SplitsAtTheFirstEqualsSign)
{
    const wchar_t* const cases[][3] = {
        {L"a=b", L"a", L"b"},   {L"a=b=c", L"a", L"b=c"},     {L"foo=", L"foo", L""},
        {L"a==b", L"a", L"=b"}, {L" a = b ", L" a ", L" b "}, {L"app.path.bin=/x y", L"app.path.bin", L"/x y"},
    };
    for (const auto& [text, name, value] : cases) {
        const auto spec = ParseDomainVarSpec(text);
        ASSERT_TRUE(spec) << text;
        EXPECT_EQ(name, spec->name) << text;
        EXPECT_EQ(value, spec->value) << text;
    }
}

TEST(DomainVarSpec, WithoutANameThereIsNoVariable)
{
    for (const wchar_t* text : {L"", L"foo", L"=x", L"=", L"=="})
        EXPECT_FALSE(ParseDomainVarSpec(text)) << text;
}

// Sets the C library's character type for one test.
class CCharacters
{
public:
    explicit CCharacters(const char* locale) : m_before(std::setlocale(LC_CTYPE, nullptr))
    {
        EXPECT_NE(nullptr, std::setlocale(LC_CTYPE, locale)) << locale;
    }
    ~CCharacters() { std::setlocale(LC_CTYPE, m_before.c_str()); }
    CCharacters(const CCharacters&) = delete;
    CCharacters& operator=(const CCharacters&) = delete;

private:
    std::string m_before;
};

TEST(DomainVarSpec, TextIsConvertedByTheCLibrary)
{
    const CCharacters utf8("C.UTF-8");
    EXPECT_EQ("caf\xC3\xA9", ToMultibyte(L"caf\x00E9"));
    EXPECT_EQ("plain", ToMultibyte(L"plain"));
    EXPECT_EQ("", ToMultibyte(L""));
}

TEST(DomainVarSpec, TextThatCannotBeConvertedIsEmpty)
{
    const CCharacters c("C");
    EXPECT_EQ("", ToMultibyte(L"caf\x00E9"));
    EXPECT_EQ("plain", ToMultibyte(L"plain"));
}

} // namespace
