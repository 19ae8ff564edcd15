// Traceback.h: the calls that led to a failure, as text.
#pragma once

struct lua_State;

namespace VelCore {

/// Pushes "\nstack traceback:" and a line per call, the innermost first, as Lua's own traceback does, but for a reader
/// who has to find the place in an archive on another machine:
///
/// - A source has its whole name; Lua cuts names of 60 characters and more.
/// - A function of a loaded module is called by its module: `inventory.main`.
/// - A coroutine made by coroutine.wrap that has just failed shows its calls too, in front of those that resumed it.
/// - Calls that tell nothing are left out: C functions without a name, and who made the outermost tail call.
///
/// level  the first call to show, as for lua_getstack
///
/// Stack:  +1; takes no more than a C function's guaranteed stack, so it can describe a stack overflow.
/// Errors: a Lua memory error.
void PushTraceback(lua_State* L, int level);

} // namespace VelCore
