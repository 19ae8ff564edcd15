// `require` for Lua files: as Lua's own, but precompiled chunks are refused.
//
// Tested by: unit/core/lua/LuaInterpreterTest.cpp, blackbox/test_modules.py.

#include "lua/FileSearcher.h"

#include <lua.hpp>

#include "lua/RequireLoop.h"

namespace VelCore {
namespace {

// Place of the searcher for Lua files in package.searchers: behind the one for preloaded modules.
const int kFileSearcher = 2;

// Upvalues: the package table, package.searchpath.
int SearchFiles(lua_State* L)
{
    const char* module = luaL_checkstring(L, 1);
    lua_getfield(L, lua_upvalueindex(1), "path");
    if (!lua_isstring(L, -1))
        return luaL_error(L, "'package.path' must be a string");

    lua_pushvalue(L, lua_upvalueindex(2));
    lua_pushvalue(L, 1);
    lua_pushvalue(L, -3);
    lua_call(L, 2, 2); // file name and nil, or nil and the list of names tried
    if (lua_isnil(L, -2))
        return 1;
    lua_pop(L, 1);

    const char* file = lua_tostring(L, -1);
    RefuseRequireLoop(L, module, lua_pushfstring(L, "@%s", file));
    lua_pop(L, 1);
    if (luaL_loadfilex(L, file, "t") != LUA_OK)
        return luaL_error(L, "error loading module '%s' from file '%s':\n\t%s", module, file, lua_tostring(L, -1));
    lua_insert(L, -2); // the loader, then the file name, which it gets as second argument
    return 2;
}

} // namespace

void InstallFileSearcher(lua_State* L)
{
    const int top = lua_gettop(L);
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "searchers");
    lua_pushvalue(L, top + 1);
    lua_getfield(L, top + 1, "searchpath");
    lua_pushcclosure(L, SearchFiles, 2);
    lua_rawseti(L, top + 2, kFileSearcher);
    lua_settop(L, top);
}

} // namespace VelCore
