#include "crash/SharedText.h"

#include <gtest/gtest.h>

using VelCore::SharedText;

namespace {

TEST(SharedText, BeginsEmpty)
{
    const SharedText<8> text;
    EXPECT_EQ("", text.Get());
}

TEST(SharedText, LastValueCounts)
{
    SharedText<8> text;
    for (const char* value : {"one", "two", "", "three"}) {
        text.Set(value);
        EXPECT_EQ(value, text.Get());
    }
}

TEST(SharedText, ValueBeforeStaysWholeWhileTheNextIsWritten)
{
    SharedText<8> text;
    text.Set("old");
    const std::string_view old = text.Get();
    text.Set("new");
    EXPECT_EQ("old", old);
}

TEST(SharedText, LongValueIsCut)
{
    SharedText<4> text;
    text.Set("abcd");
    EXPECT_EQ("abcd", text.Get());
    text.Set("abcde");
    EXPECT_EQ("abcd", text.Get());
}

} // namespace
