// FileSearcher.h: `require` for Lua files.
#pragma once

struct lua_State;

namespace VelCore {

/// Replaces the searcher for Lua files with one that takes text only.
///
/// Stack:  unchanged.
/// Errors: a Lua memory error.
void InstallFileSearcher(lua_State* L);

} // namespace VelCore
