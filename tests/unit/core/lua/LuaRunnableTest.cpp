#include <VelCore/LuaRunnable.h>

#include <chrono>
#include <csignal>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include <lua.hpp>

#include <VelCore/LuaInterpreter.h>

#include "lua/PackedValues.h"
#include "support/Capture.h"
#include "support/TempFolder.h"

using VelCore::CLuaInterpreter;
using VelCore::CLuaRunnable;

namespace {

std::string g_folder;

void FindModulesInFolder(CLuaInterpreter& interpreter)
{
    interpreter.SetPackagePaths(g_folder, "", "");
}

void Fail(CLuaInterpreter& interpreter)
{
    luaL_error(interpreter.L(), "no preparation today");
}

bool AreStopSignalsBlocked()
{
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return sigismember(&mask, SIGINT) == 1 && sigismember(&mask, SIGTERM) == 1;
}

void RefuseOpenMask(CLuaInterpreter& interpreter)
{
    if (!AreStopSignalsBlocked())
        luaL_error(interpreter.L(), "SIGINT or SIGTERM is not blocked");
    FindModulesInFolder(interpreter);
}

class LuaRunnable : public testing::Test
{
protected:
    void SetUp() override
    {
        g_folder = m_folder.Path();
        CLuaRunnable::SetPreparation(FindModulesInFolder);
    }
    void TearDown() override { CLuaRunnable::SetPreparation(nullptr); }

    // The status of a module with this text.
    int Run(const std::string& text, const std::string& module = "worker")
    {
        m_folder.Write("worker.lua", text);
        auto runnable = std::make_shared<CLuaRunnable>(module, m_values);
        EXPECT_TRUE(runnable->start(50, true, 0));
        const int status = runnable->join();
        EXPECT_EQ(1, runnable.use_count()) << "the handle of the runnable's own state is gone with it";
        return status;
    }

    std::string Errors() const
    {
        std::string all;
        for (const std::string& text : m_log.Texts(wxLOG_Error))
            all += text + "\n";
        return all;
    }

    VelTest::CTempFolder m_folder;
    VelTest::CLogCapture m_log;
    std::string m_values;
};

TEST_F(LuaRunnable, StatusFollowsTheRulesOfThePhases)
{
    const struct
    {
        const char* result;
        int status;
    } cases[] = {{"", 0},     {"nil", 0}, {"true", 0},    {"{}", 0},  {"'text'", 0}, {"0", 0},
                 {"7", 7},    {"'5'", 5}, {"2^32", 0},    {"-1", -1}, {"3.7", 3},    {"2^31", -2147483647 - 1},
                 {"3, 4", 3}, {"0/0", 0}, {"2^32 + 3", 3}};
    for (const auto& each : cases)
        EXPECT_EQ(each.status, Run("return function() return " + std::string(each.result) + " end")) << each.result;
    EXPECT_EQ("", Errors());
}

TEST_F(LuaRunnable, AModuleReturnsTheFunctionOrATableWithIt)
{
    EXPECT_EQ(5, Run("return { run = function() return 5 end }"));
    EXPECT_EQ(6, Run("return function() return 6 end"));
}

TEST_F(LuaRunnable, AModuleThatReturnsSomethingElseFails)
{
    for (const char* text : {"", "return 5", "return {}", "return { run = 5 }", "return { main = print }"}) {
        EXPECT_EQ(2, Run(text)) << text;
        EXPECT_NE(std::string::npos,
                  Errors().find("module 'worker' returns neither a function nor a table with a function 'run'"));
    }
}

TEST_F(LuaRunnable, TheFunctionGetsTheRunnableAndTheValues)
{
    m_values = "nt";
    EXPECT_EQ(4, Run("return function(...) local self, none, yes = ...\n"
                     "assert(self:GetName() == 'worker' and self:IsRunning() and not self:TestDestroy())\n"
                     "assert(none == nil and yes == true) return select('#', ...) + 1 end"));
}

TEST_F(LuaRunnable, AnErrorIsARecordWithItsTraceback)
{
    EXPECT_EQ(2, Run("local function fail() error('no such disk') end\nreturn function() fail() return 0 end"));
    EXPECT_NE(std::string::npos, Errors().find("worker.lua:1: no such disk\nstack traceback:\n"));
    EXPECT_NE(std::string::npos, Errors().find("in function 'fail'"));
}

TEST_F(LuaRunnable, AModuleThatIsNotFoundIsNamed)
{
    EXPECT_EQ(2, Run("", "inventory.scanner"));
    EXPECT_EQ(0u, Errors().find("inventory.scanner:1: module 'inventory.scanner' not found:"));
}

TEST_F(LuaRunnable, AModuleThatDoesNotCompileIsNamed)
{
    EXPECT_EQ(2, Run("return function( end"));
    EXPECT_NE(std::string::npos, Errors().find("error loading module 'worker' from file"));
}

TEST_F(LuaRunnable, AFailureToPrepareIsARecordThatNamesTheModule)
{
    CLuaRunnable::SetPreparation(Fail);
    EXPECT_EQ(2, Run("return function() return 0 end"));
    EXPECT_EQ("Error setting up Lua:\nworker: no preparation today\n", Errors());
}

TEST_F(LuaRunnable, SigintAndSigtermAreBlockedWhateverTheStarterLetsIn)
{
    ASSERT_FALSE(AreStopSignalsBlocked());
    CLuaRunnable::SetPreparation(RefuseOpenMask);
    EXPECT_EQ(7, Run("return function() return 7 end")) << Errors();
}

TEST_F(LuaRunnable, HasTheStackThatRecursionThroughCNeeds)
{
    EXPECT_EQ(2, Run("local function deep(s) return s:gsub('.', deep) end return function() deep('x') end"));
    EXPECT_NE(std::string::npos, Errors().find("stack overflow"));
}

TEST_F(LuaRunnable, FinalizersOfItsStateRunAtItsEnd)
{
    const std::string mark = m_folder.Path() + "/mark";
    EXPECT_EQ(0, Run("keep = setmetatable({}, {__gc = function() io.open('" + mark +
                     "', 'w'):close() end}) "
                     "return function() end"));
    EXPECT_EQ(0, access(mark.c_str(), F_OK));
}

} // namespace
