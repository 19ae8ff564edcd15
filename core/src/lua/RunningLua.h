// RunningLua.h: which Lua state a thread is running, and where it is in it: for crash dumps.
#pragma once

#include "crash/TextBuffer.h"

struct lua_State;

namespace VelCore {

/// While one of these lives, its thread runs this state; the one before counts again afterwards.
class CRunningLua
{
public:
    explicit CRunningLua(lua_State* L);
    ~CRunningLua();
    CRunningLua(const CRunningLua&) = delete;
    CRunningLua& operator=(const CRunningLua&) = delete;

private:
    lua_State* m_outer;
};

/// The state that the calling thread is running; null when it runs none.
lua_State* RunningLua();

/// Appends the calls that the state is in, "stack traceback:" and a line for each, the innermost first. Calls of a
/// running coroutine come before those that resumed it.
///
/// Stack:  left as it happens to be. Only for a process that has no other use for the state, since it may be broken in
///         any way: the call may crash or not return.
/// Memory: allocates nothing.
void AddLuaCalls(lua_State* L, CTextBuffer& text);

} // namespace VelCore
