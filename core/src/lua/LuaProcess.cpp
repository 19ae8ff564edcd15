// Ending the process and starting children from Lua.
//
// Tested by: unit/core/lua/LuaProcessTest.cpp, blackbox/test_lua_host.py.

#include "lua/LuaProcess.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <unistd.h>

#include <lua.hpp>

#include <VelCore/EndProcess.h>

#include "process/ChildProcess.h"

namespace VelCore {
namespace {

int OsExit(lua_State* L)
{
    int status = EXIT_SUCCESS;
    if (lua_isboolean(L, 1))
        status = lua_toboolean(L, 1) ? EXIT_SUCCESS : EXIT_FAILURE;
    else
        status = luaL_optint(L, 1, EXIT_SUCCESS);
    if (lua_toboolean(L, 2))
        lua_close(L);
    std::fflush(stdout); // whoever reads slowly gets everything; only the other streams have a limited time
    EndProcess(status);
}

int OsExecute(lua_State* L)
{
    const char* command = luaL_optstring(L, 1, nullptr);
    if (!command) {
        lua_pushboolean(L, access("/bin/sh", X_OK) == 0);
        return 1;
    }
    std::fflush(stdout); // what was printed before comes before what the child prints
    const pid_t child = SpawnShell(command, {-1, -1});
    return luaL_execresult(L, child < 0 ? -1 : WaitForChild(child));
}

// A file handle of Lua's io library that remembers its process. The library sees only the first member.
struct PipeHandle
{
    luaL_Stream stream;
    pid_t child;
};

int ClosePipe(lua_State* L)
{
    auto* handle = static_cast<PipeHandle*>(luaL_checkudata(L, 1, LUA_FILEHANDLE));
    std::fclose(handle->stream.f);
    return luaL_execresult(L, WaitForChild(handle->child));
}

// Fills the handle; returns false with errno set.
bool OpenPipe(PipeHandle& handle, const char* command, bool childWrites)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return false;
    const int childsEnd = childWrites ? ends[1] : ends[0];
    const int ourEnd = childWrites ? ends[0] : ends[1];

    FILE* file = fdopen(ourEnd, childWrites ? "r" : "w");
    const pid_t child = file ? SpawnShell(command, {childsEnd, childWrites ? STDOUT_FILENO : STDIN_FILENO}) : -1;
    const int error = errno;
    close(childsEnd);
    if (child < 0) {
        if (file)
            std::fclose(file);
        else
            close(ourEnd);
        errno = error;
        return false;
    }
    handle.child = child;
    handle.stream.f = file;
    handle.stream.closef = ClosePipe;
    return true;
}

int IoPopen(lua_State* L)
{
    const char* command = luaL_checkstring(L, 1);
    const char* mode = luaL_optstring(L, 2, "r");
    const bool childWrites = std::strcmp(mode, "r") == 0;

    // A handle without a close function counts as closed, so a failure below leaves nothing to collect.
    auto* handle = static_cast<PipeHandle*>(lua_newuserdata(L, sizeof(PipeHandle)));
    *handle = PipeHandle();
    luaL_setmetatable(L, LUA_FILEHANDLE);

    if (!childWrites && std::strcmp(mode, "w") != 0) {
        errno = EINVAL;
        return luaL_fileresult(L, 0, command);
    }
    std::fflush(stdout);
    return OpenPipe(*handle, command, childWrites) ? 1 : luaL_fileresult(L, 0, command);
}

void SetField(lua_State* L, const char* library, const char* name, lua_CFunction function)
{
    lua_getglobal(L, library);
    lua_pushcfunction(L, function);
    lua_setfield(L, -2, name);
    lua_pop(L, 1);
}

} // namespace

void InstallProcessFunctions(lua_State* L)
{
    SetField(L, "os", "exit", OsExit);
    SetField(L, "os", "execute", OsExecute);
    SetField(L, "io", "popen", IoPopen);
}

} // namespace VelCore
