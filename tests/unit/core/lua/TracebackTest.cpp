#include "lua/Traceback.h"

#include <algorithm>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <lua.hpp>

#include "support/Capture.h"
#include "support/Script.h"

using VelTest::CPoorState;

using Texts = std::vector<std::string>;

namespace {

// A message handler: the traceback in place of the message.
int Describe(lua_State* L)
{
    VelCore::PushTraceback(L, 1);
    return 1;
}

class Traceback : public testing::Test
{
protected:
    Traceback() : m_state(luaL_newstate()) { luaL_openlibs(m_state); }
    ~Traceback() override { lua_close(m_state); }

    // The lines behind "stack traceback:" of a chunk that fails, without their tabulators.
    Texts Calls(const std::string& chunk, const char* name = "=test")
    {
        lua_pushcfunction(m_state, Describe);
        EXPECT_EQ(LUA_OK, luaL_loadbuffer(m_state, chunk.data(), chunk.size(), name)) << lua_tostring(m_state, -1);
        EXPECT_EQ(LUA_ERRRUN, lua_pcall(m_state, 0, 0, -2)) << chunk;
        const std::string text = lua_tostring(m_state, -1);
        lua_settop(m_state, 0);

        Texts lines = VelTest::Lines(text);
        EXPECT_LE(2u, lines.size()) << text;
        EXPECT_EQ("", lines.at(0));
        EXPECT_EQ("stack traceback:", lines.at(1));
        lines.erase(lines.begin(), lines.begin() + 2);
        for (std::string& line : lines) {
            EXPECT_EQ('\t', line.at(0)) << text;
            line.erase(0, 1);
        }
        return lines;
    }

    lua_State* m_state;
};

TEST_F(Traceback, NamesEveryCallTheInnermostFirst)
{
    EXPECT_EQ((Texts{"[C]: in function 'error'", "test:1: in function 'f'", "test:2: in function 'g'",
                     "test:3: in main chunk"}),
              Calls("local function f() error('x') end\nlocal function g() f() end\ng()"));
}

TEST_F(Traceback, AFunctionWithoutANameHasItsLine)
{
    EXPECT_EQ((Texts{"[C]: in function 'error'", "test:2: in function <line 1>", "[C]: in function 'string.gsub'",
                     "test:3: in main chunk"}),
              Calls("local function f()\nerror('x') end\nlocal s = ('x'):gsub('x', f)"));
}

TEST_F(Traceback, AFunctionOfAModuleIsCalledByIt)
{
    EXPECT_EQ((Texts{"test:1: in function 'my.mod.f'", "test:2: in function 'g'", "test:3: in main chunk"}),
              Calls("package.loaded['my.mod'] = {f = function() local x = nil + 1 end}\n"
                    "function g() local f = package.loaded['my.mod'].f f() return 1 end\n"
                    "g()"));
}

TEST_F(Traceback, OfSeveralNamesItIsTheFirst)
{
    EXPECT_EQ((Texts{"test:1: in function 'a.g'", "test:3: in main chunk"}),
              Calls("local function f() local x = nil + 1 end\n"
                    "for _, m in ipairs{'d', 'b', 'a', 'c'} do package.loaded[m] = {h = f, g = f} end\n"
                    "f()"));
}

TEST_F(Traceback, OddModulesAreNoDanger)
{
    EXPECT_EQ(
        (Texts{"test:3: in function 'g'", "test:4: in main chunk"}),
        Calls(
            "local p = package.loaded p[1] = {} p.t = true p.m = setmetatable({}, {__index = error, __pairs = error})\n"
            "p.n = {[1] = g, [true] = 5, [{}] = {}}\n"
            "local function g() local x = nil + 1 end\n"
            "g()"));
    EXPECT_EQ((Texts{"[C]: in function 'error'", "test:1: in main chunk"}),
              Calls("debug.getregistry()._LOADED = 5 error('x')"));
}

TEST_F(Traceback, ASourceHasItsWholeName)
{
    const std::string path = "/" + std::string(300, 'p') + "/archive.kxe/entry.lua";
    EXPECT_EQ((Texts{"[C]: in function 'error'", path + ":1: in main chunk"}),
              Calls("error('x')", ("@" + path).c_str()));
    EXPECT_EQ((Texts{"[C]: in function 'error'", "[string \"error('x')\"]:1: in main chunk"}),
              Calls("error('x')", "error('x')"));
}

TEST_F(Traceback, ASourceIsAlwaysOneLine)
{
    EXPECT_EQ((Texts{"[C]: in function 'error'", "/a\\n\\tb\\x1b\\xff.lua:1: in main chunk"}),
              Calls("error('x')", "@/a\n\tb\x1b\xff.lua"));
}

TEST_F(Traceback, TellsOfTailCallsButTheOutermost)
{
    EXPECT_EQ((Texts{"[C]: in function 'error'", "test:1: in function <line 1>", "(...tail calls...)",
                     "test:3: in main chunk"}),
              Calls("local function f() error('x') end\nlocal function g() return f() end\ng()"));
    EXPECT_EQ((Texts{"[C]: in function 'error'", "test:1: in function <line 1>"}),
              Calls("local function f() error('x') end\nreturn f()"));
}

TEST_F(Traceback, ShowsBothEndsOfADeepRecursion)
{
    const std::string chunk = "local function f(n) if n == 0 then error('x') end f(n - 1) return n end\nf(";
    EXPECT_EQ(22u, Calls(chunk + "19)").size()) << "as many as are shown";

    const Texts lines = Calls(chunk + "20)");
    ASSERT_EQ(23u, lines.size());
    EXPECT_EQ("[C]: in function 'error'", lines.front());
    EXPECT_EQ("(...1 calls...)", lines[12]);
    EXPECT_EQ("test:2: in main chunk", lines.back());
    EXPECT_EQ("(...1001 calls...)", Calls(chunk + "1020)")[12]);
}

TEST_F(Traceback, DescribesAStackOverflow)
{
    const Texts lines = Calls("local function f() return 1 + f() end f()");
    ASSERT_EQ(23u, lines.size());
    EXPECT_EQ("test:1: in function 'f'", lines.front());
    EXPECT_EQ("test:1: in main chunk", lines.back());
    EXPECT_EQ(23u, Calls("local function f(s) return (s:gsub('.', f)) end f('x')").size());
}

TEST_F(Traceback, ShowsTheCallsOfAFailedCoroutine)
{
    EXPECT_EQ((Texts{"[C]: in function 'error'", "test:1: in function 'f'", "test:2: in function <line 2>",
                     "(...resumed by...)", "[C]: in function 'step'", "test:3: in main chunk"}),
              Calls("local function f() error('x') end\nlocal step = coroutine.wrap(function() f() end)\nstep()"));
}

TEST_F(Traceback, ShowsTheCallsOfCoroutinesInCoroutines)
{
    EXPECT_EQ((Texts{"test:2: in function <line 1>", "(...resumed by...)", "[C]: in function 'inner'",
                     "test:5: in function <line 4>", "(...resumed by...)", "[C]: in function 'outer'",
                     "test:7: in main chunk"}),
              Calls("local inner = coroutine.wrap(function()\nlocal x = nil + 1\nend)\n"
                    "local outer = coroutine.wrap(function()\ninner()\nend)\nouter()"));
}

TEST_F(Traceback, ACoroutineThatLivesIsNotShown)
{
    EXPECT_EQ((Texts{"[C]: in function 'error'", "test:2: in function 'f'", "test:3: in main chunk"}),
              Calls("local step = coroutine.wrap(coroutine.yield) step()\nlocal function f() error(step) end\nf()"));
    EXPECT_EQ((Texts{"[C]: in function 'step'", "test:1: in main chunk"}),
              Calls("local step = coroutine.wrap(function() end) step() step()"));
}

TEST_F(Traceback, CoroutinesWithoutEndAreCut)
{
    const Texts lines =
        Calls("local function f(n) if n == 0 then error('x', 0) end coroutine.wrap(f)(n - 1) return 1 end\nf(100)");
    EXPECT_EQ(8, std::count(lines.begin(), lines.end(), "(...resumed by...)"));
    EXPECT_EQ("test:2: in main chunk", lines.back());
}

TEST_F(Traceback, WithoutCallsSaysSo)
{
    VelCore::PushTraceback(m_state, 0);
    EXPECT_STREQ("\nstack traceback:\n\t(no calls)", lua_tostring(m_state, -1));
}

TEST(TracebackInShortMemory, IsAMemoryErrorOrComplete)
{
    bool complete = false;
    for (int allocations = 0; !complete && allocations < 1000; ++allocations) {
        CPoorState state;
        lua_State* const L = state.L();
        ASSERT_EQ(LUA_OK, luaL_loadstring(L, "local step = coroutine.wrap(function() error() end) step()"));
        lua_pushcfunction(L, Describe);
        lua_insert(L, 1);
        state.Allow(allocations);
        const int status = lua_pcall(L, 0, 0, 1);
        state.AllowAll();
        EXPECT_TRUE(status == LUA_ERRRUN || status == LUA_ERRMEM || status == LUA_ERRERR) << status;
        complete = status == LUA_ERRRUN;
        lua_settop(L, 0);
        EXPECT_EQ(0, state.Close());
    }
    EXPECT_TRUE(complete);
}

} // namespace
