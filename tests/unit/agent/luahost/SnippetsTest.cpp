#include "luahost/Snippets.h"

#include <string>

#include <gtest/gtest.h>

#include <VelCore/Utf8.h>

#include "support/Script.h"

namespace {

TEST(Snippets, TheTexts)
{
    EXPECT_EQ(L"velAppModule = require([[hello]]);", RequireSnippet(L"hello"));
    EXPECT_EQ(L"if type(velAppModule.init) == 'function' then return velAppModule.init(); else return 0; end;",
              MethodSnippet(L"init"));
    EXPECT_EQ(L"velunit = require('tests.velunit'); return velunit(\"tests/*.lua\");", UnitTestChunk(L"tests/*.lua"));
}

TEST(Snippets, NamesAndSpecificationsAreInsertedAsTheyAre)
{
    EXPECT_EQ(L"velAppModule = require([[a]]b\\]]);", RequireSnippet(L"a]]b\\"));
    EXPECT_EQ(L"velunit = require('tests.velunit'); return velunit(\"a\\b\"c\");", UnitTestChunk(L"a\\b\"c"));
}

class MethodSnippetRun : public testing::Test
{
protected:
    std::string Call(const std::string& module)
    {
        m_script.Run("velAppModule = " + module);
        return m_script.Value(VelCore::ToUtf8(MethodSnippet(L"main")));
    }

    VelTest::CScript m_script;
};

TEST_F(MethodSnippetRun, CallsTheFunctionWithoutArguments)
{
    EXPECT_EQ("7", Call("{main = function(...) return 7 + select('#', ...) end}"));
}

TEST_F(MethodSnippetRun, AModuleWithoutTheFunctionSucceeds)
{
    EXPECT_EQ("0", Call("{}"));
    EXPECT_EQ("0", Call("{main = 5}"));
    EXPECT_EQ("0", Call("{main = setmetatable({}, {__call = function() return 9 end})}"));
}

TEST_F(MethodSnippetRun, AModuleThatIsNoTableIsAnError)
{
    EXPECT_NE(std::string::npos, Call("true").find("attempt to index global 'velAppModule' (a boolean value)"));
}

TEST_F(MethodSnippetRun, ErrorsPassThrough)
{
    EXPECT_NE(std::string::npos, Call("{main = function() error('broken') end}").find("broken"));
}

TEST(Snippets, RequireKeepsTheModule)
{
    VelTest::CScript script;
    script.Run("package.preload['my app'] = function(name) return 'module ' .. name end");
    EXPECT_EQ(0, script.Run(VelCore::ToUtf8(RequireSnippet(L"my app"))));
    EXPECT_EQ("module my app", script.Value("return velAppModule"));
}

TEST(Snippets, TheTestDriverGetsTheSpecification)
{
    VelTest::CScript script;
    script.Run("package.preload['tests.velunit'] = function() return function(spec) return 'ran ' .. spec end end");
    EXPECT_EQ("ran tests/*.lua", script.Value(VelCore::ToUtf8(UnitTestChunk(L"tests/*.lua"))));
    EXPECT_EQ("function", script.Value("return type(velunit)"));
}

} // namespace
