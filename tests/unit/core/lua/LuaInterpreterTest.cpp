#include <VelCore/LuaInterpreter.h>

#include <cstdlib>
#include <string>
#include <vector>

#include <unistd.h>

#include <gtest/gtest.h>

#include <wx/mstream.h>
#include <wx/wfstream.h>

#include <VelCore/Utf8.h>

#include <lua.hpp>

#include "support/Capture.h"
#include "support/Script.h"
#include "support/TempFolder.h"

using VelCore::CLuaInterpreter;
using VelTest::CDescriptorCapture;
using VelTest::CScript;

using Texts = std::vector<std::string>;

namespace {

std::string Info(CScript& script)
{
    return VelCore::ToUtf8(script.Interpreter().GetErrorInfo());
}

int RunOn(CLuaInterpreter& interpreter, const std::string& text, wxOutputStream* out)
{
    wxMemoryInputStream in(text.data(), text.size());
    return interpreter.RunScript(in, 0, 0, L"test", out);
}

// A stream that gives a text and then fails.
class CFailingStream : public wxInputStream
{
public:
    explicit CFailingStream(std::string text) : m_text(std::move(text)) {}

protected:
    std::size_t OnSysRead(void* buffer, std::size_t size) override
    {
        const std::size_t length = m_text.copy(static_cast<char*>(buffer), size);
        m_text.erase(0, length);
        if (length == 0)
            m_lasterror = wxSTREAM_READ_ERROR;
        return length;
    }

private:
    std::string m_text;
};

// C++ code that a script calls and that runs another script in the same state.
int RunNested(lua_State* L)
{
    auto* interpreter = static_cast<CLuaInterpreter*>(lua_touserdata(L, lua_upvalueindex(1)));
    auto* out = static_cast<wxOutputStream*>(lua_touserdata(L, lua_upvalueindex(2)));
    lua_pushinteger(L, RunOn(*interpreter, lua_tostring(L, 1), out));
    return 1;
}

// A stream that takes no byte.
class CFullStream : public wxOutputStream
{
protected:
    std::size_t OnSysWrite(const void*, std::size_t) override
    {
        m_lasterror = wxSTREAM_WRITE_ERROR;
        return 0;
    }
};

TEST(LuaInterpreter, AllStandardLibrariesAreOpen)
{
    CScript script;
    for (const char* library : {"_G", "coroutine", "table", "io", "os", "string", "bit32", "math", "debug", "package"})
        EXPECT_EQ("table", script.Value(std::string("return type(") + library + ")")) << library;
}

TEST(LuaInterpreter, WithoutLibrariesThereIsOnlyTheLanguage)
{
    CScript script(false);
    EXPECT_EQ(0, script.Run("x = 1 + 1"));
    EXPECT_EQ("2", script.Value("return x"));
    EXPECT_EQ(2, script.Run("print(1)"));
    EXPECT_EQ(0u, Info(script).find("test:1: attempt to call global 'print'")) << Info(script);
}

TEST(LuaInterpreter, AScriptThatSucceedsGivesZero)
{
    CScript script;
    EXPECT_EQ(0, script.Run("return 5"));
    EXPECT_EQ(0, script.Run(""));
    EXPECT_EQ("", Info(script));
    EXPECT_EQ(0, lua_gettop(script.L()));
    EXPECT_TRUE(script.Log().Records().empty());
}

TEST(LuaInterpreter, AScriptThatCannotBeLoadedGivesOne)
{
    CScript script;
    EXPECT_EQ(1, script.Run("\nreturn +"));
    EXPECT_EQ(0u, Info(script).find("test:2: ")) << Info(script);
    EXPECT_NE(std::string::npos, Info(script).find("\nstack traceback:")) << Info(script);
    EXPECT_EQ(0, lua_gettop(script.L()));
}

TEST(LuaInterpreter, APrecompiledScriptGivesOne)
{
    CScript script;
    const std::string binary = script.Value("return string.dump(function() end)");
    EXPECT_EQ(1, script.Run(binary));
    EXPECT_NE(std::string::npos, Info(script).find("binary chunk")) << Info(script);
}

TEST(LuaInterpreter, ARunTimeErrorGivesTwoAndItsTraceback)
{
    CScript script;
    EXPECT_EQ(2, script.Run("local function f() error('broken') end\nfunction g() f() end\ng()"));
    const auto lines = VelTest::Lines(Info(script));
    ASSERT_LE(5u, lines.size()) << Info(script);
    EXPECT_EQ("test:1: broken", lines[0]);
    EXPECT_EQ("stack traceback:", lines[1]);
    EXPECT_NE(std::string::npos, Info(script).find("test:2: in function 'g'")) << Info(script);
    EXPECT_NE(std::string::npos, Info(script).find("test:3: in main chunk")) << Info(script);
    EXPECT_EQ(0, lua_gettop(script.L()));
}

TEST(LuaInterpreter, AStackOverflowIsARunTimeError)
{
    CScript script;
    EXPECT_EQ(2, script.Run("local function f() return 1 + f() end f()"));
    EXPECT_NE(std::string::npos, Info(script).find("stack overflow")) << Info(script);
    EXPECT_EQ(0, script.Run("return 1"));
}

TEST(LuaInterpreter, AnErrorThatCannotBeDescribedIsAFailureAllTheSame)
{
    CScript script;
    const int status = script.Run("local t = {} error(setmetatable(t, {__tostring = function() error(t) end}))");
    EXPECT_TRUE(status == 2 || status == 6) << status;
    EXPECT_NE("", Info(script));
    EXPECT_EQ(0, script.Run("return 1"));
}

TEST(LuaInterpreter, NoFailureWhileRunningGivesThree)
{
    CScript script;
    for (const char* text : {"error(3)", "error({3})", "error()", "assert(load('+'))", "require 'no such module'",
                             "coroutine.yield(3)", "coroutine.wrap(function() error('x') end)()", "dofile('/no/file')",
                             "setmetatable({}, {__gc = function() error('x') end}) collectgarbage()"}) {
        const int status = script.Run(text);
        EXPECT_NE(0, status) << text;
        EXPECT_NE(3, status) << text;
        EXPECT_NE("", Info(script)) << text;
    }
}

TEST(LuaInterpreter, ErrorObjectsAreDescribed)
{
    CScript script;
    const std::pair<const char*, const char*> cases[] = {
        {"error('text', 0)", "text"},
        {"error(5)", "test:1: 5"},
        {"error()", "(error object is a nil value)"},
        {"error({})", "(error object is a table value)"},
        {"error(true)", "(error object is a boolean value)"},
        {"error(setmetatable({}, {__tostring = function() return 'mine' end}))", "mine"},
        {"error(setmetatable({}, {__tostring = function() return nil end}))", "(error object without a text)"},
        {"error(setmetatable({}, {__tostring = function() error('inner', 0) end}))", "inner"},
    };
    for (const auto& [text, message] : cases) {
        EXPECT_EQ(2, script.Run(text)) << text;
        EXPECT_EQ(message, script.Error()) << text;
    }
}

TEST(LuaInterpreter, EveryFailureIsAnErrorRecordOfTheSameText)
{
    CScript script;
    script.Run("error('one')");
    const std::string first = Info(script);
    script.Run("return +");
    EXPECT_EQ((Texts{first, Info(script)}), script.Log().Texts(wxLOG_Error));
    EXPECT_EQ(2u, script.Log().Records().size());
}

TEST(LuaInterpreter, ErrorInfoIsTheLastFailures)
{
    CScript script;
    script.Run("error('one')");
    const std::string first = Info(script);
    EXPECT_EQ(0, script.Run("return 1"));
    EXPECT_EQ(first, Info(script)) << "a success is no failure";
    script.Run("error('two')");
    EXPECT_EQ(0u, Info(script).find("test:1: two"));
}

TEST(LuaInterpreter, PercentSignsInAMessageAreText)
{
    CScript script;
    script.Run("error('100%s %d %n', 0)");
    EXPECT_EQ("100%s %d %n", script.Error());
    EXPECT_EQ(0u, script.Log().Texts(wxLOG_Error).at(0).find("100%s %d %n\n"));
}

TEST(LuaInterpreter, ArgumentsArePassedAndResultsLeft)
{
    CScript script;
    lua_State* L = script.L();
    lua_pushstring(L, "below");
    lua_pushinteger(L, 20);
    lua_pushinteger(L, 3);
    const std::string text = "local a, b, c = ... return a - b, c, select('#', ...)";
    wxMemoryInputStream in(text.data(), text.size());
    ASSERT_EQ(0, script.Interpreter().RunScript(in, 2, 3, L"test", nullptr));
    ASSERT_EQ(4, lua_gettop(L));
    EXPECT_STREQ("below", lua_tostring(L, 1));
    EXPECT_EQ(17, lua_tointeger(L, 2));
    EXPECT_TRUE(lua_isnil(L, 3));
    EXPECT_EQ(2, lua_tointeger(L, 4));
}

TEST(LuaInterpreter, AllResultsCanBeAskedFor)
{
    CScript script;
    ASSERT_EQ(0, script.Run("return 1, 2, 3, 4", LUA_MULTRET));
    EXPECT_EQ(4, lua_gettop(script.L()));
    lua_settop(script.L(), 0);
    ASSERT_EQ(0, script.Run("return 1", 3));
    EXPECT_EQ(3, lua_gettop(script.L()));
    EXPECT_TRUE(lua_isnil(script.L(), 3));
}

TEST(LuaInterpreter, AFailureRemovesTheArguments)
{
    CScript script;
    lua_State* L = script.L();
    lua_pushstring(L, "below");
    for (const std::string text : {"error('x')", "return +"}) {
        lua_pushinteger(L, 1);
        lua_pushinteger(L, 2);
        wxMemoryInputStream in(text.data(), text.size());
        EXPECT_NE(0, script.Interpreter().RunScript(in, 2, 1, L"test", nullptr));
        EXPECT_EQ(1, lua_gettop(L)) << text;
    }
    EXPECT_STREQ("below", lua_tostring(L, 1));
}

TEST(LuaInterpreter, MoreResultsThanTheStackHoldsAreAFailure)
{
    CScript script;
    EXPECT_NE(0, script.Run("return 1", 100000000));
    EXPECT_NE("", Info(script));
    EXPECT_EQ(0, lua_gettop(script.L()));
}

TEST(LuaInterpreter, TheWholeStreamIsOneChunk)
{
    CScript script;
    std::string text = "local n = 0\n";
    for (int i = 0; i < 5000; ++i)
        text += "n = n + 1\n";
    EXPECT_EQ("5000", script.Value(text + "return n"));
}

TEST(LuaInterpreter, AStreamThatFailsBeforeItsEndIsNotRun)
{
    CScript script;
    CFailingStream failing("ran = true\n");
    lua_pushinteger(script.L(), 1);
    EXPECT_EQ(1, script.Interpreter().RunScript(failing, 1, 0, L"half", nullptr));
    EXPECT_EQ("half: cannot be read to its end", Info(script));
    EXPECT_EQ(0, lua_gettop(script.L()));
    EXPECT_EQ("nil", script.Value("return tostring(ran)"));
}

TEST(LuaInterpreter, AFileThatIsNotThereIsNotRun)
{
    CScript script;
    const wxLogNull quiet;
    wxFileInputStream missing(L"/nonexistent/file.lua");
    EXPECT_EQ(1, script.Interpreter().RunScript(missing, 0, 0, L"file.lua", nullptr));
}

TEST(LuaInterpreter, PrintGoesToTheGivenStream)
{
    CScript script;
    const CDescriptorCapture out(STDOUT_FILENO);
    EXPECT_EQ(0, script.Run("print('a', 1, nil, true) print() print('caf\xC3\xA9\\0')"));
    EXPECT_EQ(std::string("a\t1\tnil\ttrue\n\ncaf\xC3\xA9\0\n", 21), script.Output());
    EXPECT_EQ("", out.Text());
}

TEST(LuaInterpreter, PrintUsesTheGlobalTostring)
{
    CScript script;
    EXPECT_EQ(0, script.Run("print(setmetatable({}, {__tostring = function() return 'mine' end}))"));
    EXPECT_EQ("mine\n", script.Output());
    EXPECT_EQ(2, script.Run("tostring = function() return nil end print(1)"));
    EXPECT_EQ("test:1: 'tostring' must return a string to 'print'", script.Error());
}

TEST(LuaInterpreter, WriteGoesToTheGivenStreamInOrderWithPrint)
{
    CScript script;
    EXPECT_EQ(0, script.Run("io.write('a', 1, 2.5) print('b') io.write('c\\0d', '\\n')"));
    EXPECT_EQ(std::string("a12.5b\nc\0d\n", 11), script.Output());
}

TEST(LuaInterpreter, WriteGivesTheDefaultOutput)
{
    CScript script;
    EXPECT_EQ("true", script.Value("return io.write('x') == io.stdout"));
    EXPECT_EQ("file", script.Value("return io.type(io.write())"));
}

TEST(LuaInterpreter, WriteOfATableIsAnArgumentError)
{
    CScript script;
    EXPECT_EQ(2, script.Run("io.write({})"));
    EXPECT_EQ("test:1: bad argument #1 to 'write' (string expected, got table)", script.Error());
}

TEST(LuaInterpreter, WriteToAnotherDefaultOutputGoesThere)
{
    const VelTest::CTempFolder folder;
    CScript script;
    EXPECT_EQ(0,
              script.Run("local out = io.output() io.output('" + (folder / "f") +
                         "') io.write('to ', 'file') print('to stream') io.close() io.output(out) io.write('back')"));
    EXPECT_EQ("to file", VelTest::ReadFile(folder / "f"));
    EXPECT_EQ("to stream\nback", script.Output());
}

TEST(LuaInterpreter, WithoutAStreamOutputGoesToStandardOutputInOrder)
{
    CScript script;
    const CDescriptorCapture out(STDOUT_FILENO);
    EXPECT_EQ(0, RunOn(script.Interpreter(), "io.write('a') print('b') io.stdout:write('c') io.write('d') print('e')",
                       nullptr));
    EXPECT_EQ("ab\ncde\n", out.Text());
}

TEST(LuaInterpreter, AStreamOverStandardOutputKeepsTheOrder)
{
    CScript script;
    const CDescriptorCapture captured(STDOUT_FILENO);
    wxFFileOutputStream out(stdout);
    EXPECT_EQ(
        0, RunOn(script.Interpreter(), "io.write('a') print('b') io.stdout:write('c') io.write('d') print('e')", &out));
    out.GetFile()->Detach();
    EXPECT_EQ("ab\ncde\n", captured.Text());
}

TEST(LuaInterpreter, AnOutputThatTakesNothingIsTold)
{
    CScript script;
    CFullStream out;
    EXPECT_EQ(0, RunOn(script.Interpreter(), "ok, why = io.write('too long for it')", &out));
    EXPECT_EQ("nil", script.Value("return ok"));
    EXPECT_EQ("string", script.Value("return type(why)"));
}

TEST(LuaInterpreter, OutputBetweenRunsDoesNotReachTheFormerStream)
{
    CScript script;
    EXPECT_EQ(0, script.Run("print('inside')"));
    const CDescriptorCapture out(STDOUT_FILENO);
    ASSERT_EQ(LUA_OK, luaL_dostring(script.L(), "print('outside')"));
    EXPECT_EQ("outside\n", out.Text());
    EXPECT_EQ("inside\n", script.Output());
}

class NestedRun : public testing::Test
{
protected:
    void SetUp() override
    {
        lua_pushlightuserdata(m_script.L(), &m_script.Interpreter());
        lua_pushlightuserdata(m_script.L(), &m_inner);
        lua_pushcclosure(m_script.L(), RunNested, 2);
        lua_setglobal(m_script.L(), "run");
    }

    std::string Inner() const
    {
        const wxStreamBuffer* const buffer = m_inner.GetOutputStreamBuffer();
        return {static_cast<const char*>(buffer->GetBufferStart()), buffer->GetIntPosition()};
    }

    CScript m_script;
    wxMemoryOutputStream m_inner;
};

TEST_F(NestedRun, HasItsOwnStream)
{
    EXPECT_EQ(0, m_script.Run("print('one') assert(run('print \"two\"') == 0) print('three')"));
    EXPECT_EQ("one\nthree\n", m_script.Output());
    EXPECT_EQ("two\n", Inner());
}

TEST_F(NestedRun, ThatFailsGivesTheStreamBackAndDoesNotEndTheOuterOne)
{
    EXPECT_EQ(0, m_script.Run("assert(run('error \"x\"') == 2) assert(run('+') == 1) print('three')"));
    EXPECT_EQ("three\n", m_script.Output());
}

TEST_F(NestedRun, TheOuterFailureIsTheLastOne)
{
    EXPECT_EQ(2, m_script.Run("run('error \"inner\"') error('outer')"));
    EXPECT_EQ("test:1: outer", m_script.Error());
}

TEST(LuaInterpreter, PackagePathsAreSet)
{
    CScript script;
    ASSERT_TRUE(script.Interpreter().SetPackagePaths("/b", "/x/?.lua", "/x/?.so"));
    EXPECT_EQ(0, lua_gettop(script.L()));
    const std::string path = script.Value("return package.path");
    const std::string cpath = script.Value("return package.cpath");
    EXPECT_EQ(0u, path.find("/x/?.lua;/b/?.lua;/b/?/init.lua;/usr/")) << path;
    EXPECT_EQ(0u, cpath.find("/x/?.so;/b/lib/?.so;/usr/")) << cpath;
    for (const std::string& list : {path, cpath}) {
        EXPECT_EQ(std::string::npos, list.find("./")) << list;
        EXPECT_EQ(std::string::npos, list.find(";;")) << list;
        EXPECT_NE(';', list.back()) << list;
    }
}

TEST(LuaInterpreter, PackagePathsCanBeSetAgainWithoutGrowing)
{
    CScript script;
    ASSERT_TRUE(script.Interpreter().SetPackagePaths("/b", "/x/?.lua", ""));
    const std::string once = script.Value("return package.path");
    script.Run("package.path = 'changed'");
    ASSERT_TRUE(script.Interpreter().SetPackagePaths("/b", "/x/?.lua", ""));
    EXPECT_EQ(once, script.Value("return package.path"));
}

TEST(LuaInterpreter, PackagePathsNeedThePackageLibrary)
{
    CScript script(false);
    EXPECT_FALSE(script.Interpreter().SetPackagePaths("/b", "", ""));
    ASSERT_EQ(1, lua_gettop(script.L()));
    EXPECT_TRUE(lua_isstring(script.L(), 1));
}

TEST(LuaInterpreter, TheEnvironmentDoesNotChooseWhatIsLoaded)
{
    for (const char* name : {"LUA_PATH", "LUA_CPATH", "LUA_PATH_5_2", "LUA_CPATH_5_2"})
        setenv(name, "/evil/?.lua", 1);
    CScript script;
    ASSERT_TRUE(script.Interpreter().SetPackagePaths("/b", "", ""));
    EXPECT_EQ("nil", script.Value("return package.path:find('evil')"));
    EXPECT_EQ("nil", script.Value("return package.cpath:find('evil')"));
    for (const char* name : {"LUA_PATH", "LUA_CPATH", "LUA_PATH_5_2", "LUA_CPATH_5_2"})
        unsetenv(name);
}

class RequiredFile : public testing::Test
{
protected:
    void SetUp() override { ASSERT_TRUE(m_script.Interpreter().SetPackagePaths(m_folder.Path(), "", "")); }

    VelTest::CTempFolder m_folder;
    CScript m_script;
};

TEST_F(RequiredFile, IsFoundByItsNameOrAsAPackage)
{
    m_folder.Write("one.lua", "return {...}");
    m_folder.Write("two/init.lua", "return 'two'");
    m_folder.Write("a/b.lua", "return 'a.b'");
    EXPECT_EQ("one," + (m_folder / "one.lua"), m_script.Value("return table.concat(require 'one', ',')"));
    EXPECT_EQ("two", m_script.Value("return require 'two'"));
    EXPECT_EQ("a.b", m_script.Value("return require 'a.b'"));
}

TEST_F(RequiredFile, ThatIsPrecompiledIsRefused)
{
    m_folder.Write("binary.lua", m_script.Value("return string.dump(function() return 1 end)"));
    EXPECT_EQ(2, m_script.Run("require 'binary'"));
    EXPECT_NE(std::string::npos, Info(m_script).find("binary chunk")) << Info(m_script);
    EXPECT_NE(std::string::npos, Info(m_script).find("binary.lua")) << Info(m_script);
}

TEST_F(RequiredFile, MayHaveAByteOrderMarkAndAFirstLineForTheShell)
{
    m_folder.Write("one.lua", "\xEF\xBB\xBF#!/usr/bin/lua\nreturn debug.getinfo(1, 'l').currentline");
    EXPECT_EQ("2", m_script.Value("return require 'one'"));
}

TEST_F(RequiredFile, WithASyntaxErrorIsNamed)
{
    m_folder.Write("bad.lua", "\nreturn +");
    EXPECT_EQ(2, m_script.Run("require 'bad'"));
    EXPECT_EQ("error loading module 'bad' from file '" + (m_folder / "bad.lua") + "':", m_script.Error());
}

TEST_F(RequiredFile, ThatRequiresItselfIsRefused)
{
    m_folder.Write("one.lua", "\nlocal two = require 'two'");
    m_folder.Write("two.lua", "return {go = function() require 'one' end}, require('three')");
    m_folder.Write("three.lua", "coroutine = nil\n\nrequire('one')");
    EXPECT_EQ(2, m_script.Run("require 'one'"));
    EXPECT_EQ((m_folder / "three.lua") + ":3: module 'one' is required again while it is being loaded",
              m_script.Error());
}

TEST_F(RequiredFile, ThatWasLoadedBeforeItsCallersIsNoLoop)
{
    m_folder.Write("one.lua", "local one = {} package.loaded[...] = one one.two = require 'two' return one");
    m_folder.Write("two.lua", "return {one = require 'one', later = function() return require 'three' end}");
    m_folder.Write("three.lua", "return require 'two'");
    EXPECT_EQ("true",
              m_script.Value("local one = require 'one' return one.two.one == one and one.two.later() == one.two"));
}

TEST_F(RequiredFile, ThatRunsAsAScriptMayRequireItselfAsAModule)
{
    m_folder.Write("one.lua", "if ... then return 'module' else return require 'one' end");
    EXPECT_EQ("module", m_script.Value("return dofile '" + (m_folder / "one.lua") + "'"));
    EXPECT_EQ("module", m_script.Value("package.loaded.one = nil return loadfile('" + (m_folder / "one.lua") + "')()"));
}

TEST_F(RequiredFile, UnderTwoNamesIsTwoModules)
{
    const std::string file = m_folder.Write("one.lua", "return ... == 'one' and require 'other' or ...");
    EXPECT_EQ("other", m_script.Value("package.path = package.path .. ';" + file + "' return require 'one'"));
}

TEST_F(RequiredFile, IsFoundFromADeepRecursionAsWell)
{
    m_folder.Write("one.lua",
                   "local function f(n) return n == 0 and require('two') or f(n - 1) + 0 end return f(100000)");
    m_folder.Write("two.lua", "return 5");
    EXPECT_EQ("5", m_script.Value("return require 'one'"));
}

TEST_F(RequiredFile, ThatIsMissingListsWhereItWasLookedFor)
{
    EXPECT_EQ(2, m_script.Run("require 'no.such'"));
    EXPECT_NE(std::string::npos, Info(m_script).find("no file '" + (m_folder / "no/such.lua") + "'")) << Info(m_script);
    EXPECT_NE(std::string::npos, Info(m_script).find("no file '" + (m_folder / "no/such/init.lua") + "'"));
}

TEST_F(RequiredFile, NeedsAPathThatIsText)
{
    EXPECT_EQ(2, m_script.Run("package.path = nil require 'x'"));
    EXPECT_EQ("'package.path' must be a string", m_script.Error());
}

// Gives the interpreter's state a budget of allocations.
class ShortMemory : public testing::Test
{
protected:
    // The status of a run with `allocations` allocations allowed.
    int RunWith(int allocations, const std::string& text)
    {
        CScript script;
        void* data = nullptr;
        const lua_Alloc plain = lua_getallocf(script.L(), &data);
        VelTest::CPoorState::Budget budget;
        budget.left = allocations;
        lua_setallocf(script.L(), VelTest::CPoorState::Allocate, &budget);
        const int status = script.Run(text);
        m_info = Info(script);
        lua_setallocf(script.L(), plain, data);
        EXPECT_EQ(0, lua_gettop(script.L()));
        EXPECT_EQ("2", script.Value("return 1 + 1")) << "after " << allocations << " allocations";
        return status;
    }

    std::string m_info;
};

TEST_F(ShortMemory, AtAnyPointIsAFailureAndNoMore)
{
    const std::string text = "local t = {} for i = 1, 20 do t[i] = ('x'):rep(100 + i) end print(#t)";
    int allocations = 0;
    int status = -1;
    for (; status != 0 && allocations < 1000; ++allocations) {
        status = RunWith(allocations, text);
        EXPECT_TRUE(status == 0 || status == 1 || status == 4) << status << " with " << allocations;
        EXPECT_EQ(status == 0, m_info.empty()) << allocations;
    }
    EXPECT_EQ(0, status);
    EXPECT_LT(20, allocations);
}

TEST_F(ShortMemory, WhileRunningGivesFour)
{
    const std::string text = "local t = {} for i = 1, 1e6 do t[i] = {} end";
    EXPECT_EQ(4, RunWith(500, text));
    EXPECT_EQ("not enough memory", m_info);
}

TEST_F(ShortMemory, WhileAnErrorIsDescribedIsAFailure)
{
    bool described = false;
    for (int allocations = 0; !described && allocations < 1000; ++allocations) {
        const int status = RunWith(allocations, "error('the message that a long description is made of')");
        EXPECT_TRUE(status == 1 || status == 2 || status == 4 || status == 6) << status << " with " << allocations;
        EXPECT_NE("", m_info) << allocations;
        described = status == 2;
    }
    EXPECT_TRUE(described);
}

} // namespace
