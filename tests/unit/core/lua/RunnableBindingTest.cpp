#include "lua/Runnable_Binding.h"

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include <VelCore/DomBinding.h>

#include "support/RootDomain.h"
#include "support/Script.h"
#include "support/TempFolder.h"

using VelCore::CLuaInterpreter;
using VelCore::CLuaRunnable;

namespace {

std::string g_folder;
VelCore::CDom* g_dom = nullptr;

void Prepare(CLuaInterpreter& interpreter)
{
    interpreter.SetPackagePaths(g_folder, "", "");
    SLB3::Push(interpreter.L(), g_dom);
    lua_setglobal(interpreter.L(), "dom");
}

// A script with `dom`, which goes with the test, so every runnable that uses it is joined there; a module "waiter" that
// waits to be asked and returns 7, and "echo" that tells its arguments.
class RunnableBinding : public testing::Test
{
protected:
    void SetUp() override
    {
        g_folder = m_folder.Path();
        g_dom = m_dom.get();
        CLuaRunnable::SetPreparation(Prepare);
        Prepare(m_script.Interpreter());
        Module("waiter", "while not self:TestDestroy(60000) do end return 7");
        Module("echo", "local all = {...} for i = 1, select('#', ...) do "
                       "all[i] = type(all[i]) .. ' ' .. tostring(all[i]) end dom:Set('echo', table.concat(all, ', '))");
    }
    void TearDown() override { CLuaRunnable::SetPreparation(nullptr); }

    void Module(const std::string& name, const std::string& body)
    {
        m_folder.Write(name + ".lua", "return function(self, ...) " + body + " end");
    }
    std::string Value(const std::string& text) { return m_script.Value(text); }

    // What two values are, with a blank between.
    std::string Values(const std::string& expressions)
    {
        return Value(
            "local function show(...) local all = {...} for i = 1, select('#', ...) do all[i] = tostring(all[i]) "
            "end return table.concat(all, ' ') end return show(" +
            expressions + ")");
    }

    VelTest::CTempFolder m_folder;
    std::unique_ptr<VelCore::CDom> m_dom = VelTest::NewRootDomain();
    VelTest::CScript m_script;
};

TEST_F(RunnableBinding, ARunnableRunsUntilItIsAsked)
{
    EXPECT_EQ(0, m_script.Run("r = dom:StartRunnable('waiter')")) << m_script.Error();
    EXPECT_EQ("waiter", Value("return r:GetName()"));
    EXPECT_EQ("true false", Values("r:IsRunning(), r:TestDestroy()"));
    EXPECT_EQ("false", Values("r:Join(0)"));
    EXPECT_EQ("false", Values("r:Join(20)"));
    EXPECT_EQ("0", Values("select('#', r:RequestExit())"));
    EXPECT_EQ("true 7", Values("r:Join()"));
    EXPECT_EQ("false true", Values("r:IsRunning(), r:TestDestroy()"));
    EXPECT_EQ("true 7", Values("r:Join(0)"));
    EXPECT_EQ(0, m_script.Run("r:RequestExit()"));
}

TEST_F(RunnableBinding, ValuesArriveAsTheyAre)
{
    EXPECT_EQ("true 0", Values("dom:StartRunnable('echo', nil, true, false, 1.5, 'x', '', nil):Join()"));
    EXPECT_EQ("nil nil, boolean true, boolean false, number 1.5, string x, string , nil nil", m_dom->Get("echo"));
    EXPECT_EQ("true 0", Values("dom:StartRunnable('echo'):Join()"));
    EXPECT_EQ("", m_dom->Get("echo"));
}

TEST_F(RunnableBinding, ACollectedHandleDoesNotStopItsRunnable)
{
    Module("patient", "while dom:Get('go') ~= true do self:TestDestroy(1) end dom:Set('stopped', self:TestDestroy())");
    EXPECT_EQ(0, m_script.Run("dom:StartRunnable('patient') for i = 1, 3 do collectgarbage() end dom:Set('go', true)"));
    EXPECT_EQ("false", Value("while not dom:Has('stopped') do end return dom:Get('stopped')"));
}

TEST_F(RunnableBinding, TestDestroyWaitsAsLongAsItIsTold)
{
    Module("sleeper", "local start = dom:TimeNowMillis() local asked = self:TestDestroy(50) "
                      "dom:Set('asked', asked) dom:Set('slept', dom:TimeNowMillis() - start)");
    EXPECT_EQ("true 0", Values("dom:StartRunnable('sleeper'):Join()"));
    EXPECT_EQ("false", Value("return dom:Get('asked')"));
    EXPECT_EQ("true", Value("return dom:Get('slept') >= 49"));
}

TEST_F(RunnableBinding, ARunnableDoesNotWaitForItself)
{
    Module("selfish",
           "local finished, status = self:Join() dom:Set('finished', tostring(finished) .. tostring(status))");
    EXPECT_EQ("true 0", Values("dom:StartRunnable('selfish'):Join()"));
    EXPECT_EQ("falsenil", m_dom->Get("finished"));
}

TEST_F(RunnableBinding, RequestExitInterruptsABlockingCall)
{
    Module("blocked", "local fifo = io.open('" + m_folder.Path() +
                          "/fifo', 'r+') dom:Set('reading', true) "
                          "repeat fifo:read() until self:TestDestroy() return 5");
    ASSERT_EQ(0, mkfifo((m_folder.Path() + "/fifo").c_str(), 0600));
    EXPECT_EQ("true 5", Values("(function() local r = dom:StartRunnable('blocked') while not dom:Has('reading') do end "
                               "r:RequestExit() return r:Join() end)()"));
}

TEST_F(RunnableBinding, RunnablesStartRunnables)
{
    Module("parent", "local child = dom:StartRunnable('waiter') child:RequestExit() local _, status = child:Join() "
                     "return status + 1");
    EXPECT_EQ("true 8", Values("dom:StartRunnable('parent'):Join()"));
}

TEST_F(RunnableBinding, AFailureIsAStatusAndTheStarterGoesOn)
{
    Module("broken", "error('broken')");
    EXPECT_EQ("true 2", Values("dom:StartRunnable('broken'):Join()"));
    EXPECT_EQ("true 2", Values("dom:StartRunnable('no.such.module'):Join()"));
}

TEST_F(RunnableBinding, WrongArgumentsAreErrorsThatNameMethodAndPosition)
{
    const struct
    {
        const char* call;
        const char* message;
    } cases[] = {
        {"dom:StartRunnable()", "bad argument #1 to 'StartRunnable' (string expected, got no value)"},
        {"dom:StartRunnable(nil)", "bad argument #1 to 'StartRunnable' (string expected, got nil)"},
        {"dom:StartRunnable({})", "bad argument #1 to 'StartRunnable' (string expected, got table)"},
        {"dom:StartRunnable('')", "bad argument #1 to 'StartRunnable' (empty name)"},
        {"dom:StartRunnable('waiter', {})",
         "bad argument #2 to 'StartRunnable' (string, boolean, number or nil expected, got table)"},
        {"dom:StartRunnable('waiter', nil, 1, print)",
         "bad argument #4 to 'StartRunnable' (string, boolean, number or nil expected, got function)"},
        {"dom:StartRunnable('waiter', dom)",
         "bad argument #2 to 'StartRunnable' (string, boolean, number or nil expected, got userdata)"},
        {"r:TestDestroy('soon')", "bad argument #1 to 'TestDestroy' (number expected, got string)"},
        {"r:Join({})", "bad argument #1 to 'Join' (number expected, got table)"},
        {"r.Join(dom)", "calling 'Join' on bad self (SLB.Runnable expected, got userdata)"},
        {"r.IsRunning()", "calling 'IsRunning' on bad self (SLB.Runnable expected, got no value)"},
    };
    EXPECT_EQ(0, m_script.Run("r = dom:StartRunnable('echo')"));
    for (const auto& each : cases)
        EXPECT_EQ(std::string(each.message), Value(std::string("return select(2, pcall(function() local x = ") +
                                                   each.call + " return x end)):gsub('^test:1: ', '')"))
            << each.call;
    EXPECT_EQ("true 0", Values("r:Join()"));
}

TEST_F(RunnableBinding, TimesThatAreNoTimesAreTheNearestOnes)
{
    EXPECT_EQ(0, m_script.Run("r = dom:StartRunnable('waiter')"));
    EXPECT_EQ("false", Values("r:Join(-1)"));
    EXPECT_EQ("false", Values("r:Join(0/0)"));
    EXPECT_EQ("false", Values("r:TestDestroy(-math.huge)"));
    EXPECT_EQ("false", Values("r:Join('5')"));
    EXPECT_EQ("true 7", Values("(function() r:RequestExit() return r:Join(math.huge) end)()"));
    EXPECT_EQ("true", Values("r:TestDestroy(math.huge)"));
}

TEST_F(RunnableBinding, ThousandsInARowLeaveNothingBehind)
{
    EXPECT_EQ("true", Value("local all = {} for i = 1, 300 do all[i] = dom:StartRunnable('echo', i) end "
                            "for i = 1, 300 do assert(all[i]:Join()) end "
                            "for i = 1, 300 do assert(dom:StartRunnable('echo', i):Join()) end return true"));
}

} // namespace
