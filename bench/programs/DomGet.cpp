// dom:Get from Lua, next to the cheapest method of a userdata that looks its argument up in a hash table.
//
// Usage: DomGet CALLS ROUNDS

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <unordered_map>

#include <wx/init.h>

#include <lua.hpp>

#include <VelCore/DomBinding.h>

#include "programs/InTurn.h"

namespace {

using Map = std::unordered_map<std::string, std::string>;

// Knows nothing of wrong arguments, of kinds other than text, of other threads and of short memory.
int FloorGet(lua_State* L)
{
    const Map* map = *static_cast<Map**>(lua_touserdata(L, 1));
    std::size_t length = 0;
    const char* key = lua_tolstring(L, 2, &length);
    thread_local std::string t_key;
    t_key.assign(key, length);
    const std::string& value = map->find(t_key)->second;
    lua_pushlstring(L, value.data(), value.size());
    return 1;
}

// stack: -> the object
void PushFloor(lua_State* L, Map* map)
{
    *static_cast<Map**>(lua_newuserdata(L, sizeof(Map*))) = map;
    lua_newtable(L);
    lua_newtable(L);
    lua_pushcfunction(L, FloorGet);
    lua_setfield(L, -2, "Get");
    lua_setfield(L, -2, "__index");
    lua_setmetatable(L, -2);
}

InTurn::Contender Caller(lua_State* L, const char* name)
{
    return {name, [L, name](int calls, int) {
                lua_getglobal(L, "loop");
                lua_getglobal(L, name);
                lua_pushinteger(L, calls);
                if (lua_pcall(L, 2, 0, 0) != LUA_OK) {
                    std::fprintf(stderr, "%s\n", lua_tostring(L, -1));
                    std::exit(1);
                }
            }};
}

} // namespace

int main(int argc, char** argv)
{
    if (argc != 3)
        return 2;

    const wxInitializer framework;
    const std::unique_ptr<VelCore::CDom> dom(VelCore::CDom::New(nullptr, nullptr, nullptr, true));
    Map map;
    for (int i = 0; i < 1000; ++i) {
        const std::string key = "bench.key." + std::to_string(i);
        map[key] = "value";
        dom->Set(key, "value");
    }

    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    SLB3::Push(L, dom.get());
    lua_setglobal(L, "agent");
    PushFloor(L, &map);
    lua_setglobal(L, "floor");
    if (luaL_dostring(L, "function loop(o, n) for i = 1, n do local v = o:Get('bench.key.1') end end") != LUA_OK)
        return 1;
    InTurn::Print("dom.get", {Caller(L, "agent"), Caller(L, "floor")}, 1, InTurn::Number(argv[1]),
                  InTurn::Number(argv[2]));
    lua_close(L);
    return 0;
}
