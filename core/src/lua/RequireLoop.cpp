// Modules that require each other.
//
// Nobody has to keep a list of the modules that are being loaded: their chunks are running, so they are on the stack.
//
// Tested by: unit/core/lua/{DomLoader,LuaInterpreter}Test.cpp, blackbox/test_lua_failures.py.

#include "lua/RequireLoop.h"

#include <cstring>

#include <lua.hpp>

namespace VelCore {
namespace {

// A level is found by walking there, so the search must not follow a deep recursion. A loop of `require` is found
// within this reach: Lua allows 200 calls through C.
const int kReach = 1000;

// The calls of a searcher: itself, `require`, and who called that.
const int kCaller = 2;

// Whether the call runs the chunk as that module: `require` hands the name on as the first argument.
bool IsLoading(lua_State* L, lua_Debug& call, const char* name, const char* chunkName)
{
    lua_getinfo(L, "S", &call);
    if (std::strcmp(call.what, "main") != 0 || std::strcmp(call.source, chunkName) != 0)
        return false;
    if (!lua_getlocal(L, &call, -1))
        return false;
    const bool isSame = lua_type(L, -1) == LUA_TSTRING && std::strcmp(lua_tostring(L, -1), name) == 0;
    lua_pop(L, 1);
    return isSame;
}

} // namespace

void RefuseRequireLoop(lua_State* L, const char* name, const char* chunkName)
{
    lua_Debug call;
    for (int level = kCaller; level < kReach && lua_getstack(L, level, &call); ++level) {
        if (!IsLoading(L, call, name, chunkName))
            continue;
        luaL_where(L, kCaller);
        lua_pushfstring(L, "module '%s' is required again while it is being loaded", name);
        lua_concat(L, 2);
        lua_error(L);
    }
}

} // namespace VelCore
