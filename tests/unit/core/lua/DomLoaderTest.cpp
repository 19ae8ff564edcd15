#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <VelCore/Dom.h>
#include <VelCore/Utf8.h>

#include "support/RootDomain.h"
#include "support/Script.h"
#include "support/TempFolder.h"
#include "support/ZipBuilder.h"

using VelTest::CScript;
using VelTest::CZipBuilder;
using VelTest::ZipItem;

namespace {

ZipItem Item(const std::string& name, const std::string& content)
{
    ZipItem item;
    item.name = name;
    item.content = content;
    return item;
}

int RegisterLoader(lua_State* L)
{
    static_cast<const VelCore::CDom*>(lua_touserdata(L, 1))->RegisterLoader(L);
    return 0;
}

class DomLoader : public testing::Test
{
protected:
    std::string Archive(const std::string& name, const std::vector<ZipItem>& items)
    {
        const std::string path = m_folder.Write(name, CZipBuilder(items).Build());
        m_zippath += (m_zippath.empty() ? "" : ";") + path;
        return path;
    }

    void Register()
    {
        m_dom->Set("app.lua.zippath", m_zippath);
        m_dom->RegisterLoader(m_script.L());
        EXPECT_EQ(0, lua_gettop(m_script.L()));
    }

    std::string Info() const { return VelCore::ToUtf8(m_script.Interpreter().GetErrorInfo()); }

    VelTest::CTempFolder m_folder;
    std::unique_ptr<VelCore::CDom> m_dom = VelTest::NewDomain();
    std::string m_zippath;
    mutable CScript m_script;
};

TEST_F(DomLoader, RequireFindsModulesInArchives)
{
    Archive("a.kxe", {Item("one.lua", "return 'one'"), Item("two/init.lua", "return 'two'"),
                      Item("two/three.lua", "return 'three'")});
    Register();
    EXPECT_EQ("one", m_script.Value("return require 'one'"));
    EXPECT_EQ("two", m_script.Value("return require 'two'"));
    EXPECT_EQ("three", m_script.Value("return require 'two.three'"));
}

// Finalizers come while a module is looked for, read and compiled.
TEST_F(DomLoader, AFinalizerMayRequireWhileAModuleIsLoaded)
{
    std::vector<ZipItem> items;
    for (int i = 0; i < 50; ++i) {
        const std::string name = "module" + std::to_string(i);
        items.push_back(Item("much/longer/" + name + ".lua",
                             "local t = {} " + std::string(3000, ' ') + "t.name = '" + name + "' return t"));
        items.push_back(Item(name + ".lua", "local t = {} t.name = '" + name + "' t.other = 'text' return t"));
    }
    Archive("a.kxe", items);
    Register();
    EXPECT_EQ(0, m_script.Run("collectgarbage('setpause', 1) collectgarbage('setstepmul', 1000)\n"
                              "local busy, finalized = false, 0\n"
                              "local function litter()\n"
                              "  setmetatable({}, {__gc = function()\n"
                              "    if busy then return end\n"
                              "    busy, finalized = true, finalized + 1\n"
                              "    local name = 'much.longer.module' .. finalized % 50\n"
                              "    package.loaded[name] = nil\n"
                              "    assert('module' .. finalized % 50 == require(name).name)\n"
                              "    pcall(require, 'a.module.that.is.in.no.archive.at.all' .. finalized)\n"
                              "    busy = false\n"
                              "  end})\n"
                              "end\n"
                              "for round = 1, 20 do\n"
                              "  for i = 0, 49 do\n"
                              "    for _ = 1, 20 do litter() end\n"
                              "    package.loaded['module' .. i] = nil\n"
                              "    assert(require('module' .. i).name == 'module' .. i)\n"
                              "  end\n"
                              "end\n"
                              "assert(finalized > 100, finalized)"))
        << Info();
}

TEST_F(DomLoader, StandsBehindTheFileSearcherAndAheadOfTheOthers)
{
    m_script.Run("before = {} for i, s in ipairs(package.searchers) do before[i] = s end");
    Register();
    EXPECT_EQ(0, m_script.Run("assert(#package.searchers == #before + 1)\n"
                              "for i = 1, 2 do assert(package.searchers[i] == before[i]) end\n"
                              "for i = 3, #before do assert(package.searchers[i + 1] == before[i]) end\n"))
        << Info();
}

TEST_F(DomLoader, RefusesModulesThatRequireEachOther)
{
    const std::string a = Archive("a.kxe", {Item("one.lua", "return require 'two'")});
    const std::string b = Archive("b.kxe", {Item("two/init.lua", "\nreturn require 'one'")});
    Register();
    EXPECT_EQ(2, m_script.Run("require 'one'"));
    EXPECT_NE(std::string::npos, Info().find(":2: module 'one' is required again while it is being loaded\n"))
        << Info();
    EXPECT_EQ(2, m_script.Run("require 'two'"));
    EXPECT_NE(std::string::npos, Info().find(":1: module 'two' is required again while it is being loaded\n"))
        << Info();
    EXPECT_NE(std::string::npos, Info().find("\n\t" + a + "/one.lua:1: in main chunk\n")) << Info();
    EXPECT_NE(std::string::npos, Info().find("\n\t" + b + "/two/init.lua:2: in main chunk\n")) << Info();
}

TEST_F(DomLoader, AFileGoesBeforeAnArchive)
{
    m_folder.Write("lib/one.lua", "return 'file'");
    Archive("a.kxe", {Item("one.lua", "return 'archive'")});
    ASSERT_TRUE(m_script.Interpreter().SetPackagePaths(m_folder / "lib", "", ""));
    Register();
    EXPECT_EQ("file", m_script.Value("return require 'one'"));
}

TEST_F(DomLoader, TheFirstArchiveWins)
{
    Archive("a.kxe", {Item("one/init.lua", "return 'first'")});
    Archive("b.kxe", {Item("one.lua", "return 'second'"), Item("two.lua", "return 'second'")});
    Register();
    EXPECT_EQ("first", m_script.Value("return require 'one'"));
    EXPECT_EQ("second", m_script.Value("return require 'two'"));
}

TEST_F(DomLoader, ChunkNameAndSecondArgumentAreArchiveAndEntry)
{
    const std::string path =
        Archive("a.kxe", {Item("p/init.lua", "return table.concat({debug.getinfo(1, 'S').source, ...}, ' ')")});
    Register();
    EXPECT_EQ("@" + path + "/p/init.lua p " + path + "/p/init.lua", m_script.Value("return require 'p'"));
}

TEST_F(DomLoader, TracebacksShowWhereCodeCameFrom)
{
    const std::string path = Archive("a.kxe", {Item("one.lua", "return function()\n  error('broken')\nend")});
    Register();
    EXPECT_EQ(2, m_script.Run("require 'one'()"));
    EXPECT_EQ(path + "/one.lua:2: broken", m_script.Error());
}

TEST_F(DomLoader, AModuleFoundNowhereAddsALinePerArchive)
{
    const std::string first = Archive("a.kxe", {});
    const std::string second = Archive("b.kxe", {Item("one.lua", "")});
    Register();
    EXPECT_EQ(2, m_script.Run("require 'no.such'"));
    EXPECT_EQ("test:1: module 'no.such' not found:", m_script.Error());
    for (const std::string& path : {first, second})
        EXPECT_NE(std::string::npos, Info().find("\n\tno module 'no.such' in archive '" + path + "'\n")) << Info();
}

TEST_F(DomLoader, WithoutArchivesRequireFailsAsEver)
{
    Register();
    EXPECT_EQ(2, m_script.Run("require 'no.such'"));
    EXPECT_EQ("test:1: module 'no.such' not found:", m_script.Error());
    EXPECT_EQ(std::string::npos, Info().find("archive"));
}

TEST_F(DomLoader, AnArchiveThatCannotBeReadIsReportedAndTheOthersSearched)
{
    m_zippath = m_folder.Write("damaged.kxe", "no archive");
    Archive("b.kxe", {Item("one.lua", "return 'one'")});
    Register();
    EXPECT_EQ("one", m_script.Value("return require 'one'"));
    const auto errors = m_script.Log().Texts(wxLOG_Error);
    ASSERT_EQ(1u, errors.size());
    EXPECT_NE(std::string::npos, errors[0].find("damaged.kxe")) << errors[0];
}

TEST_F(DomLoader, ADamagedEntryIsAnErrorThatNamesArchiveAndEntry)
{
    ZipItem damaged = Item("bad.lua", "return 'a text that is long enough to be deflated'");
    damaged.directoryCrc = 1;
    damaged.localCrc = 1;
    const std::string path = Archive("a.kxe", {damaged, Item("good.lua", "return 'good'")});
    Register();
    EXPECT_EQ(2, m_script.Run("require 'bad'"));
    for (const std::string& word : {std::string("bad.lua"), path})
        EXPECT_NE(std::string::npos, m_script.Error().find(word)) << m_script.Error();
    EXPECT_EQ("good", m_script.Value("return require 'good'"));
}

TEST_F(DomLoader, ASyntaxErrorIsAnErrorThatNamesArchiveEntryAndLine)
{
    const std::string path = Archive("a.kxe", {Item("bad.lua", "\nreturn +")});
    Register();
    EXPECT_EQ(2, m_script.Run("require 'bad'"));
    EXPECT_NE(std::string::npos, Info().find(path + "/bad.lua")) << Info();
    EXPECT_NE(std::string::npos, Info().find("bad.lua:2:")) << Info();
}

TEST_F(DomLoader, APrecompiledModuleIsRefused)
{
    Archive("a.kxe", {Item("binary.lua", m_script.Value("return string.dump(function() return 1 end)"))});
    Register();
    EXPECT_EQ(2, m_script.Run("require 'binary'"));
    EXPECT_NE(std::string::npos, Info().find("binary chunk")) << Info();
}

TEST_F(DomLoader, AByteOrderMarkAndAFirstLineForTheShellAreSkipped)
{
    Archive("a.kxe", {Item("one.lua", "\xEF\xBB\xBF#!lua\nreturn debug.getinfo(1, 'l').currentline")});
    Register();
    EXPECT_EQ("2", m_script.Value("return require 'one'"));
}

TEST_F(DomLoader, AModuleIsLoadedOnce)
{
    Archive("a.kxe", {Item("one.lua", "loads = (loads or 0) + 1 return {}")});
    Register();
    EXPECT_EQ("true", m_script.Value("return require 'one' == require 'one'"));
    EXPECT_EQ("1", m_script.Value("return loads"));
}

TEST_F(DomLoader, TheListIsReadWhenTheLoaderIsRegistered)
{
    Register();
    Archive("a.kxe", {Item("one.lua", "return 'one'")});
    m_dom->Set("app.lua.zippath", m_zippath);
    EXPECT_EQ(2, m_script.Run("require 'one'"));

    CScript later;
    m_dom->RegisterLoader(later.L());
    EXPECT_EQ("one", later.Value("return require 'one'"));
}

TEST_F(DomLoader, ModuleVelArchivesTellsWhatThereIs)
{
    Archive("1.kxe", {Item("greet/words.lua", ""), Item("greet/all.lua", ""), Item("top.lua", "")});
    Register();
    EXPECT_EQ("all words", m_script.Value("return table.concat(require('vel.archives').Names('greet'), ' ')"));
    EXPECT_EQ("top", m_script.Value("return table.concat(require('vel.archives').Names(''), ' ')"));
    EXPECT_EQ("0", m_script.Value("return #require('vel.archives').Names('greet.words')"));
    EXPECT_EQ("false", m_script.Value("return tostring((pcall(require('vel.archives').Names)))"));
}

TEST_F(DomLoader, TheLoaderOutlivesTheDomain)
{
    Archive("a.kxe", {Item("one.lua", "return 'one'")});
    Register();
    m_dom.reset();
    EXPECT_EQ("one", m_script.Value("return require 'one'"));
}

TEST_F(DomLoader, ModulesAreFoundByCollectorsAtTheVeryEnd)
{
    Archive("a.kxe", {Item("one.lua", "return 'one'")});
    const VelTest::CDescriptorCapture out(STDOUT_FILENO);
    {
        CScript script;
        m_dom->Set("app.lua.zippath", m_zippath);
        m_dom->RegisterLoader(script.L());
        script.Run("keep = setmetatable({}, {__gc = function() io.stdout:write(require 'one') end})");
    }
    EXPECT_EQ("one", out.Text());
}

TEST_F(DomLoader, WithoutThePackageLibraryIsALuaError)
{
    CScript bare(false);
    for (const char* preparation : {"", "package = {}", "package = {searchers = 1}"}) {
        ASSERT_EQ(0, bare.Run(preparation));
        lua_pushcfunction(bare.L(), RegisterLoader);
        lua_pushlightuserdata(bare.L(), m_dom.get());
        EXPECT_EQ(LUA_ERRRUN, lua_pcall(bare.L(), 1, 0, 0)) << preparation;
        EXPECT_TRUE(lua_isstring(bare.L(), -1));
        lua_settop(bare.L(), 0);
    }
}

TEST_F(DomLoader, ShortMemoryIsALuaErrorAtAnyPoint)
{
    Archive("a.kxe", {Item("one.lua", "return 'one'")});
    m_dom->Set("app.lua.zippath", m_zippath);
    int status = LUA_ERRMEM;
    int allocations = 0;
    for (; status != LUA_OK && allocations < 200; ++allocations) {
        VelTest::CPoorState state;
        state.Allow(allocations);
        lua_pushcfunction(state.L(), RegisterLoader);
        lua_pushlightuserdata(state.L(), m_dom.get());
        status = lua_pcall(state.L(), 1, 0, 0);
        EXPECT_TRUE(status == LUA_OK || status == LUA_ERRMEM) << status << " with " << allocations;
        EXPECT_EQ(0, state.Close()) << allocations;
    }
    EXPECT_EQ(LUA_OK, status);
    EXPECT_LT(3, allocations);
}

TEST_F(DomLoader, ShortMemoryWhileAModuleIsLoadedIsALuaErrorAtAnyPoint)
{
    Archive("a.kxe", {Item("one.lua", "local t = {} t.x = 'text' return t")});
    m_dom->Set("app.lua.zippath", m_zippath);
    int status = LUA_ERRMEM;
    int allocations = 0;
    for (; status != LUA_OK && allocations < 500; ++allocations) {
        VelTest::CPoorState state;
        m_dom->RegisterLoader(state.L());
        ASSERT_EQ(LUA_OK, luaL_loadstring(state.L(), "return require 'one'"));
        state.Allow(allocations);
        status = lua_pcall(state.L(), 0, 1, 0);
        EXPECT_TRUE(status == LUA_OK || status == LUA_ERRMEM || status == LUA_ERRRUN) << status;
        EXPECT_EQ(0, state.Close()) << allocations;
    }
    EXPECT_EQ(LUA_OK, status);
    EXPECT_LT(10, allocations);
}

} // namespace
