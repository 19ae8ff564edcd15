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
#include <utility>
#include <vector>

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

// An entry of the path.
struct FileTemplate
{
    std::vector<std::string> parts; // between which the name stands
    bool startsAsLast = false;      // the first part is that of the entry before, and a name follows
};

struct Buffers
{
    std::string path; // that the templates were made from
    std::vector<FileTemplate> templates;
    std::string module; // its name with "/" for "."
    std::string folder; // what an entry makes of the first part of the name
    std::string tried;  // what the message of `require` says; a file's name ends it while that is looked for
};

std::vector<std::string> Split(std::string_view text, char separator)
{
    std::vector<std::string> parts;
    for (std::size_t at = text.find(separator); at != std::string_view::npos; at = text.find(separator)) {
        parts.emplace_back(text.substr(0, at));
        text.remove_prefix(at + 1);
    }
    parts.emplace_back(text);
    return parts;
}

std::vector<FileTemplate> TemplatesOf(std::string_view path)
{
    std::vector<FileTemplate> templates;
    for (const std::string& entry : Split(path, ';')) {
        if (entry.empty())
            continue;
        FileTemplate next{Split(entry, '?')};
        next.startsAsLast = next.parts.size() > 1 && !templates.empty() && templates.back().parts.size() > 1 &&
                            templates.back().parts.front() == next.parts.front();
        templates.push_back(std::move(next));
    }
    return templates;
}

// The path hardly ever changes between two calls.
void TakePath(Buffers& buffers, const char* path)
{
    if (buffers.path == path)
        return;
    std::vector<FileTemplate> templates = TemplatesOf(path);
    buffers.path = path;
    buffers.templates = std::move(templates);
}

bool IsReadable(const char* file)
{
    return OpenAt(AT_FDCWD, file, O_RDONLY).IsOpen();
}

// Whether module `a.b` cannot be there because `a` is not.
bool IsFolderMissing(Buffers& buffers, const FileTemplate& file)
{
    const std::string_view module = buffers.module;
    const std::size_t firstPart = module.find('/');
    // A name that begins with it has no first part: entry `?.lua` makes an absolute path of such a name.
    if (firstPart == std::string_view::npos || firstPart == 0 || file.parts.size() == 1)
        return false;
    buffers.folder.assign(file.parts.front()).append(module.substr(0, firstPart));
    return access(buffers.folder.c_str(), F_OK) != 0 && errno == ENOENT;
}

// Appends the name and returns it.
const char* AppendFile(Buffers& buffers, const FileTemplate& file)
{
    const std::size_t start = buffers.tried.size();
    buffers.tried.append(file.parts.front());
    for (std::size_t i = 1; i < file.parts.size(); ++i)
        buffers.tried.append(buffers.module).append(file.parts[i]);
    return buffers.tried.c_str() + start;
}

// The file of a module: the first one that can be read, or null. The buffer for it then says what was tried.
const char* FindFile(Buffers& buffers, const char* name, const char* path)
{
    TakePath(buffers, path);
    buffers.module = name;
    std::replace(buffers.module.begin(), buffers.module.end(), '.', '/');
    buffers.tried.clear();
    bool isFolderMissing = false; // seen once for entries such as `<folder>/?.lua` and `<folder>/?/init.lua`
    for (const FileTemplate& entry : buffers.templates) {
        if (!entry.startsAsLast)
            isFolderMissing = IsFolderMissing(buffers, entry);
        buffers.tried.append("\n\tno file '");
        const char* file = AppendFile(buffers, entry);
        if (!isFolderMissing && IsReadable(file))
            return file;
        buffers.tried += '\'';
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
