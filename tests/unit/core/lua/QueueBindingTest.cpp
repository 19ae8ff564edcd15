#include "lua/Queue_Binding.h"

#include <string>

#include <gtest/gtest.h>

#include "support/Script.h"

namespace {

class QueueBinding : public testing::Test
{
protected:
    void SetUp() override { ASSERT_EQ(0, m_script.Run("Open = require('vel.queues').Open q = Open('binding', 3)")); }
    void TearDown() override { m_script.Run("while q:Pop(0) ~= nil do end"); }

    std::string Value(const std::string& text) { return m_script.Value(text); }

    VelTest::CScript m_script;
};

TEST_F(QueueBinding, AMessageComesOutAsItWentIn)
{
    EXPECT_EQ("true", Value("return q:Push({ 'a', x = { true, 1.5 } })"));
    EXPECT_EQ("a true 1.5", Value("local m = q:Pop() return m[1] .. ' ' .. tostring(m.x[1]) .. ' ' .. m.x[2]"));
    EXPECT_EQ("true", Value("return q:Push(false)"));
    EXPECT_EQ("boolean", Value("return type(q:Pop())"));
    EXPECT_EQ("nil", Value("return q:Pop(0)"));
}

TEST_F(QueueBinding, AQueueIsSharedByStatesUnderItsName)
{
    VelTest::CScript other;
    EXPECT_EQ("true", Value("return q:Push('from here')"));
    EXPECT_EQ("from here", other.Value("return require('vel.queues').Open('binding'):Pop(0)"));
    EXPECT_EQ("nil", other.Value("return require('vel.queues').Open('another'):Pop(0)"));
}

TEST_F(QueueBinding, AFullQueueRefusesAfterTheWait)
{
    EXPECT_EQ("true", Value("return q:Push(1) and q:Push(2) and q:Push(3)"));
    EXPECT_EQ("false", Value("return q:Push(4, 0)"));
    EXPECT_EQ("false", Value("return q:Push(4, 20)"));
    EXPECT_EQ("true", Value("Open('binding', 4) return q:Push(4, 0)"));
    EXPECT_EQ("1", Value("return q:Pop()"));
}

TEST_F(QueueBinding, WrongArgumentsAreErrors)
{
    const struct
    {
        const char* call;
        const char* message;
    } cases[] = {
        {"q:Push()", "bad argument #1 to 'Push' (string, boolean, number or table expected, got no value)"},
        {"q:Push(nil)", "bad argument #1 to 'Push' (string, boolean, number or table expected, got nil)"},
        {"q:Push(print)",
         "bad argument #1 to 'Push' (only strings, booleans, numbers and tables of these can be handed over)"},
        {"q:Push({ q })",
         "bad argument #1 to 'Push' (only strings, booleans, numbers and tables of these can be handed over)"},
        {"q:Push(1, 'x')", "bad argument #2 to 'Push' (number expected, got string)"},
        {"q:Pop({})", "bad argument #1 to 'Pop' (number expected, got table)"},
        {"q.Pop()", "calling 'Pop' on bad self (SLB.Queue expected, got no value)"},
        {"Open()", "bad argument #1 to 'Open' (string expected, got no value)"},
        {"Open('')", "bad argument #1 to 'Open' (empty name)"},
        {"Open('x', 0)", "bad argument #2 to 'Open' (limit out of range)"},
        {"Open('x', 0/0)", "bad argument #2 to 'Open' (limit out of range)"},
        {"Open('x', math.huge)", "bad argument #2 to 'Open' (limit out of range)"},
    };
    for (const auto& each : cases)
        EXPECT_EQ(std::string(each.message), Value(std::string("return select(2, pcall(function() local x = ") +
                                                   each.call + " return x end)):gsub('^test:1: ', '')"))
            << each.call;
}

TEST_F(QueueBinding, FinalizersMayUseQueuesWhileAMessageIsUnpacked)
{
    EXPECT_EQ("true", Value("q:Push(('x'):rep(10000)) local words = {} for i = 1, 2000 do words[i] = 'word ' .. i end "
                            "q:Push(words) Open('binding.other'):Push(('y'):rep(20000)) q:Pop() "
                            "for i = 1, 100 do setmetatable({}, { __gc = function() "
                            "  local o = Open('binding.other') o:Push(o:Pop(0) or 'z') end }) end "
                            "collectgarbage('setpause', 0) local m = q:Pop() Open('binding.other'):Pop(0) "
                            "for i = 1, 2000 do if m[i] ~= 'word ' .. i then return i end end return true"));
}

TEST_F(QueueBinding, ShortMemoryIsALuaErrorAtAnyPointAndLosesNoMemory)
{
    int status = LUA_ERRMEM;
    int allocations = 0;
    for (; status != LUA_OK && allocations < 500; ++allocations) {
        VelTest::CPoorState state;
        VelCore::InstallQueues(state.L());
        ASSERT_EQ(LUA_OK,
                  luaL_loadstring(state.L(), "local q = require('vel.queues').Open('poor') "
                                             "q:Push(('long'):rep(50)) q:Push({ a = { 1 } }) q:Pop(0) q:Pop(0)"));
        state.Allow(allocations);
        status = lua_pcall(state.L(), 0, 0, 0);
        EXPECT_TRUE(status == LUA_OK || status == LUA_ERRMEM || status == LUA_ERRRUN) << status;
        EXPECT_EQ(0, state.Close()) << allocations;
    }
    EXPECT_EQ(LUA_OK, status);
    EXPECT_LT(5, allocations);
}

} // namespace
