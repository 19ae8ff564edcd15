// Owned.h: C++ objects that a Lua stack keeps.
#pragma once

#include <new>

#include <lua.hpp>

namespace VelCore {

/// Makes an object that Lua collects once it is no longer on the stack, also after an error, which runs no destructor.
///
/// Use it for what has to outlive a call that may raise an error, or that may run finalizers: they may come with every
/// call that takes memory, and may call the very function that is running, so a buffer of the thread does not do.
///
/// stack:     -> a userdata that holds the object
/// className  of its metatable in the registry; one for each type
template <typename T>
T& PushOwned(lua_State* L, const char* className)
{
    auto* object = new (lua_newuserdata(L, sizeof(T))) T; // an empty one: nothing is lost when the next lines fail
    luaL_newmetatable(L, className);
    lua_pushcfunction(L, [](lua_State* state) {
        static_cast<T*>(lua_touserdata(state, 1))->~T();
        return 0;
    }); // also when the metatable is not new: memory may have run out at this very place
    lua_setfield(L, -2, "__gc");
    lua_setmetatable(L, -2);
    return *object;
}

} // namespace VelCore
