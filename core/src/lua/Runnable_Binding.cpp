// Starting runnables from Lua, and the methods of their handles.
//
// Lua leaves a failing function by longjmp, which runs no destructors, so arguments are checked and the handle is made
// before the runnable is.
//
// Tested by: unit/core/lua/RunnableBindingTest.cpp, blackbox/test_runnables.py.

#include "lua/Runnable_Binding.h"

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include <lua.hpp>

#include <VelCore/DomBinding.h>
#include <VelCore/RunnableRegistry.h>

#include "lua/Arguments.h"
#include "lua/PackedValues.h"

namespace VelCore {
namespace {

using Handle = SLB3::SharedObject<CLuaRunnable>;

const char* const kStart = "StartRunnable";

void CheckValues(lua_State* L, int first, int last)
{
    for (int at = first; at <= last; ++at) {
        switch (lua_type(L, at)) {
        case LUA_TNIL:
        case LUA_TBOOLEAN:
        case LUA_TNUMBER:
        case LUA_TSTRING:
            break;
        default:
            TypeError(L, kStart, at - 1, "string, boolean, number or nil");
        }
    }
}

void Start(Handle& handle, const LuaText& module, lua_State* L, int first, int last)
{
    std::string values;
    for (int at = first; at <= last; ++at)
        PackValue(L, at, values);
    auto runnable = std::make_shared<CLuaRunnable>(std::string(module.View()), std::move(values));
    CRunnableRegistry::Get().Start(runnable);
    SLB3::Share(handle, std::move(runnable));
}

int TestDestroy(lua_State* L)
{
    CRunnable& runnable = SLB3::Self<CLuaRunnable>(L, "TestDestroy");
    const unsigned int wait = OptMilliseconds(L, "TestDestroy", 1, 0);
    lua_pushboolean(L, wait == 0 ? runnable.TestDestroy() : runnable.TestDestroy(wait, nullptr));
    return 1;
}

int RequestExit(lua_State* L)
{
    CRunnable& runnable = SLB3::Self<CLuaRunnable>(L, "RequestExit");
    runnable.requestExit();
    runnable.interrupt();
    return 0;
}

// A runnable that waited for its own end would wait for ever.
bool AwaitEnd(CRunnable& runnable, unsigned int wait)
{
    if (CRunnable::Current() == &runnable)
        return false;
    using Clock = std::chrono::steady_clock;
    return runnable.AwaitEnd(wait == kNoLimit ? Clock::time_point::max()
                                              : Clock::now() + std::chrono::milliseconds(wait));
}

int Join(lua_State* L)
{
    CRunnable& runnable = SLB3::Self<CLuaRunnable>(L, "Join");
    const bool finished = AwaitEnd(runnable, OptMilliseconds(L, "Join", 1, kNoLimit));
    lua_pushboolean(L, finished);
    if (!finished)
        return 1;
    lua_pushinteger(L, runnable.join());
    return 2;
}

int IsRunning(lua_State* L)
{
    CRunnable& runnable = SLB3::Self<CLuaRunnable>(L, "IsRunning");
    lua_pushboolean(L, runnable.IsRunning());
    return 1;
}

int GetName(lua_State* L)
{
    const std::string& name = SLB3::Self<CLuaRunnable>(L, "GetName").Module();
    lua_pushlstring(L, name.data(), name.size());
    return 1;
}

const luaL_Reg kMethods[] = {
    {"GetName", SLB3::Guarded<GetName>},
    {"IsRunning", SLB3::Guarded<IsRunning>},
    {"Join", SLB3::Guarded<Join>},
    {"RequestExit", SLB3::Guarded<RequestExit>},
    {"TestDestroy", SLB3::Guarded<TestDestroy>},
};

} // namespace

int LuaStartRunnable(lua_State* L)
{
    SLB3::Self<CDom>(L, kStart);
    const LuaText module = CheckText(L, kStart, 1);
    if (module.length == 0)
        return ArgumentError(L, kStart, 1, "empty name");
    const int last = lua_gettop(L);
    CheckValues(L, 3, last);
    Start(SLB3::PushShared<CLuaRunnable>(L), module, L, 3, last);
    return 1;
}

} // namespace VelCore

namespace SLB3 {

void Wrapper<VelCore::CLuaRunnable>::Register(lua_State* L, int namespaceAt)
{
    for (const luaL_Reg& method : VelCore::kMethods)
        AddMethod(L, namespaceAt, method.name, method.func);
}

} // namespace SLB3
