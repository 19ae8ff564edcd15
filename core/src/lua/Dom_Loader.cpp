// CDom: the searcher that finds Lua modules in archives.
//
// Lua leaves a failing function by longjmp, which runs no destructors, so what the searcher works with is borrowed, or
// lives in a userdata that Lua collects.
//
// Tested by: unit/core/lua/DomLoaderTest.cpp, blackbox/test_modules.py.

#include <VelCore/Dom.h>

#include <algorithm>
#include <memory>
#include <new>

#include <lua.hpp>

#include "archive/ZipArchive.h"
#include "lua/Borrowed.h"
#include "lua/ModuleIndex.h"
#include "lua/RequireLoop.h"
#include "lua/TextChunk.h"

namespace VelCore {
namespace {

// Behind the searchers for preloaded modules and Lua files, ahead of those for C modules.
const int kArchiveSearcher = 3;

using IndexPointer = std::unique_ptr<const CModuleIndex>;

// Kept between calls up to this size, so that loading many small modules allocates once.
const std::size_t kKeptBytes = 0x40000;

struct Buffers
{
    std::string path;      // of the module: its name with "/" for "."
    std::string chunkName; // "@<archive>/<entry>"
    std::string content;
    std::string text; // of an error, or why the content cannot be read
    std::vector<std::string> names;
};

CBorrowed<Buffers>& BorrowBuffers(lua_State* L)
{
    return Borrow<Buffers>(L, "vel.require.archives");
}

int CollectIndex(lua_State* L)
{
    static_cast<IndexPointer*>(lua_touserdata(L, 1))->~IndexPointer();
    return 0;
}

// Fills the buffer for it.
const char* ChunkName(Buffers& buffers, const ArchivedModule& module)
{
    buffers.chunkName.assign("@").append(module.archive->Path()).append("/").append(module.entry->name);
    return buffers.chunkName.c_str();
}

void ReleaseContent(Buffers& buffers)
{
    buffers.content.clear();
    if (buffers.content.capacity() > kKeptBytes)
        buffers.content.shrink_to_fit();
}

// Fills the buffer for content; or, when the entry is damaged, returns false and fills the one for the error's text.
bool ReadModule(Buffers& buffers, const ArchivedModule& module, const char* name)
{
    std::string reason;
    if (module.archive->Read(*module.entry, buffers.content, reason))
        return true;
    ReleaseContent(buffers);
    buffers.text.assign("error loading module '").append(name).append("' from archive '");
    buffers.text.append(module.archive->Path()).append("', entry '").append(module.entry->name).append("': ");
    buffers.text.append(reason);
    return false;
}

// The path that a module's name stands for, in a buffer.
const std::string& PathOf(Buffers& buffers, const char* name, std::size_t length)
{
    buffers.path.assign(name, length);
    std::replace(buffers.path.begin(), buffers.path.end(), '.', '/');
    return buffers.path;
}

const CModuleIndex& IndexOf(lua_State* L)
{
    return **static_cast<IndexPointer*>(lua_touserdata(L, lua_upvalueindex(1)));
}

// stack: module name -> loader and its second argument, or a text that says where the module was not found.
// Upvalue: the index.
int SearchArchives(lua_State* L)
{
    std::size_t length = 0;
    const char* name = luaL_checklstring(L, 1, &length);
    const CModuleIndex& index = IndexOf(L);
    CBorrowed<Buffers>& borrowed = BorrowBuffers(L);
    Buffers& buffers = *borrowed;

    const ArchivedModule* module = index.Find(PathOf(buffers, name, length));
    if (!module) {
        buffers.text = index.NotFoundText(std::string_view(name, length));
        lua_pushlstring(L, buffers.text.data(), buffers.text.size());
        borrowed.GiveBack();
        return 1;
    }
    const char* chunkName = ChunkName(buffers, *module);
    RefuseRequireLoop(L, name, chunkName);
    if (!ReadModule(buffers, *module, name)) {
        lua_pushlstring(L, buffers.text.data(), buffers.text.size());
        return lua_error(L);
    }

    const int status = LoadText(L, buffers.content, chunkName);
    ReleaseContent(buffers);
    if (status != LUA_OK)
        return luaL_error(L, "error loading module '%s' from archive entry '%s':\n\t%s", name, chunkName + 1,
                          lua_tostring(L, -1));
    lua_pushstring(L, chunkName + 1);
    borrowed.GiveBack();
    return 2;
}

// `Names(prefix)` of module `vel.archives`. Upvalue: the index.
int ListNames(lua_State* L)
{
    std::size_t length = 0;
    const char* prefix = luaL_checklstring(L, 1, &length);
    CBorrowed<Buffers>& buffers = BorrowBuffers(L);
    std::vector<std::string>& names = buffers->names;
    names = IndexOf(L).NamesBelow(PathOf(*buffers, prefix, length));
    lua_createtable(L, static_cast<int>(names.size()), 0);
    int at = 0;
    for (const std::string& name : names) {
        lua_pushlstring(L, name.data(), name.size());
        lua_rawseti(L, -2, ++at);
    }
    names.clear();
    buffers.GiveBack();
    return 1;
}

// The loader of module `vel.archives`. Upvalue: the index.
int OpenArchives(lua_State* L)
{
    lua_createtable(L, 0, 1);
    lua_pushvalue(L, lua_upvalueindex(1));
    lua_pushcclosure(L, ListNames, 1);
    lua_setfield(L, -2, "Names");
    return 1;
}

// stack: -> index
void PushIndex(lua_State* L, const CDom& dom)
{
    auto* index = static_cast<IndexPointer*>(lua_newuserdata(L, sizeof(IndexPointer)));
    new (index) IndexPointer;
    lua_createtable(L, 0, 1);
    lua_pushcfunction(L, CollectIndex);
    lua_setfield(L, -2, "__gc");
    lua_setmetatable(L, -2);
    *index = std::make_unique<const CModuleIndex>(dom.Get("app.lua.zippath"));
}

} // namespace

void CDom::RegisterLoader(lua_State* L) const
{
    const int top = lua_gettop(L);
    luaL_checkstack(L, 6, "module searchers");
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "searchers");
    const int searchers = lua_gettop(L);
    luaL_checktype(L, searchers, LUA_TTABLE);

    for (auto at = static_cast<int>(lua_rawlen(L, searchers)); at >= kArchiveSearcher; --at) {
        lua_rawgeti(L, searchers, at);
        lua_rawseti(L, searchers, at + 1);
    }
    PushIndex(L, *this);
    lua_pushvalue(L, -1);
    lua_pushcclosure(L, SearchArchives, 1);
    lua_rawseti(L, searchers, kArchiveSearcher);

    lua_pushcclosure(L, OpenArchives, 1);
    lua_getfield(L, searchers - 1, "preload");
    lua_insert(L, -2);
    lua_setfield(L, -2, "vel.archives");
    lua_settop(L, top);
}

} // namespace VelCore
