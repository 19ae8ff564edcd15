// The running state of each thread, and its calls, as far as they can be told without allocating.
//
// Tested by: unit/core/lua/RunningLuaTest.cpp, blackbox/test_crash_dumps.py.

#include "lua/RunningLua.h"

#include <cstring>

#include <lua.hpp>

namespace VelCore {
namespace {

thread_local lua_State* t_running = nullptr;

// Of a deep recursion only the innermost calls are shown, and of coroutines within coroutines the outermost.
const int kMostCalls = 60;
const int kMostCoroutines = 16;

bool HasCalls(lua_State* L)
{
    lua_Debug call;
    return L && lua_status(L) == LUA_OK && lua_getstack(L, 0, &call) != 0;
}

// The coroutine that the innermost call runs: coroutine.resume has it as its argument, a function of coroutine.wrap as
// its upvalue. The values pushed here stay; the few slots that a C function may count on are enough.
lua_State* RunningCoroutine(lua_State* L)
{
    lua_Debug call;
    if (!lua_getstack(L, 0, &call) || !lua_getinfo(L, "f", &call) || !lua_iscfunction(L, -1))
        return nullptr;
    lua_State* const wrapped = lua_getupvalue(L, -1, 1) ? lua_tothread(L, -1) : nullptr;
    if (HasCalls(wrapped))
        return wrapped;
    lua_State* const resumed = lua_getlocal(L, &call, 1) ? lua_tothread(L, -1) : nullptr;
    return HasCalls(resumed) ? resumed : nullptr;
}

void AddCall(const lua_Debug& call, CTextBuffer& text)
{
    const bool isC = call.currentline < 0;
    const bool hasName = call.name && call.namewhat[0] != '\0';
    if (isC && !hasName)
        return; // it tells nothing

    text.Add("\n\t");
    if (isC)
        text.Add("[C]");
    else {
        const bool isName = call.source[0] == '@' || call.source[0] == '=';
        text.AddEscaped(isName ? call.source + 1 : call.short_src).Add(":").AddNumber(call.currentline);
    }
    if (hasName)
        text.Add(": in function '").AddEscaped(call.name).Add("'");
    else if (std::strcmp(call.what, "main") == 0)
        text.Add(": in main chunk");
    else
        text.Add(": in function <line ").AddNumber(call.linedefined).Add(">");
}

void AddCalls(lua_State* L, CTextBuffer& text)
{
    lua_Debug call;
    for (int level = 0; lua_getstack(L, level, &call); ++level) {
        if (level == kMostCalls) {
            text.Add("\n\t...");
            return;
        }
        if (lua_getinfo(L, "nSl", &call))
            AddCall(call, text);
    }
}

} // namespace

CRunningLua::CRunningLua(lua_State* L) : m_outer(t_running)
{
    t_running = L;
}

CRunningLua::~CRunningLua()
{
    t_running = m_outer;
}

lua_State* RunningLua()
{
    return t_running;
}

void AddLuaCalls(lua_State* L, CTextBuffer& text)
{
    lua_State* states[kMostCoroutines] = {L};
    int count = 1;
    while (count < kMostCoroutines && (states[count] = RunningCoroutine(states[count - 1])))
        ++count;

    text.Add("stack traceback:");
    while (count-- > 0) {
        AddCalls(states[count], text);
        if (count > 0)
            text.Add("\n\t(...resumed by...)");
    }
}

} // namespace VelCore
