// Tested by: unit/tools/kx-pack/LuaSourceTest.cpp.

#include "LuaSource.h"

#include <memory>

#include <lua.hpp>

#include "lua/TextChunk.h"

std::optional<Failure> CheckLuaText(const std::string& text, const std::string& path)
{
    const std::unique_ptr<lua_State, decltype(&lua_close)> state(luaL_newstate(), lua_close);
    if (!state)
        return Failure{Status::Failed, "cannot check '" + path + "': not enough memory"};
    const int status = VelCore::LoadText(state.get(), text, ("@" + path).c_str());
    if (status == LUA_OK)
        return std::nullopt;
    const char* message = lua_tostring(state.get(), -1);
    return Failure{Status::Refused, "the agent cannot load '" + path + "': " + (message ? message : "no reason given")};
}
