// Runnable_Binding.h: background runnables as Lua sees them, class "SLB.Runnable".
#pragma once

#include <SLB3/Wrapper.h>

#include <VelCore/LuaRunnable.h>

namespace VelCore {

/// The method `StartRunnable` of the domain: module, values -> the runnable.
int LuaStartRunnable(lua_State* L);

} // namespace VelCore

namespace SLB3 {

/// Push a runnable with SLB3::PushShared. docs/DOMAIN.md lists the methods.
template <>
struct Wrapper<VelCore::CLuaRunnable>
{
    static const char* ClassName() { return "SLB.Runnable"; }
    static void Register(lua_State* L, int namespaceAt);
};

} // namespace SLB3
