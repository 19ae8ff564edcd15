#include <VelCore/DomBinding.h>

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <VelCore/Clock.h>
#include <VelCore/Log2Disk.h>
#include <VelCore/Utf8.h>

#include "support/RootDomain.h"
#include "support/Script.h"
#include "support/TempFolder.h"

using VelCore::CDom;
using VelCore::CDomValue;
using VelTest::CScript;

using Texts = std::vector<std::string>;

namespace {

class DomBinding : public testing::Test
{
protected:
    void SetUp() override
    {
        SLB3::Push(m_script.L(), m_dom.get());
        lua_setglobal(m_script.L(), "dom");
    }

    std::string Value(const std::string& text) { return m_script.Value(text); }

    template <typename Kind>
    bool Holds(const std::string& key, const Kind& expected) const
    {
        CDomValue value;
        return m_dom->Read(key, value) && std::holds_alternative<Kind>(value) && std::get<Kind>(value) == expected;
    }

    std::unique_ptr<CDom> m_dom = VelTest::NewRootDomain();
    CScript m_script;
};

TEST_F(DomBinding, GetGivesTheValueInItsOwnKind)
{
    m_dom->Set("b", false);
    m_dom->Set("i", 42);
    m_dom->Set("d", 0.5);
    m_dom->Set("s", std::string("a\0b", 3));
    EXPECT_EQ("boolean false", Value("local v = dom:Get('b') return type(v) .. ' ' .. tostring(v)"));
    EXPECT_EQ("number 42", Value("local v = dom:Get('i') return type(v) .. ' ' .. v"));
    EXPECT_EQ("number 0.5", Value("local v = dom:Get('d') return type(v) .. ' ' .. v"));
    EXPECT_EQ(std::string("string a\0b", 10), Value("local v = dom:Get('s') return type(v) .. ' ' .. v"));
}

TEST_F(DomBinding, GetOfAnAbsentKeyGivesTheDefaultOrNil)
{
    EXPECT_EQ("1 nil", Value("return select('#', dom:Get('x')) .. ' ' .. tostring(dom:Get('x'))"));
    EXPECT_EQ("5", Value("return dom:Get('x', 5)"));
    EXPECT_EQ("true", Value("local t = {} return dom:Get('x', t) == t"));
    EXPECT_EQ("1", Value("return select('#', dom:Get('x', 1, 2, 3))"));
    m_dom->Set("x", false);
    EXPECT_EQ("false", Value("return dom:Get('x', 5)"));
}

TEST_F(DomBinding, SetKeepsTheKind)
{
    EXPECT_EQ("0", Value("return select('#', dom:Set('s', 'a\\0b'))"));
    EXPECT_EQ(0, m_script.Run("dom:Set('t', true) dom:Set('f', false) dom:Set('digits', '5')"));
    EXPECT_TRUE(Holds("s", std::string("a\0b", 3)));
    EXPECT_TRUE(Holds("t", true));
    EXPECT_TRUE(Holds("f", false));
    EXPECT_TRUE(Holds("digits", std::string("5")));
}

TEST_F(DomBinding, WholeNumbersInTheRangeBecomeIntegers)
{
    EXPECT_EQ(0, m_script.Run("dom:Set('a', 5) dom:Set('b', -2^63) dom:Set('c', 2^62) dom:Set('zero', -0.0)"));
    EXPECT_TRUE(Holds("a", std::int64_t{5}));
    EXPECT_TRUE(Holds("b", std::numeric_limits<std::int64_t>::min()));
    EXPECT_TRUE(Holds("c", std::int64_t{1} << 62));
    EXPECT_TRUE(Holds("zero", std::int64_t{0}));
}

TEST_F(DomBinding, OtherNumbersStayDoubles)
{
    EXPECT_EQ(0, m_script.Run("dom:Set('a', 0.5) dom:Set('b', 2^63) dom:Set('c', -2^64) dom:Set('d', 1/0) "
                              "dom:Set('e', 0/0)"));
    EXPECT_TRUE(Holds("a", 0.5));
    EXPECT_TRUE(Holds("b", 9223372036854775808.0));
    EXPECT_TRUE(Holds("c", -18446744073709551616.0));
    EXPECT_TRUE(Holds("d", std::numeric_limits<double>::infinity()));
    CDomValue value;
    ASSERT_TRUE(m_dom->Read("e", value));
    ASSERT_TRUE(std::holds_alternative<double>(value));
    EXPECT_TRUE(std::isnan(std::get<double>(value)));
}

TEST_F(DomBinding, AnExplicitNilRemoves)
{
    m_dom->Set("x", 1);
    EXPECT_EQ(0, m_script.Run("dom:Set('x', nil)"));
    EXPECT_FALSE(m_dom->Has("x"));
}

TEST_F(DomBinding, HasTellsWhetherTheKeyIsThere)
{
    m_dom->Set("x", false);
    EXPECT_EQ("true", Value("return dom:Has('x')"));
    EXPECT_EQ("false", Value("return dom:Has('y')"));
}

TEST_F(DomBinding, KeysIsASortedArray)
{
    for (const char* key : {"app.name", "app", "apparatus", "b"})
        m_dom->Set(key, 1);
    EXPECT_EQ("app,app.name", Value("return table.concat(dom:Keys('app'), ',')"));
    for (const char* all : {"", "''", "nil"})
        EXPECT_EQ("app,app.name,apparatus,b", Value(std::string("return table.concat(dom:Keys(") + all + "), ',')"));
    EXPECT_EQ("0", Value("return #dom:Keys('none')"));
}

TEST_F(DomBinding, KeysMayHoldAnyBytes)
{
    EXPECT_EQ("1", Value("dom:Set('k\\0\\255', 1) return dom:Get('k\\0\\255')"));
    EXPECT_TRUE(m_dom->Has(std::string("k\0\xFF", 3)));
    EXPECT_EQ("true", Value("return dom:Keys()[1] == 'k\\0\\255'"));
}

TEST_F(DomBinding, PluginFoldersLieInTheWorkFolder)
{
    m_dom->Set("app.path.work", "/caf\xE9");
    EXPECT_EQ("/caf\xE9/diag", Value("return dom:GetPluginWorkdir('diag')"));
}

// Each call takes memory, and the collector, which may come then, runs finalizers that call the same methods.
TEST_F(DomBinding, FinalizersMayCallWhatIsRunning)
{
    for (int i = 0; i < 200; ++i)
        m_dom->Set("keys.of.the.store.number." + std::to_string(i), i);
    m_dom->Set("short", std::string(900, 's'));
    m_dom->Set("long", std::string(100000, 'l'));
    m_dom->Set("other", std::string(200000, 'o'));
    m_dom->Set("app.path.work", "/" + std::string(3000, 'w'));
    // Garbage follows garbage, so that there is some wherever the collector comes.
    EXPECT_EQ("true",
              Value("local live = true local function finalize() if live then dom:Get('other') "
                    "  dom:Keys('keys.of') dom:GetPluginWorkdir('x') setmetatable({}, { __gc = finalize }) end end "
                    "local short, long, path = ('s'):rep(900), ('l'):rep(100000), '/' .. ('w'):rep(3000) .. '/y' "
                    "local calls = { function() return dom:Get('short') == short end, "
                    "  function() return dom:Get('long') == long end, "
                    "  function() return dom:GetPluginWorkdir('y') == path end, "
                    "  function() return dom:Keys('keys')[200] == 'keys.of.the.store.number.99' end } "
                    "collectgarbage('setpause', 0) collectgarbage('setstepmul', 1000000) "
                    "setmetatable({}, { __gc = finalize }) "
                    "for i = 1, 5 do for j, call in ipairs(calls) do if not call() then return j end end end "
                    "live = false return true"));
}

TEST_F(DomBinding, TimeIsMillisecondsAsANumber)
{
    const std::int64_t before = VelCore::TimeNowMillis();
    const auto seen = static_cast<std::int64_t>(std::stod(Value("return ('%.0f'):format(dom:TimeNowMillis())")));
    EXPECT_LE(before, seen);
    EXPECT_GE(VelCore::TimeNowMillis(), seen);
}

TEST_F(DomBinding, LogWritesARecordOfTheLevel)
{
    EXPECT_EQ(0, m_script.Run("dom:Log('error', 'e') dom:Log('warning', 'w') dom:Log('message', 'm') "
                              "dom:Log('verbose', 'v')"));
    EXPECT_EQ(Texts{"e"}, m_script.Log().Texts(wxLOG_Error));
    EXPECT_EQ(Texts{"w"}, m_script.Log().Texts(wxLOG_Warning));
    EXPECT_EQ(Texts{"m"}, m_script.Log().Texts(wxLOG_Message));
    EXPECT_EQ(Texts{"v"}, m_script.Log().Texts(wxLOG_Info));
}

TEST_F(DomBinding, LogTakesTheTextAsItIs)
{
    EXPECT_EQ(0, m_script.Run("dom:Log('message', '100% %s %n\\n\\195\\169') dom:Log('message', 5)"));
    EXPECT_EQ((Texts{"100% %s %n\n\xC3\xA9", "5"}), m_script.Log().Texts(wxLOG_Message));
}

TEST_F(DomBinding, LogLosesNothingBehindANulByte)
{
    EXPECT_EQ(0, m_script.Run("dom:Log('message', 'a\\0b') dom:Log('verbose', 'a\\0b')"));
    EXPECT_EQ(Texts{"a\\x00b"}, m_script.Log().Texts(wxLOG_Message)); // as the log file shows it
    EXPECT_EQ(Texts{"a\\x00b"}, m_script.Log().Texts(wxLOG_Info));
}

TEST_F(DomBinding, AnUnknownLevelIsAnArgumentError)
{
    for (const char* level : {"info", "Error", "", "fatal", "trace"}) {
        EXPECT_EQ(std::string("error: test:1: bad argument #1 to 'Log' (unknown level '") + level + "')",
                  Value(std::string("dom:Log('") + level + "', 'x')"));
    }
}

TEST_F(DomBinding, ALevelNameIsTakenWhole)
{
    EXPECT_EQ(0u, Value("dom:Log('error\\0', 'x')").find("error: test:1: bad argument #1 to 'Log' (unknown level"));
    EXPECT_TRUE(m_script.Log().Texts(wxLOG_Error).size() == 1) << "more than the failure of the script";
}

struct BadCall
{
    const char* call;
    const char* message;
};

TEST_F(DomBinding, WrongArgumentsAreErrorsThatNameTheMethod)
{
    const BadCall calls[] = {
        {"dom:Get()", "bad argument #1 to 'Get' (string expected, got no value)"},
        {"dom:Get({})", "bad argument #1 to 'Get' (string expected, got table)"},
        {"dom:Get(nil)", "bad argument #1 to 'Get' (string expected, got nil)"},
        {"dom:Get(true)", "bad argument #1 to 'Get' (string expected, got boolean)"},
        {"dom:Get('')", "bad argument #1 to 'Get' (empty key)"},
        {"dom:Set()", "bad argument #1 to 'Set' (string expected, got no value)"},
        {"dom:Set('')", "bad argument #1 to 'Set' (empty key)"},
        {"dom:Set('', 1)", "bad argument #1 to 'Set' (empty key)"},
        {"dom:Set('x')", "bad argument #2 to 'Set' (string, boolean, number or nil expected, got no value)"},
        {"dom:Set('x', {})", "bad argument #2 to 'Set' (string, boolean, number or nil expected, got table)"},
        {"dom:Set('x', print)", "bad argument #2 to 'Set' (string, boolean, number or nil expected, got function)"},
        {"dom:Set('x', dom)", "bad argument #2 to 'Set' (string, boolean, number or nil expected, got userdata)"},
        {"dom:Has()", "bad argument #1 to 'Has' (string expected, got no value)"},
        {"dom:Has('')", "bad argument #1 to 'Has' (empty key)"},
        {"dom:Keys({})", "bad argument #1 to 'Keys' (string expected, got table)"},
        {"dom:Keys(false)", "bad argument #1 to 'Keys' (string expected, got boolean)"},
        {"dom:GetPluginWorkdir()", "bad argument #1 to 'GetPluginWorkdir' (string expected, got no value)"},
        {"dom:Log()", "bad argument #1 to 'Log' (string expected, got no value)"},
        {"dom:Log('error')", "bad argument #2 to 'Log' (string expected, got no value)"},
        {"dom:Log('error', {})", "bad argument #2 to 'Log' (string expected, got table)"},
        {"dom:LogTrace()", "bad argument #1 to 'LogTrace' (string expected, got no value)"},
        {"dom:LogTrace('m')", "bad argument #2 to 'LogTrace' (string expected, got no value)"},
        {"dom:LogTraceIsEnabled()", "bad argument #1 to 'LogTraceIsEnabled' (string expected, got no value)"},
    };
    for (const BadCall& bad : calls)
        EXPECT_EQ(std::string("error: test:1: ") + bad.message, Value(bad.call)) << bad.call;
    EXPECT_TRUE(m_dom->Keys("").empty());
}

TEST_F(DomBinding, ABadSelfIsAnErrorThatNamesTheMethod)
{
    for (const char* method :
         {"Get", "GetPluginWorkdir", "Has", "Keys", "Log", "LogTrace", "LogTraceIsEnabled", "Set", "TimeNowMillis"}) {
        EXPECT_EQ(std::string("error: test:1: calling '") + method + "' on bad self (SLB.Dom expected, got string)",
                  Value(std::string("dom.") + method + "('x', 'y')"));
        EXPECT_NE(std::string::npos, Value(std::string("dom.") + method + "(io.stdout)").find("bad self"));
        EXPECT_NE(std::string::npos, Value(std::string("dom.") + method + "()").find("bad self"));
    }
}

TEST_F(DomBinding, ItsClassHasAName)
{
    EXPECT_EQ("SLB.Dom", Value("return getmetatable(dom).__class"));
}

// What a script can reach must not end the process, whatever it does with it.
TEST_F(DomBinding, ItsCollectorCalledOnAnotherObjectDoesNotEndTheProcess)
{
    EXPECT_EXIT(
        {
            m_script.Run("pcall(getmetatable(dom).__gc, io.stdout)");
            std::_Exit(0);
        },
        testing::ExitedWithCode(0), "");
}

TEST_F(DomBinding, ACollectedObjectLeavesTheDomainAlone)
{
    m_dom->Set("x", 1);
    EXPECT_EQ(0, m_script.Run("dom = nil collectgarbage() collectgarbage()"));
    EXPECT_EQ("1", m_dom->Get("x"));
    SLB3::Push(m_script.L(), m_dom.get());
    lua_setglobal(m_script.L(), "dom");
    EXPECT_EQ("1", Value("return dom:Get('x')"));
}

TEST_F(DomBinding, NoDomainIsNil)
{
    SLB3::Push<CDom>(m_script.L(), nullptr);
    EXPECT_TRUE(lua_isnil(m_script.L(), -1));
    lua_pop(m_script.L(), 1);
}

class DomBindingTrace : public DomBinding
{
protected:
    void SetUp() override
    {
        DomBinding::SetUp();
        m_dom->Set("app.path.work", m_folder / "work");
        m_dom->Set("app.name", "bound");
        m_dom->Set("app.trace", "Mine");
    }

    // The records from the level word on.
    std::vector<std::string> Traced() const
    {
        std::vector<std::string> records;
        for (const std::string& line : VelTest::Lines(VelTest::ReadFile(m_folder / "work/log/bound.log")))
            records.push_back(line.substr(line.find("] ") + 2));
        return records;
    }

    VelTest::CTempFolder m_folder;
};

TEST_F(DomBindingTrace, NamesTheLuaSourceAndLineOfTheCaller)
{
    EXPECT_EQ(0, m_script.Run("\nlocal function work()\n dom:LogTrace('Mine', 'caf\\195\\169')\nend\nwork()\n"
                              "dom:LogTrace('Mine', 'two')"));
    EXPECT_EQ((Texts{"Trace: Mine: work (test:3): caf\xC3\xA9", "Trace: Mine: main (test:6): two"}), Traced());
}

TEST_F(DomBindingTrace, NamesTheFileOfAModule)
{
    m_folder.Write("lib/module.lua", "return function(dom) dom:LogTrace('Mine', 'text') end");
    ASSERT_TRUE(m_script.Interpreter().SetPackagePaths(m_folder / "lib", "", ""));
    EXPECT_EQ(0, m_script.Run("local f = require 'module' f(dom)"));
    EXPECT_EQ(Texts{"Trace: Mine: f (module.lua:1): text"}, Traced());
}

TEST_F(DomBindingTrace, NamesTheLuaFunctionThatCallsThroughOthers)
{
    EXPECT_EQ(0, m_script.Run("local function work()\n pcall(dom.LogTrace, dom, 'Mine', 'text')\nend\nwork()"));
    EXPECT_EQ(Texts{"Trace: Mine: work (test:2): text"}, Traced());
}

TEST_F(DomBindingTrace, LosesNothingBehindANulByte)
{
    EXPECT_EQ(0, m_script.Run("dom:LogTrace('Mine', 'a\\0b')"));
    EXPECT_EQ(Texts{"Trace: Mine: main (test:1): a\\x00b"}, Traced());
}

TEST_F(DomBindingTrace, WritesNothingForAModuleThatIsOff)
{
    EXPECT_EQ(0, m_script.Run("dom:LogTrace('Other', 'text')"));
    EXPECT_FALSE(VelTest::Exists(m_folder / "work"));
}

TEST_F(DomBindingTrace, FollowsTheSettings)
{
    EXPECT_EQ("true", Value("return dom:LogTraceIsEnabled('Mine')"));
    EXPECT_EQ("false", Value("return dom:LogTraceIsEnabled('Other')"));
    EXPECT_EQ("true", Value("dom:Set('app.trace+', 'Other') return dom:LogTraceIsEnabled('Other')"));
}

int UseDomain(lua_State* L)
{
    SLB3::Push(L, static_cast<CDom*>(lua_touserdata(L, 1)));
    lua_setglobal(L, "dom");
    if (luaL_loadstring(L, "dom:Set('a.b', 'text') dom:Get('a.b') dom:Keys() dom:Has('a') dom:GetPluginWorkdir('p') "
                           "dom:LogTraceIsEnabled('m') dom:LogTrace('m', 't') dom:TimeNowMillis()") != LUA_OK)
        return lua_error(L);
    lua_call(L, 0, 0);
    return 0;
}

TEST_F(DomBinding, ShortMemoryIsALuaErrorAtAnyPoint)
{
    int status = LUA_ERRMEM;
    int allocations = 0;
    for (; status != LUA_OK && allocations < 1000; ++allocations) {
        VelTest::CPoorState state;
        state.Allow(allocations);
        lua_pushcfunction(state.L(), UseDomain);
        lua_pushlightuserdata(state.L(), m_dom.get());
        status = lua_pcall(state.L(), 1, 0, 0);
        EXPECT_TRUE(status == LUA_OK || status == LUA_ERRMEM || status == LUA_ERRRUN) << status;
        if (status == LUA_ERRRUN) {
            EXPECT_STREQ("not enough memory", lua_tostring(state.L(), -1));
        }
        EXPECT_EQ(0, state.Close()) << allocations;
    }
    EXPECT_EQ(LUA_OK, status);
    EXPECT_LT(20, allocations);
}

} // namespace
