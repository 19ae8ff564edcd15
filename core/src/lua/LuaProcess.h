// LuaProcess.h: `os.exit`, `os.execute` and `io.popen` for a process with several threads.
#pragma once

struct lua_State;

namespace VelCore {

/// Replaces the three functions. They take and give what Lua's own do.
///
/// Stack:  unchanged.
/// Errors: a Lua memory error.
void InstallProcessFunctions(lua_State* L);

} // namespace VelCore
