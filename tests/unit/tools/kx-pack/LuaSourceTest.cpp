#include "LuaSource.h"

#include <gtest/gtest.h>

TEST(LuaSource, WhatTheAgentLoadsPasses)
{
    for (const char* text : {"", "return 1", "#!/usr/bin/lua\nreturn 1", "\xEF\xBB\xBFreturn 1"})
        EXPECT_FALSE(CheckLuaText(text, "x.lua")) << text;
}

TEST(LuaSource, SyntaxErrorIsRefusedWithItsPlace)
{
    const auto failure = CheckLuaText("x =\n= 1", "a/x.lua");

    ASSERT_TRUE(failure);
    EXPECT_EQ(Status::Refused, failure->status);
    EXPECT_EQ("the agent cannot load 'a/x.lua': a/x.lua:2: unexpected symbol near '='", failure->text);
}

TEST(LuaSource, PrecompiledChunkIsRefused)
{
    const auto failure = CheckLuaText("\x1BLua", "x.lua");

    ASSERT_TRUE(failure);
    EXPECT_EQ("the agent cannot load 'x.lua': attempt to load a binary chunk (mode is 't')", failure->text);
}
