#include "lua/RunningLua.h"

#include <string>
#include <thread>

#include <gtest/gtest.h>
#include <lua.hpp>

using VelCore::CRunningLua;
using VelCore::RunningLua;

namespace {

std::string g_calls;

// Lua function `look`: keeps the calls of the state that the thread is running.
int Look(lua_State*)
{
    static char memory[16384];
    VelCore::CTextBuffer text(memory, sizeof memory);
    VelCore::AddLuaCalls(RunningLua(), text);
    g_calls = std::string(text.Text());
    return 0;
}

// The calls that `look` sees in a script.
std::string CallsIn(const char* script, const char* name = "=script")
{
    lua_State* const L = luaL_newstate();
    luaL_openlibs(L);
    lua_register(L, "look", Look);
    g_calls.clear();
    {
        const CRunningLua running(L);
        EXPECT_EQ(LUA_OK, luaL_loadbuffer(L, script, std::string(script).size(), name));
        EXPECT_EQ(LUA_OK, lua_pcall(L, 0, 0, 0)) << lua_tostring(L, -1);
    }
    lua_close(L);
    return g_calls;
}

TEST(RunningLua, ThreadRunsNoneAtFirst)
{
    EXPECT_EQ(nullptr, RunningLua());
}

TEST(RunningLua, StateCountsUntilItsCallReturns)
{
    lua_State* const outer = luaL_newstate();
    lua_State* const inner = luaL_newstate();
    {
        const CRunningLua first(outer);
        EXPECT_EQ(outer, RunningLua());
        {
            const CRunningLua second(inner);
            EXPECT_EQ(inner, RunningLua());
            std::thread([] { EXPECT_EQ(nullptr, RunningLua()); }).join();
        }
        EXPECT_EQ(outer, RunningLua());
    }
    EXPECT_EQ(nullptr, RunningLua());
    lua_close(inner);
    lua_close(outer);
}

TEST(RunningLua, CallsAreToldFromTheInnermost)
{
    EXPECT_EQ("stack traceback:\n\t[C]: in function 'look'\n\tscript:2: in function 'deep'\n\tscript:4: in main chunk",
              CallsIn("function deep()\n look()\n end\n deep()"));
}

TEST(RunningLua, FunctionWithoutANameIsToldByItsLine)
{
    EXPECT_EQ("stack traceback:\n\t[C]: in function 'look'\n\tscript:2: in function <line 1>\n\t[C]: in function "
              "'pcall'\n\tscript:1: in main chunk",
              CallsIn("pcall(function()\n look() end)"));
}

TEST(RunningLua, CallsOfARunningCoroutineComeFirst)
{
    const char* const rest = "\n\tscript:1: in main chunk";
    const std::string inside =
        "stack traceback:\n\t[C]: in function 'look'\n\tscript:1: in function <line 1>\n\t(...resumed "
        "by...)\n\t[C]: in function ";
    EXPECT_EQ(inside + "'co'" + rest, CallsIn("local co = coroutine.wrap(function() look() end) co()"));
    EXPECT_EQ(inside + "'resume'" + rest,
              CallsIn("local co = coroutine.create(function() look() end) coroutine.resume(co)"));
}

TEST(RunningLua, CoroutineThatWaitsIsNotToldOf)
{
    EXPECT_EQ("stack traceback:\n\t[C]: in function 'look'\n\tscript:1: in main chunk",
              CallsIn("local co = coroutine.create(function() coroutine.yield() end) coroutine.resume(co) look(co)"));
}

TEST(RunningLua, DeepRecursionIsCut)
{
    const std::string calls =
        CallsIn("local function f(n) if n == 0 then look() else f(n - 1) end return 1 end f(1000)");
    EXPECT_LT(calls.size(), 4096u);
    EXPECT_EQ("\n\t...", calls.substr(calls.size() - 5));
}

TEST(RunningLua, SourceStaysOnItsLine)
{
    EXPECT_EQ("stack traceback:\n\t[C]: in function 'look'\n\tforged\\nline:1: in main chunk",
              CallsIn("look()", "@forged\nline"));
}

} // namespace
