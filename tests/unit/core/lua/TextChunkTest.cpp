#include "lua/TextChunk.h"

#include <string>

#include <gtest/gtest.h>

#include <lua.hpp>

#include "support/Script.h"

using VelCore::LoadText;
using VelCore::SkipPreamble;

namespace {

TEST(Preamble, IsSkipped)
{
    EXPECT_EQ("", SkipPreamble(""));
    EXPECT_EQ("return 1", SkipPreamble("return 1"));
    EXPECT_EQ("return 1", SkipPreamble("\xEF\xBB\xBFreturn 1"));
    EXPECT_EQ("\nreturn 1", SkipPreamble("#!/usr/bin/lua\nreturn 1"));
    EXPECT_EQ("\r\nreturn 1", SkipPreamble("\xEF\xBB\xBF\r\nreturn 1"));
    EXPECT_EQ("\nreturn 1", SkipPreamble("\xEF\xBB\xBF#!lua\nreturn 1"));
    EXPECT_EQ("", SkipPreamble("#"));
    EXPECT_EQ("", SkipPreamble("# no line end"));
    EXPECT_EQ("", SkipPreamble("\xEF\xBB\xBF"));
}

TEST(Preamble, WhatOnlyLooksLikeAPreambleStays)
{
    for (const char* text : {"\n#x", " #x", "\xEF\xBB", "\xEF\xBBx", "x\xEF\xBB\xBF"})
        EXPECT_EQ(text, SkipPreamble(text));
    EXPECT_EQ("\n#second", SkipPreamble("#first\n#second"));
}

class TextChunk : public testing::Test
{
protected:
    // The value the text returns, or the message.
    std::string Load(const std::string& text, int expectedStatus = LUA_OK)
    {
        lua_State* L = m_script.L();
        const int top = lua_gettop(L);
        EXPECT_EQ(expectedStatus, LoadText(L, text, "=chunk"));
        EXPECT_EQ(top + 1, lua_gettop(L));
        if (lua_isfunction(L, -1))
            lua_pcall(L, 0, 1, 0);
        std::string value = luaL_tolstring(L, -1, nullptr);
        lua_settop(L, top);
        return value;
    }

    VelTest::CScript m_script;
};

TEST_F(TextChunk, TextIsCompiled)
{
    EXPECT_EQ("3", Load("return 1 + 2"));
    EXPECT_EQ("nil", Load(""));
    EXPECT_EQ("3", Load("#!lua\nreturn 3"));
    EXPECT_EQ("3", Load("\xEF\xBB\xBFreturn 3"));
}

TEST_F(TextChunk, LinesCountFromTheFirstLineEvenIfItIsSkipped)
{
    EXPECT_EQ("chunk:2: x", Load("#!lua\nerror('x')"));
}

TEST_F(TextChunk, ASyntaxErrorNamesTheChunkAndTheLine)
{
    EXPECT_EQ(0u, Load("\n\nreturn +", LUA_ERRSYNTAX).find("chunk:3:"));
}

TEST_F(TextChunk, PrecompiledChunksAreRefused)
{
    const std::string binary = m_script.Value("return string.dump(function() return 1 end)");
    ASSERT_EQ("\x1bLua", binary.substr(0, 4));
    for (const std::string& text :
         {binary, "\xEF\xBB\xBF" + binary, std::string("\x1b"), "\x1bLua" + std::string(9, '\0')}) {
        const std::string message = Load(text, LUA_ERRSYNTAX);
        EXPECT_NE(std::string::npos, message.find("attempt to load a binary chunk")) << message;
    }
    EXPECT_NE("1", Load("#!lua\n" + binary, LUA_ERRSYNTAX));
}

} // namespace
