#include "cmdline/ExpandPathPlugins.h"

#include <gtest/gtest.h>

namespace {

struct Expansion
{
    const wchar_t* paths;
    const wchar_t* plugins;
    const wchar_t* expected;
};

TEST(ExpandPathPlugins, MultipliesSegmentsByPlugins)
{
    const Expansion cases[] = {
        {L"a/@/?.lua;b/?.lua", L"x,y", L"a/x/?.lua;a/y/?.lua;b/?.lua;b/?.lua"},
        {L"@", L"x", L"x"},
        {L"@/@", L"x,y", L"x/x;y/y"},
        {L"a;b", L"x", L"a;b"},
        {L"", L"x,y", L""},
    };
    for (const Expansion& expansion : cases)
        EXPECT_EQ(expansion.expected, ExpandPathPlugins(expansion.paths, expansion.plugins)) << expansion.paths;
}

TEST(ExpandPathPlugins, WithoutPluginsTheListStaysAsItIs)
{
    for (const wchar_t* list : {L"", L"a/@;;b;", L"@", L";"})
        EXPECT_EQ(list, ExpandPathPlugins(list, L""));
}

TEST(ExpandPathPlugins, ASegmentWithoutAPlaceForThePluginIsRepeated)
{
    EXPECT_EQ(L"a;a;a", ExpandPathPlugins(L"a", L"x,y,z"));
}

TEST(ExpandPathPlugins, EmptyPiecesBetweenSeparatorsCount)
{
    EXPECT_EQ(L"a;;b", ExpandPathPlugins(L"a;;b", L"x"));
    EXPECT_EQ(L"ax;a;ay", ExpandPathPlugins(L"a@", L"x,,y"));
}

TEST(ExpandPathPlugins, ASeparatorAtTheEndAddsNoPiece)
{
    EXPECT_EQ(L"a;b", ExpandPathPlugins(L"a;b;", L"x"));
    EXPECT_EQ(L"ax;ay", ExpandPathPlugins(L"a@", L"x,y,"));
}

TEST(ExpandPathPlugins, BlanksBelongToTheNames)
{
    EXPECT_EQ(L"a x;ay; b x; by", ExpandPathPlugins(L"a@; b@", L" x,y"));
}

TEST(ExpandPathPlugins, AnEmptyFirstPieceAddsNoSeparator)
{
    EXPECT_EQ(L"a", ExpandPathPlugins(L";a", L"x")); // a result that is still empty gets no ";"
}

} // namespace
