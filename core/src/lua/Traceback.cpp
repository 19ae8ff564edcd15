// The calls that led to a failure, as text.
//
// The text grows on top of the Lua stack, where a memory error leaves nothing behind.
//
// Tested by: unit/core/lua/TracebackTest.cpp, blackbox/test_lua_failures.py.

#include "lua/Traceback.h"

#include <cstring>
#include <string>

#include <lua.hpp>

#include "trace/RecordText.h"

namespace VelCore {
namespace {

// Of a deep recursion, only the calls at both ends are shown.
const int kInnermost = 12;
const int kOutermost = 10;

// Coroutines that resume each other deeper than this are a recursion, too.
const int kMostCoroutines = 8;

// Lives through a memory error of Lua, which runs no destructors.
thread_local std::string t_source;

// A level is found by walking there from the innermost, so the count must not try them one by one.
int CountLevels(lua_State* of)
{
    lua_Debug call;
    int some = 0;
    int none = 1;
    while (lua_getstack(of, none, &call)) {
        some = none;
        none *= 2;
    }
    while (some < none) {
        const int middle = some + (none - some) / 2;
        if (lua_getstack(of, middle, &call))
            some = middle + 1;
        else
            none = middle;
    }
    return none;
}

// stack: name, candidate -> the one that sorts first, so that of several names it is always the same
void KeepFirst(lua_State* L)
{
    if (lua_isnil(L, -2) || std::strcmp(lua_tostring(L, -1), lua_tostring(L, -2)) < 0)
        lua_remove(L, -2);
    else
        lua_pop(L, 1);
}

// stack: ..., module name, module table -> unchanged. Updates the name at `nameAt` when the table holds the function.
void LookInModule(lua_State* L, int functionAt, int nameAt)
{
    const int moduleAt = lua_gettop(L);
    for (lua_pushnil(L); lua_next(L, moduleAt) != 0; lua_pop(L, 1)) {
        if (lua_type(L, -2) != LUA_TSTRING || !lua_rawequal(L, -1, functionAt))
            continue;
        const char* module = lua_tostring(L, moduleAt - 1);
        const char* field = lua_tostring(L, -2);
        lua_pushvalue(L, nameAt);
        if (std::strcmp(module, "_G") == 0)
            lua_pushstring(L, field);
        else
            lua_pushfstring(L, "%s.%s", module, field);
        KeepFirst(L);
        lua_replace(L, nameAt);
    }
}

// stack: function -> its name as a field of a loaded module, or nil
void PushModuleName(lua_State* L)
{
    const int functionAt = lua_gettop(L);
    const int nameAt = functionAt + 1;
    const int loadedAt = functionAt + 2;
    lua_pushnil(L);
    lua_getfield(L, LUA_REGISTRYINDEX, "_LOADED");
    if (lua_istable(L, loadedAt)) {
        for (lua_pushnil(L); lua_next(L, loadedAt) != 0; lua_pop(L, 1)) {
            if (lua_type(L, -2) == LUA_TSTRING && lua_istable(L, -1))
                LookInModule(L, functionAt, nameAt);
        }
    }
    lua_settop(L, nameAt);
    lua_remove(L, functionAt);
}

// "@" and "=" only say what kind of name follows. Without them the source is the chunk's text, of which Lua shows a
// piece. A name of a file may hold anything; it must not look like a line of its own. Valid until the next call.
const char* SourceName(const lua_Debug& call)
{
    const bool isName = call.source[0] == '@' || call.source[0] == '=';
    t_source = EscapeControls(isName ? call.source + 1 : call.short_src);
    return t_source.c_str();
}

// stack: text, name or nil -> text with a line for the call, if there is something to tell
void AppendCall(lua_State* L, const lua_Debug& call)
{
    const bool isC = call.currentline < 0;
    const char* name = lua_tostring(L, -1);
    if (!name && call.namewhat[0] != '\0')
        name = call.name;

    if (name)
        lua_pushfstring(L, "in function '%s'", name);
    else if (std::strcmp(call.what, "main") == 0)
        lua_pushliteral(L, "in main chunk");
    else if (!isC)
        lua_pushfstring(L, "in function <line %d>", call.linedefined);
    else {
        lua_pop(L, 1);
        return;
    }
    lua_remove(L, -2); // the name

    if (isC)
        lua_pushfstring(L, "\n\t[C]: %s", lua_tostring(L, -1));
    else
        lua_pushfstring(L, "\n\t%s:%d: %s", SourceName(call), call.currentline, lua_tostring(L, -1));
    lua_remove(L, -2);
    lua_concat(L, 2);
}

// stack: text -> longer text
void AppendText(lua_State* L, const char* text)
{
    lua_pushstring(L, text);
    lua_concat(L, 2);
}

// Fills `call`. stack of `of`: -> the call's function
bool GetCall(lua_State* of, int level, lua_Debug& call)
{
    return lua_checkstack(of, 2) && lua_getstack(of, level, &call) && lua_getinfo(of, "nSltf", &call);
}

// The coroutine whose error the call passes on. A function of coroutine.wrap keeps it as its upvalue.
lua_State* FailedCoroutine(lua_State* of, int level)
{
    lua_Debug call;
    if (!GetCall(of, level, call))
        return nullptr;
    lua_State* coroutine = nullptr;
    if (lua_iscfunction(of, -1) && lua_getupvalue(of, -1, 1)) {
        coroutine = lua_tothread(of, -1);
        lua_pop(of, 1);
    }
    lua_pop(of, 1);
    return coroutine && lua_status(coroutine) > LUA_YIELD ? coroutine : nullptr;
}

// stack of `L`: text -> text with the calls of `of`
void AppendCalls(lua_State* L, lua_State* of, int level, int coroutines)
{
    lua_State* const failed = coroutines < kMostCoroutines ? FailedCoroutine(of, level) : nullptr;
    if (failed) {
        AppendCalls(L, failed, 0, coroutines + 1);
        AppendText(L, "\n\t(...resumed by...)");
    }

    const int end = CountLevels(of);
    const int gapAt = end - level > kInnermost + kOutermost ? level + kInnermost : end;
    for (; level < end; ++level) {
        if (level == gapAt) {
            level = end - kOutermost;
            lua_pushfstring(L, "\n\t(...%d calls...)", level - gapAt);
            lua_concat(L, 2);
        }
        lua_Debug call;
        if (!GetCall(of, level, call))
            return;
        lua_xmove(of, L, 1);
        PushModuleName(L);
        AppendCall(L, call);
        if (call.istailcall && level + 1 < end)
            AppendText(L, "\n\t(...tail calls...)");
    }
}

} // namespace

void PushTraceback(lua_State* L, int level)
{
    lua_pushliteral(L, "\nstack traceback:");
    const std::size_t empty = lua_rawlen(L, -1);
    AppendCalls(L, L, level, 0);
    if (lua_rawlen(L, -1) == empty)
        AppendText(L, "\n\t(no calls)");
}

} // namespace VelCore
