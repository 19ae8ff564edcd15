// `print` and `io.write` over a framework stream.
//
// Tested by: unit/core/lua/LuaInterpreterTest.cpp, blackbox/test_lua_host.py.

#include "lua/LuaOutput.h"

#include <cerrno>
#include <cstdio>

#include <wx/stream.h>

#include <lua.hpp>

namespace VelCore {
namespace {

LuaOutput& OutputOf(lua_State* L)
{
    return *static_cast<LuaOutput*>(lua_touserdata(L, lua_upvalueindex(1)));
}

// As Lua's own, but to the state's output, and the line in one piece: other threads print as well. Upvalue: the output.
int Print(lua_State* L)
{
    const int count = lua_gettop(L);
    lua_getglobal(L, "tostring");
    luaL_Buffer line;
    luaL_buffinit(L, &line);
    for (int i = 1; i <= count; ++i) {
        if (i > 1)
            luaL_addchar(&line, '\t');
        lua_pushvalue(L, count + 1);
        lua_pushvalue(L, i);
        lua_call(L, 1, 1);
        if (!lua_tostring(L, -1))
            return luaL_error(L, "'tostring' must return a string to 'print'");
        luaL_addvalue(&line);
    }
    luaL_addchar(&line, '\n');
    luaL_pushresult(&line);

    std::size_t length = 0;
    const char* text = lua_tolstring(L, -1, &length);
    LuaOutput& output = OutputOf(L);
    output.Write(text, length);
    output.Flush();
    return 0;
}

// stack: arguments -> results. Upvalue 2 is Lua's own io.write.
int WriteToFile(lua_State* L)
{
    lua_pushvalue(L, lua_upvalueindex(2));
    lua_insert(L, 1);
    lua_call(L, lua_gettop(L) - 1, LUA_MULTRET);
    return lua_gettop(L);
}

// Upvalues: the output, Lua's own io.write, io.output, the file that is the default output at the start.
int IoWrite(lua_State* L)
{
    LuaOutput& output = OutputOf(L);
    const int count = lua_gettop(L);
    lua_pushvalue(L, lua_upvalueindex(3));
    lua_call(L, 0, 1);
    const bool isDefault = lua_rawequal(L, -1, lua_upvalueindex(4)) != 0;
    if (!output.stream || !isDefault) {
        lua_pop(L, 1);
        return WriteToFile(L);
    }

    bool written = true;
    for (int i = 1; i <= count; ++i) {
        std::size_t length = 0;
        const char* text = luaL_checklstring(L, i, &length);
        errno = 0;
        written = output.Write(text, length) && written;
    }
    if (written)
        return 1; // the file, as Lua's own function answers
    return luaL_fileresult(L, 0, nullptr);
}

} // namespace

bool LuaOutput::Write(const char* bytes, std::size_t length)
{
    if (!stream)
        return std::fwrite(bytes, 1, length, stdout) == length;
    stream->Write(bytes, length);
    return stream->LastWrite() == length;
}

void LuaOutput::Flush()
{
    if (stream)
        stream->Sync();
    else
        std::fflush(stdout);
}

LuaOutput* InstallOutput(lua_State* L)
{
    const int top = lua_gettop(L);
    auto* output = static_cast<LuaOutput*>(lua_newuserdata(L, sizeof(LuaOutput)));
    *output = LuaOutput();
    const int outputAt = lua_gettop(L);

    lua_pushvalue(L, outputAt);
    lua_pushcclosure(L, Print, 1);
    lua_setglobal(L, "print");

    lua_getglobal(L, "io");
    const int ioAt = lua_gettop(L);
    lua_pushvalue(L, outputAt);
    lua_getfield(L, ioAt, "write");
    lua_getfield(L, ioAt, "output");
    lua_getfield(L, ioAt, "stdout");
    lua_pushcclosure(L, IoWrite, 4);
    lua_setfield(L, ioAt, "write");

    // The interpreter keeps a pointer to it, whatever scripts do to the functions above.
    lua_pushvalue(L, outputAt);
    lua_setfield(L, LUA_REGISTRYINDEX, "vel.output");

    lua_settop(L, top);
    return output;
}

} // namespace VelCore
