#include "shell/CommandWords.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

namespace {

std::vector<char*> Pointers(std::vector<std::string>& words)
{
    std::vector<char*> pointers;
    for (std::string& word : words)
        pointers.push_back(word.data());
    pointers.push_back(nullptr);
    return pointers;
}

TEST(CommandWords, AreDecodedAsUtf8)
{
    std::vector<std::string> given = {"prog", "", "caf\xC3\xA9", "a word that is too long for any short-string buffer"};
    CCommandWords words(4, Pointers(given).data());
    ASSERT_EQ(4, words.Count());
    EXPECT_STREQ(L"prog", words.Words()[0]);
    EXPECT_STREQ(L"", words.Words()[1]);
    EXPECT_STREQ(L"caf\x00E9", words.Words()[2]);
    EXPECT_STREQ(L"a word that is too long for any short-string buffer", words.Words()[3]);
    EXPECT_EQ(nullptr, words.Words()[4]);
}

TEST(CommandWords, BytesThatAreNotUtf8AreKept)
{
    std::vector<std::string> given = {"caf\xE9"};
    CCommandWords words(1, Pointers(given).data());
    EXPECT_EQ("caf\xE9", VelCore::ToUtf8(words.Words()[0]));
}

TEST(CommandWords, NoneAtAllIsAnEmptyList)
{
    char* none[] = {nullptr};
    CCommandWords words(0, none);
    EXPECT_EQ(0, words.Count());
    EXPECT_EQ(nullptr, words.Words()[0]);
}

TEST(CommandWords, TheFrameworkMayChangeTheCount)
{
    std::vector<std::string> given = {"a", "b"};
    CCommandWords words(2, Pointers(given).data());
    words.Count() = 1;
    EXPECT_EQ(1, words.Count());
}

} // namespace
