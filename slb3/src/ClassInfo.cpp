// Defines a class in a Lua state: metatable, namespace table, methods.
//
// Tested by: unit/slb3/ClassTest.cpp.

#include <SLB3/ClassInfo.h>

#include <SLB3/Assert.h>

#include <lua.hpp>

namespace SLB3 {
namespace {

// Registry field of the table that maps class names to their ClassInfo (light userdata).
const char* const kClasses = "SLB3.classes";

// stack: ... -> ..., classes table
void PushClassTable(lua_State* L)
{
    lua_getfield(L, LUA_REGISTRYINDEX, kClasses);
    if (lua_istable(L, -1))
        return;
    lua_pop(L, 1);
    lua_newtable(L);
    lua_pushvalue(L, -1);
    lua_setfield(L, LUA_REGISTRYINDEX, kClasses);
}

void RegisterClassInfo(lua_State* L, const ClassInfo& info)
{
    PushClassTable(L);
    lua_pushlightuserdata(L, const_cast<ClassInfo*>(&info));
    lua_setfield(L, -2, info.name);
    lua_pop(L, 1);
}

// stack: ..., metatable (unchanged). Gives the new metatable its namespace, name and collector.
void DefineClass(lua_State* L, const ClassInfo& info)
{
    const int meta_ = lua_gettop(L);
    const int top = lua_gettop(L);

    lua_newtable(L); // the namespace
    lua_newtable(L); // its own, empty metatable
    lua_setmetatable(L, -2);
    lua_pushvalue(L, -1);
    lua_setfield(L, meta_, "__index");

    lua_pushstring(L, info.name);
    lua_setfield(L, meta_, "__class");
    lua_pushcfunction(L, info.collect);
    lua_setfield(L, meta_, "__gc");
    lua_pop(L, 1);

    SLB3_ASSERT(top == lua_gettop(L) && "screwed stack at class creation");

    lua_getfield(L, meta_, "__index");
    info.registerMethods(L, lua_gettop(L));
    lua_pop(L, 1);
    SLB3_ASSERT(top == lua_gettop(L) && "screwed stack at class creation");
    RegisterClassInfo(L, info);
}

} // namespace

void PushClass(lua_State* L, const ClassInfo& info)
{
    luaL_checkstack(L, 6, "class definition");
    luaL_newmetatable(L, info.name);
    const int meta_ = lua_gettop(L);
    SLB3_ASSERT(lua_istable(L, meta_) && "Invalid metatable");
    // The class information is the last thing that a definition registers, so one that ran out of memory half-way is
    // done again.
    if (!FindClass(L, info.name))
        DefineClass(L, info);
}

const ClassInfo* FindClass(lua_State* L, const char* name)
{
    luaL_checkstack(L, 3, "class look-up");
    PushClassTable(L);
    lua_getfield(L, -1, name);
    const auto* info = static_cast<const ClassInfo*>(lua_touserdata(L, -1));
    lua_pop(L, 2);
    return info;
}

} // namespace SLB3
