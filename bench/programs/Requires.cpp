#include "programs/Requires.h"

#include <algorithm>
#include <cstddef>
#include <fstream>
#include <sstream>

#include <lua.hpp>

#include "programs/Measure.h"

namespace VelBench {

const char* const kRequireAll = "for _, name in ipairs((...)) do require(name) end";

std::vector<std::string> Split(const std::string& text, char separator)
{
    std::vector<std::string> parts;
    for (std::size_t start = 0; start < text.size();) {
        const std::size_t end = std::min(text.find(separator, start), text.size());
        parts.push_back(text.substr(start, end - start));
        start = end + 1;
    }
    return parts;
}

std::string ReadText(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    if (!file)
        Die("cannot read " + path);
    return text.str();
}

void PushLines(lua_State* L, const std::string& path)
{
    lua_newtable(L);
    int at = 0;
    for (const std::string& line : Split(ReadText(path), '\n')) {
        lua_pushlstring(L, line.data(), line.size());
        lua_rawseti(L, -2, ++at);
    }
}

const std::string& FileOf(lua_State* L, std::string& buffer)
{
    buffer.assign(lua_tostring(L, 1));
    std::replace(buffer.begin(), buffer.end(), '.', '/');
    return buffer += ".lua";
}

int Load(lua_State* L, const char* text, std::size_t size, const std::string& chunkName)
{
    return luaL_loadbufferx(L, text, size, chunkName.c_str(), "t") == LUA_OK ? 1 : lua_error(L);
}

void RequireAll(int (*searcher)(lua_State*), void* context, const std::string& namesPath)
{
    lua_State* L = luaL_newstate();
    luaL_openlibs(L);
    lua_getglobal(L, "package");
    lua_getfield(L, -1, "searchers");
    lua_pushlightuserdata(L, context);
    lua_pushcclosure(L, searcher, 1);
    lua_rawseti(L, -2, 2);
    if (luaL_loadstring(L, kRequireAll) != LUA_OK)
        Die(lua_tostring(L, -1));
    PushLines(L, namesPath);
    if (lua_pcall(L, 1, 0, 0) != LUA_OK)
        Die(lua_tostring(L, -1));
}

} // namespace VelBench
