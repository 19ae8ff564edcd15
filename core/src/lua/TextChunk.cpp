// Loading Lua text.
//
// Tested by: unit/core/lua/TextChunkTest.cpp.

#include "lua/TextChunk.h"

#include <lua.hpp>

namespace VelCore {

std::string_view SkipPreamble(std::string_view text)
{
    if (text.substr(0, 3) == "\xEF\xBB\xBF")
        text.remove_prefix(3);
    if (!text.empty() && text.front() == '#') {
        const std::size_t lineEnd = text.find('\n');
        text.remove_prefix(lineEnd == std::string_view::npos ? text.size() : lineEnd);
    }
    return text;
}

int LoadText(lua_State* L, std::string_view text, const char* chunkName)
{
    const std::string_view code = SkipPreamble(text);
    return luaL_loadbufferx(L, code.data(), code.size(), chunkName, "t");
}

} // namespace VelCore
