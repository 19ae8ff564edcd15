#include "cmdline/TraceList.h"

#include <gtest/gtest.h>

namespace {

TEST(TraceList, QuotesAreDeletedWhereverTheyStand)
{
    EXPECT_EQ(L"Appl,Cmd", WithoutQuotes(L"'Appl,Cmd'"));
    EXPECT_EQ(L"Appl,Cmd", WithoutQuotes(L"\"Appl\",'Cmd'"));
    EXPECT_EQ(L"Appl", WithoutQuotes(L"A'p\"p'l"));
    EXPECT_EQ(L"", WithoutQuotes(L"''\"\""));
    EXPECT_EQ(L"", WithoutQuotes(L""));
}

TEST(TraceList, EverythingElseStays)
{
    EXPECT_EQ(L" Appl, *,`x` ", WithoutQuotes(L" Appl, *,`x` "));
}

TEST(TraceList, TheMainAgentTracesSixModulesUnlessToldOtherwise)
{
    EXPECT_EQ(L"Appl,Cmd,Srvc,vel.Heartbeat,vel.ListenThread,vel.PluginUtils", wxString(kDefaultTraceModules));
}

} // namespace
