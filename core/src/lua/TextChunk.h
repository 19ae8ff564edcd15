// TextChunk.h: loading Lua text, and nothing but text.
#pragma once

#include <string_view>

struct lua_State;

namespace VelCore {

/// `text` without a byte-order mark and without the content of a first line that begins with "#". The line's end stays,
/// so that line numbers count from the first line.
std::string_view SkipPreamble(std::string_view text);

/// Compiles `text` as a chunk. Precompiled chunks are refused: a crafted one can take over the process.
///
/// chunkName  as Lua takes it, with "@" or "=" in front
///
/// Stack:   +1, the function or the error message.
/// Returns: Lua's status.
int LoadText(lua_State* L, std::string_view text, const char* chunkName);

} // namespace VelCore
