// The queue's methods, and the module that opens queues.
//
// Lua leaves a failing function by longjmp, which runs no destructors. So a message is packed where no Lua function can
// fail, and unpacked out of a userdata, which Lua collects.
//
// Tested by: unit/core/lua/QueueBindingTest.cpp, lua/vel_queue_test.lua, blackbox/test_runnables.py.

#include "lua/Queue_Binding.h"

#include <chrono>
#include <memory>
#include <string>
#include <utility>

#include <lua.hpp>

#include <VelCore/Runnable.h>

#include "lua/Arguments.h"
#include "lua/Owned.h"
#include "lua/PackedValues.h"

namespace VelCore {
namespace {

using TimePoint = CMessageQueue::TimePoint;

// A limit above it is a mistake.
const lua_Number kMostMessages = 1e9;

TimePoint Deadline(unsigned int wait)
{
    return wait == kNoLimit ? TimePoint::max() : std::chrono::steady_clock::now() + std::chrono::milliseconds(wait);
}

// Returns what stands in the way of packing the value at `at`; else null, and whether the message was taken.
const char* PackAndPush(lua_State* L, int at, CMessageQueue& queue, TimePoint deadline, bool& isTaken)
{
    std::string message;
    const char* problem = PackValue(L, at, message);
    if (!problem)
        isTaken = queue.Push(std::move(message), deadline, CRunnable::Current());
    return problem;
}

int Push(lua_State* L)
{
    CMessageQueue& queue = SLB3::Self<CMessageQueue>(L, "Push");
    if (lua_isnoneornil(L, 2))
        return TypeError(L, "Push", 1, "string, boolean, number or table");
    const unsigned int wait = OptMilliseconds(L, "Push", 2, kNoLimit);
    bool isTaken = false;
    if (const char* problem = PackAndPush(L, 2, queue, Deadline(wait), isTaken))
        return ArgumentError(L, "Push", 1, problem);
    lua_pushboolean(L, isTaken);
    return 1;
}

int Pop(lua_State* L)
{
    CMessageQueue& queue = SLB3::Self<CMessageQueue>(L, "Pop");
    const unsigned int wait = OptMilliseconds(L, "Pop", 1, kNoLimit);
    auto& message = PushOwned<std::string>(L, "vel.queues.message");
    if (!queue.Pop(message, Deadline(wait), CRunnable::Current()))
        lua_pushnil(L);
    else
        PushPacked(L, message);
    message = std::string(); // a long one does not wait for the collector
    return 1;
}

const luaL_Reg kMethods[] = {{"Pop", SLB3::Guarded<Pop>}, {"Push", SLB3::Guarded<Push>}};

void OpenInto(SLB3::SharedObject<CMessageQueue>& handle, const char* name, std::size_t length, lua_Number limit)
{
    std::shared_ptr<CMessageQueue> queue = CMessageQueue::Open(std::string(name, length));
    if (limit > 0)
        queue->SetLimit(static_cast<std::size_t>(limit));
    SLB3::Share(handle, std::move(queue));
}

int Open(lua_State* L)
{
    std::size_t length = 0;
    const char* name = luaL_checklstring(L, 1, &length);
    luaL_argcheck(L, length > 0, 1, "empty name");
    const lua_Number limit = luaL_optnumber(L, 2, 0);
    luaL_argcheck(L, lua_isnoneornil(L, 2) || (limit >= 1 && limit <= kMostMessages), 2, "limit out of range");
    OpenInto(SLB3::PushShared<CMessageQueue>(L), name, length, limit);
    return 1;
}

// The loader of the module.
int OpenModule(lua_State* L)
{
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, Open);
    lua_setfield(L, -2, "Open");
    return 1;
}

} // namespace

void InstallQueues(lua_State* L)
{
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "preload");
    lua_pushcfunction(L, OpenModule);
    lua_setfield(L, -2, "vel.queues");
    lua_pop(L, 2);
}

} // namespace VelCore

namespace SLB3 {

void Wrapper<VelCore::CMessageQueue>::Register(lua_State* L, int namespaceAt)
{
    for (const luaL_Reg& method : VelCore::kMethods)
        AddMethod(L, namespaceAt, method.name, method.func);
}

} // namespace SLB3
