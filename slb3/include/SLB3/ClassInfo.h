// ClassInfo.h: the Lua class that stands for a C++ type.
#pragma once

struct lua_State;

namespace SLB3 {

/// What the library needs to know about a bound type.
///
/// Ownership: instances are static data of the binding; Lua refers to them by address.
struct ClassInfo
{
    const char* name;                                       ///< class name, also the registry key of its metatable
    void (*registerMethods)(lua_State* L, int namespaceAt); ///< adds the methods to the namespace table
    int (*collect)(lua_State* L);                           ///< the metatable's `__gc`
};

/// Pushes the class's metatable, defining the class first when this state does not know it yet.
///
/// Stack:  +1, the metatable.
/// Errors: a Lua memory error; a class definition that leaves the stack at another height aborts.
void PushClass(lua_State* L, const ClassInfo& info);

/// The class information registered for `name` in this state, or null.
const ClassInfo* FindClass(lua_State* L, const char* name);

} // namespace SLB3
