// `require` for Lua files: as Lua's own, but precompiled chunks are refused, and a module that lies elsewhere, as most
// do, costs few calls of the system.
//
// Lua leaves a failing function by longjmp, which runs no destructors, so what the searcher works with is borrowed.
//
// Tested by: unit/core/lua/{FileSearcher,LuaInterpreter}Test.cpp, blackbox/test_modules.py.

#include "lua/FileSearcher.h"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <string>
#include <string_view>

#include <fcntl.h>
#include <unistd.h>

#include <lua.hpp>

#include "lua/Borrowed.h"
#include "lua/RequireLoop.h"
#include "process/Descriptors.h"

namespace VelCore {
namespace {

// Place of the searcher for Lua files in package.searchers: behind the one for preloaded modules.
const int kFileSearcher = 2;

struct Buffers
{
    std::string module;  // its name with "/" for "."
    std::string file;    // what an entry of the path makes of it
    std::string folder;  // what that entry makes of the first part of the name
    std::string missing; // the last such folder that does not exist
    std::string tried;   // what the message of `require` says
};

void Replace(std::string_view text, char mark, std::string_view by, std::string& result)
{
    result.clear();
    for (std::size_t at = text.find(mark); at != std::string_view::npos; at = text.find(mark)) {
        result.append(text.substr(0, at)).append(by);
        text.remove_prefix(at + 1);
    }
    result.append(text);
}

bool IsReadable(const std::string& file)
{
    return OpenAt(AT_FDCWD, file.c_str(), O_RDONLY).IsOpen();
}

// Whether module `a.b` cannot be there because `a` is not. That is seen once for entries that stand together and put
// the name in the same place, as `<folder>/?.lua` and `<folder>/?/init.lua` do.
bool IsFolderMissing(Buffers& buffers, std::string_view fileTemplate)
{
    const std::string_view module = buffers.module;
    const std::size_t firstPart = module.find('/');
    const std::size_t mark = fileTemplate.find('?');
    if (firstPart == std::string_view::npos || mark == std::string_view::npos)
        return false;
    buffers.folder.assign(fileTemplate.substr(0, mark)).append(module.substr(0, firstPart));
    if (buffers.folder == buffers.missing)
        return true;
    if (access(buffers.folder.c_str(), F_OK) == 0 || errno != ENOENT)
        return false;
    buffers.missing = buffers.folder;
    return true;
}

// The file of a module: the first one that can be read, or null. The buffer for it then says what was tried.
const char* FindFile(Buffers& buffers, const char* name, std::string_view path)
{
    buffers.missing.clear();
    buffers.tried.clear();
    Replace(name, '.', "/", buffers.module);
    while (!path.empty()) {
        const std::string_view fileTemplate = path.substr(0, path.find(';'));
        path.remove_prefix(std::min(fileTemplate.size() + 1, path.size()));
        if (fileTemplate.empty())
            continue;
        Replace(fileTemplate, '?', buffers.module, buffers.file);
        if (!IsFolderMissing(buffers, fileTemplate) && IsReadable(buffers.file))
            return buffers.file.c_str();
        buffers.tried.append("\n\tno file '").append(buffers.file).append("'");
    }
    return nullptr;
}

// stack: module name -> loader and the file's name, or a text that says where the module was not found.
// Upvalue: the package table.
int SearchFiles(lua_State* L)
{
    const char* module = luaL_checkstring(L, 1);
    lua_getfield(L, lua_upvalueindex(1), "path");
    const char* path = lua_tostring(L, -1);
    if (!path)
        return luaL_error(L, "'package.path' must be a string");

    CBorrowed<Buffers>& buffers = Borrow<Buffers>(L, "vel.require.files");
    const char* found = FindFile(*buffers, module, path);
    const char* file = lua_pushstring(L, found ? found : buffers->tried.c_str());
    buffers.GiveBack();
    if (!found)
        return 1;
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
    lua_pushcclosure(L, SearchFiles, 1);
    lua_rawseti(L, top + 2, kFileSearcher);
    lua_settop(L, top);
}

} // namespace VelCore
