// Arguments of bound methods.
//
// Tested by: unit/core/lua/DomBindingTest.cpp.

#include "lua/Arguments.h"

#include <lua.hpp>

namespace VelCore {
namespace {

struct LogLevel
{
    const char* name;
    wxLogLevel level;
};

const LogLevel kLogLevels[] = {
    {"error", wxLOG_Error}, {"warning", wxLOG_Warning}, {"message", wxLOG_Message}, {"verbose", wxLOG_Info}};

} // namespace

int ArgumentError(lua_State* L, const char* method, int argument, const char* reason)
{
    return luaL_error(L, "bad argument #%d to '%s' (%s)", argument, method, reason);
}

int TypeError(lua_State* L, const char* method, int argument, const char* expected)
{
    const int at = argument + 1;
    const char* got = lua_isnone(L, at) ? "no value" : luaL_typename(L, at);
    return ArgumentError(L, method, argument, lua_pushfstring(L, "%s expected, got %s", expected, got));
}

LuaText CheckText(lua_State* L, const char* method, int argument)
{
    LuaText text{nullptr, 0};
    text.bytes = lua_tolstring(L, argument + 1, &text.length);
    if (!text.bytes)
        TypeError(L, method, argument, "string");
    return text;
}

unsigned int OptMilliseconds(lua_State* L, const char* method, int argument, unsigned int absent)
{
    if (lua_isnoneornil(L, argument + 1))
        return absent;
    int isNumber = 0;
    const lua_Number number = lua_tonumberx(L, argument + 1, &isNumber);
    if (!isNumber)
        TypeError(L, method, argument, "number");
    if (!(number > 0))
        return 0;
    return number < kNoLimit ? static_cast<unsigned int>(number) : kNoLimit;
}

const wxLogLevel* FindLogLevel(std::string_view name)
{
    for (const LogLevel& level : kLogLevels) {
        if (name == level.name)
            return &level.level;
    }
    return nullptr;
}

} // namespace VelCore
