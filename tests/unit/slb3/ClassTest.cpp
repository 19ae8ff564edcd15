#include <SLB3/Wrapper.h>

#include <memory>
#include <new>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include <lua.hpp>

#include "support/Script.h"

namespace {

struct Counter
{
    int value = 0;
    ~Counter() { value = -1; }
};

struct Other
{
    int unused = 0;
};

int g_registrations = 0;

int Add(lua_State* L)
{
    Counter& counter = SLB3::Self<Counter>(L, "Add");
    counter.value += static_cast<int>(luaL_optinteger(L, 2, 1));
    lua_pushinteger(L, counter.value);
    return 1;
}

int ThrowBadAlloc(lua_State*)
{
    throw std::bad_alloc();
}

int ThrowLengthError(lua_State*)
{
    throw std::length_error("the length of it");
}

} // namespace

namespace SLB3 {

template <>
struct Wrapper<Counter>
{
    static const char* ClassName() { return "SLB.TestCounter"; }
    static void Register(lua_State* L, int namespaceAt)
    {
        ++g_registrations;
        AddMethod(L, namespaceAt, "Add", Guarded<Add>);
        AddMethod(L, namespaceAt, "ThrowBadAlloc", Guarded<ThrowBadAlloc>);
        AddMethod(L, namespaceAt, "ThrowLengthError", Guarded<ThrowLengthError>);
    }
};

template <>
struct Wrapper<Other>
{
    static const char* ClassName() { return "SLB.TestOther"; }
    static void Register(lua_State*, int) {}
};

} // namespace SLB3

namespace {

class SlbClass : public testing::Test
{
protected:
    void SetUp() override { g_registrations = 0; }

    lua_State* L() { return m_state.get(); }

    void Push(const char* global, Counter* counter)
    {
        const int top = lua_gettop(L());
        SLB3::Push(L(), counter);
        EXPECT_EQ(top + 1, lua_gettop(L()));
        lua_setglobal(L(), global);
    }

    // The value that the text returns, or the message.
    std::string Value(const std::string& text)
    {
        luaL_dostring(L(), text.c_str());
        const std::string value = luaL_tolstring(L(), -1, nullptr);
        lua_settop(L(), 0);
        return value;
    }

    std::unique_ptr<lua_State, void (*)(lua_State*)> m_state{NewState(), lua_close};
    Counter m_counter;

private:
    static lua_State* NewState()
    {
        lua_State* state = luaL_newstate();
        luaL_openlibs(state);
        return state;
    }
};

TEST_F(SlbClass, MethodsWorkOnTheObjectItself)
{
    Push("c", &m_counter);
    EXPECT_EQ("5", Value("return c:Add(5)"));
    EXPECT_EQ("6", Value("return c:Add()"));
    EXPECT_EQ(6, m_counter.value);
}

TEST_F(SlbClass, AnExceptionOfAMethodIsALuaError)
{
    Push("c", &m_counter);
    EXPECT_EQ("false not enough memory",
              Value("local ok, message = pcall(c.ThrowBadAlloc, c) return tostring(ok) .. ' ' .. message"));
    EXPECT_EQ("false the length of it",
              Value("local ok, message = pcall(c.ThrowLengthError, c) return tostring(ok) .. ' ' .. message"));
}

TEST_F(SlbClass, ExceptionsHaveTheStatusesOfLua)
{
    lua_pushcfunction(L(), [](lua_State* state) { return SLB3::CallGuarded(state, ThrowBadAlloc); });
    EXPECT_EQ(LUA_ERRMEM, lua_pcall(L(), 0, 0, 0));
    lua_pushcfunction(L(), [](lua_State* state) { return SLB3::CallGuarded(state, ThrowLengthError); });
    EXPECT_EQ(LUA_ERRRUN, lua_pcall(L(), 0, 0, 0));
}

TEST_F(SlbClass, ANullPointerIsNilAndDefinesNothing)
{
    Push("c", nullptr);
    EXPECT_EQ("nil", Value("return c"));
    EXPECT_EQ(0, g_registrations);
    EXPECT_EQ(nullptr, SLB3::FindClass(L(), "SLB.TestCounter"));
}

TEST_F(SlbClass, TheClassIsDefinedOnceInAState)
{
    Counter second;
    Push("a", &m_counter);
    Push("b", &second);
    EXPECT_EQ(1, g_registrations);
    EXPECT_EQ("true", Value("return getmetatable(a) == getmetatable(b)"));
    EXPECT_EQ("false", Value("return rawequal(a, b)"));
    EXPECT_EQ("1 2", Value("return a:Add() .. ' ' .. b:Add(2)"));
}

TEST_F(SlbClass, EachStateHasItsOwnClass)
{
    Push("a", &m_counter);
    const std::unique_ptr<lua_State, void (*)(lua_State*)> other(luaL_newstate(), lua_close);
    SLB3::Push(other.get(), &m_counter);
    EXPECT_EQ(2, g_registrations);
}

TEST_F(SlbClass, TheMetatableHasNamespaceNameAndCollector)
{
    Push("c", &m_counter);
    EXPECT_EQ("SLB.TestCounter", Value("return getmetatable(c).__class"));
    EXPECT_EQ("table", Value("return type(getmetatable(c).__index)"));
    EXPECT_EQ("function", Value("return type(getmetatable(c).__index.Add)"));
    EXPECT_EQ("function", Value("return type(getmetatable(c).__gc)"));
    EXPECT_EQ("nil", Value("return next(getmetatable(getmetatable(c).__index))"));
    EXPECT_EQ("true", Value("return debug.getregistry()['SLB.TestCounter'] == getmetatable(c)"));
}

TEST_F(SlbClass, TheClassInformationIsRegistered)
{
    EXPECT_EQ(nullptr, SLB3::FindClass(L(), "SLB.TestCounter"));
    Push("c", &m_counter);
    EXPECT_EQ(&SLB3::Class<Counter>(), SLB3::FindClass(L(), "SLB.TestCounter"));
    EXPECT_EQ(nullptr, SLB3::FindClass(L(), "SLB.TestOther"));
    EXPECT_EQ(0, lua_gettop(L()));
}

TEST_F(SlbClass, CollectionLeavesTheObjectAlone)
{
    m_counter.value = 7;
    Push("c", &m_counter);
    Value("c = nil collectgarbage() collectgarbage()");
    EXPECT_EQ(7, m_counter.value);
    Push("c", &m_counter);
    EXPECT_EQ("8", Value("return c:Add()"));
    m_state.reset();
    EXPECT_EQ(8, m_counter.value);
}

TEST_F(SlbClass, AnObjectMayOutliveItsCollector)
{
    Push("c", &m_counter);
    EXPECT_EQ("1", Value("getmetatable(c).__gc(c) return c:Add()"));
}

TEST_F(SlbClass, ABadSelfIsAnErrorThatNamesTheMethod)
{
    Other other;
    Push("c", &m_counter);
    SLB3::Push(L(), &other);
    lua_setglobal(L(), "other");
    const std::pair<const char*, const char*> cases[] = {
        {"c.Add()", "no value"},
        {"c.Add(nil)", "nil"},
        {"c.Add({})", "table"},
        {"c.Add('c')", "string"},
        {"c.Add(io.stdout)", "userdata"},
        {"c.Add(other)", "userdata"},
        {"c.Add(setmetatable({}, getmetatable(c)))", "table"},
    };
    for (const auto& [call, got] : cases) {
        const std::string message = Value(call);
        EXPECT_NE(std::string::npos,
                  message.find(std::string("calling 'Add' on bad self (SLB.TestCounter expected, got ") + got + ")"))
            << call << ": " << message;
    }
    EXPECT_EQ(0, m_counter.value);
}

// debug.setmetatable gives any userdata any metatable.
TEST_F(SlbClass, WhatOnlyHasTheMetatableIsNoObjectOfTheClass)
{
    Push("c", &m_counter);
    EXPECT_NE(std::string::npos, Value("local file = io.tmpfile() local own = getmetatable(file) "
                                       "debug.setmetatable(file, getmetatable(c)) "
                                       "local _, message = pcall(c.Add, file) getmetatable(c).__gc(file) "
                                       "debug.setmetatable(file, own) return message")
                                     .find("bad self (SLB.TestCounter expected, got userdata)"));
}

TEST_F(SlbClass, ADeepStackGrows)
{
    for (int i = 0; i < 19; ++i)
        lua_pushnil(L());
    SLB3::Push(L(), &m_counter);
    EXPECT_EQ(20, lua_gettop(L()));
}

TEST_F(SlbClass, AnInvalidObjectAborts)
{
    const SLB3::Object object = {SLB3::Storage::Invalid, &m_counter, &SLB3::Class<Counter>()};
    EXPECT_DEATH(SLB3::Unpack(object), "!\"Invalid object\"");
}

TEST_F(SlbClass, AMetatableThatIsNoTableAborts)
{
    lua_pushinteger(L(), 5);
    lua_setfield(L(), LUA_REGISTRYINDEX, "SLB.TestCounter");
    EXPECT_DEATH(SLB3::Push(L(), &m_counter), "lua_istable\\(L, meta_\\) && \"Invalid metatable\"");
}

TEST_F(SlbClass, AFailedCheckNamesItsPlaceAndAborts)
{
    EXPECT_EXIT(SLB3::AssertFailed("condition", "file.cpp", 5), testing::KilledBySignal(SIGABRT),
                "file.cpp:5: .*condition");
}

int PushCounter(lua_State* L)
{
    SLB3::Push(L, static_cast<Counter*>(lua_touserdata(L, 1)));
    return 1;
}

int PushProtected(lua_State* L, Counter* counter)
{
    lua_pushcfunction(L, PushCounter);
    lua_pushlightuserdata(L, counter);
    return lua_pcall(L, 1, 1, 0);
}

TEST_F(SlbClass, ShortMemoryIsALuaErrorAtAnyPoint)
{
    int status = LUA_ERRMEM;
    int allocations = 0;
    for (; status != LUA_OK && allocations < 200; ++allocations) {
        VelTest::CPoorState state;
        state.Allow(allocations);
        status = PushProtected(state.L(), &m_counter);
        EXPECT_TRUE(status == LUA_OK || status == LUA_ERRMEM) << status << " with " << allocations;
        EXPECT_EQ(0, state.Close()) << allocations;
    }
    EXPECT_EQ(LUA_OK, status);
    EXPECT_LT(5, allocations);
}

TEST_F(SlbClass, APushAfterOneThatRanOutOfMemoryGivesACompleteObject)
{
    int status = LUA_ERRMEM;
    for (int allocations = 0; status != LUA_OK && allocations < 200; ++allocations) {
        VelTest::CPoorState state;
        state.Allow(allocations);
        status = PushProtected(state.L(), &m_counter);
        lua_settop(state.L(), 0);
        state.AllowAll();
        ASSERT_EQ(LUA_OK, PushProtected(state.L(), &m_counter)) << allocations;
        lua_setglobal(state.L(), "c");
        EXPECT_EQ(LUA_OK, luaL_dostring(state.L(), "c:Add() assert(getmetatable(c).__class == 'SLB.TestCounter')"))
            << "after a push with " << allocations << " allocations: " << lua_tostring(state.L(), -1);
    }
    EXPECT_EQ(LUA_OK, status);
}

class SlbShared : public SlbClass
{
protected:
    // A counter that only Lua keeps, in a global.
    std::weak_ptr<Counter> PushShared(const char* global)
    {
        auto counter = std::make_shared<Counter>();
        std::weak_ptr<Counter> seen = counter;
        const int top = lua_gettop(L());
        SLB3::Share(SLB3::PushShared<Counter>(L()), std::move(counter));
        EXPECT_EQ(top + 1, lua_gettop(L()));
        lua_setglobal(L(), global);
        return seen;
    }
};

TEST_F(SlbShared, AnObjectLivesUntilItsLastShareIsCollected)
{
    const std::weak_ptr<Counter> seen = PushShared("a");
    EXPECT_EQ("5", Value("return a:Add(5)"));
    {
        const std::shared_ptr<Counter> kept = seen.lock();
        Value("a = nil collectgarbage()");
        EXPECT_EQ(5, kept->value);
    }
    EXPECT_TRUE(seen.expired());
}

TEST_F(SlbShared, CollectionByHandGivesUpTheShareOnceAndLeavesAnErrorBehind)
{
    const std::weak_ptr<Counter> seen = PushShared("a");
    EXPECT_EQ("nil", Value("for i = 1, 3 do getmetatable(a).__gc(a) end return nil"));
    EXPECT_TRUE(seen.expired());
    EXPECT_EQ("calling 'Add' on a collected object (SLB.TestCounter)", Value("return select(2, pcall(a.Add, a))"));
    EXPECT_EQ("nil", Value("a = nil collectgarbage() return nil"));
}

TEST_F(SlbShared, AnObjectWithoutAShareYetFailsAndCanBeCollected)
{
    SLB3::PushShared<Counter>(L());
    lua_setglobal(L(), "a");
    EXPECT_EQ("false", Value("return (pcall(a.Add, a))"));
    EXPECT_EQ("nil", Value("a = nil collectgarbage() return nil"));
}

TEST_F(SlbShared, ObjectsOfBothKindsHaveOneClass)
{
    Counter plain;
    Push("plain", &plain);
    PushShared("shared");
    EXPECT_EQ("true", Value("return getmetatable(plain) == getmetatable(shared)"));
    EXPECT_EQ(1, g_registrations);
    Value("plain = nil shared = nil collectgarbage()");
    EXPECT_EQ(0, plain.value);
}

} // namespace
