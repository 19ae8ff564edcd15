// RequireLoop.h: modules that require each other.
#pragma once

struct lua_State;

namespace VelCore {

/// Raises an error when the module is being loaded already, which Lua itself would repeat until its stack is full.
///
/// Called by a searcher, that is by `require`, for a module that it has found.
///
/// name       the module
/// chunkName  of the module's text, with "@" in front
///
/// Stack: unchanged.
void RefuseRequireLoop(lua_State* L, const char* name, const char* chunkName);

} // namespace VelCore
