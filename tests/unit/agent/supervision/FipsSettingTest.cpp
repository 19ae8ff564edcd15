#include "supervision/FipsSetting.h"

#include <gtest/gtest.h>

namespace {

TEST(FipsSetting, NothingAndZeroMeanOff)
{
    EXPECT_FALSE(WantsFipsMode(L""));
    EXPECT_FALSE(WantsFipsMode(L"0"));
}

TEST(FipsSetting, EveryOtherTextMeansOn)
{
    for (const wchar_t* text : {L"1", L"yes", L"true", L"no", L"off", L"false", L"00", L" 0", L"0 ", L"-0"})
        EXPECT_TRUE(WantsFipsMode(text)) << text;
}

} // namespace
