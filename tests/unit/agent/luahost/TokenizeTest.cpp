#include "luahost/Tokenize.h"

#include <list>
#include <vector>

#include <gtest/gtest.h>

#include <wx/arrstr.h>

using Tokens = std::vector<wxString>;

namespace {

Tokens Split(const wxString& text, const wxString& delimiters = L";")
{
    Tokens tokens;
    Tokenize(tokens, text, delimiters);
    return tokens;
}

TEST(Tokenize, EmptyTokensAreLeftOut)
{
    EXPECT_EQ((Tokens{L"a.kxe", L"b.kxe"}), Split(L"a.kxe;;b.kxe;"));
    EXPECT_EQ((Tokens{L"a"}), Split(L";;a;;"));
    EXPECT_EQ((Tokens{L"a"}), Split(L"a"));
    EXPECT_EQ((Tokens{L"a", L"b"}), Split(L"a;b"));
    for (const wchar_t* text : {L"", L";", L";;;"})
        EXPECT_EQ(Tokens(), Split(text)) << text;
}

TEST(Tokenize, BlanksBelongToTheTokens)
{
    EXPECT_EQ((Tokens{L" a ", L" ", L"b"}), Split(L" a ; ;b"));
}

TEST(Tokenize, EveryDelimiterSeparates)
{
    EXPECT_EQ((Tokens{L"a", L"b", L"c"}), Split(L"a;, b,c", L",; "));
}

TEST(Tokenize, WithoutDelimitersTheTextIsOneToken)
{
    EXPECT_EQ((Tokens{L"a;b"}), Split(L"a;b", L""));
}

TEST(Tokenize, TokensAreAddedToTheList)
{
    Tokens tokens = {L"before"};
    Tokenize(tokens, L"a;b", L";");
    EXPECT_EQ((Tokens{L"before", L"a", L"b"}), tokens);
}

TEST(Tokenize, TakesAnyListOfTexts)
{
    std::list<wxString> list;
    Tokenize(list, L"a;b", L";");
    EXPECT_EQ((std::list<wxString>{L"a", L"b"}), list);

    wxArrayString array;
    Tokenize(array, L"a;b", L";");
    ASSERT_EQ(2u, array.size());
    EXPECT_EQ(L"b", array[1]);
}

} // namespace
