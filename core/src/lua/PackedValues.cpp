// A value is a byte for its kind and what belongs to it: numbers and strings their bytes, tables their keys and values
// up to an end. The bytes never leave the process.
//
// Tested by: unit/core/lua/PackedValuesTest.cpp.

#include "lua/PackedValues.h"

#include <cstddef>
#include <cstring>

#include <lua.hpp>

namespace VelCore {
namespace {

// Kinds.
const char kNil = 'n';
const char kFalse = 'f';
const char kTrue = 't';
const char kNumber = 'd';
const char kString = 's';
const char kTable = '{';
const char kEnd = '}';

// Tables in tables. One that holds itself gets here as well.
const int kMaxDepth = 100;

// Of all that a table holds. One that is reached in several ways is packed as often, which doubles with each level.
const std::size_t kMaxTableSize = 0x4000000; // bytes: 64 MiB

template <typename Plain>
void Append(const Plain& value, std::string& packed)
{
    packed.append(reinterpret_cast<const char*>(&value), sizeof value);
}

template <typename Plain>
Plain Take(std::string_view& packed)
{
    Plain value;
    std::memcpy(&value, packed.data(), sizeof value);
    packed.remove_prefix(sizeof value);
    return value;
}

const char* Pack(lua_State* L, int at, int depth, std::string& packed);

void PackString(lua_State* L, int at, std::string& packed)
{
    std::size_t length = 0;
    const char* bytes = lua_tolstring(L, at, &length);
    Append(length, packed);
    packed.append(bytes, length);
}

const char* PackTable(lua_State* L, int at, int depth, std::string& packed)
{
    if (depth > kMaxDepth || !lua_checkstack(L, 2))
        return "tables are nested too deeply";
    const int top = lua_gettop(L);
    const char* problem = nullptr;
    lua_pushnil(L);
    while (!problem && lua_next(L, at) != 0) {
        problem = Pack(L, top + 1, depth, packed);
        if (!problem)
            problem = Pack(L, top + 2, depth, packed);
        if (!problem && packed.size() > kMaxTableSize)
            problem = "a table holds more than 64 MiB";
        lua_settop(L, top + 1);
    }
    lua_settop(L, top);
    packed += kEnd;
    return problem;
}

const char* Pack(lua_State* L, int at, int depth, std::string& packed)
{
    switch (lua_type(L, at)) {
    case LUA_TNIL:
        packed += kNil;
        return nullptr;
    case LUA_TBOOLEAN:
        packed += lua_toboolean(L, at) != 0 ? kTrue : kFalse;
        return nullptr;
    case LUA_TNUMBER:
        packed += kNumber;
        Append(lua_tonumber(L, at), packed);
        return nullptr;
    case LUA_TSTRING:
        packed += kString;
        PackString(L, at, packed);
        return nullptr;
    case LUA_TTABLE:
        packed += kTable;
        return PackTable(L, at, depth + 1, packed);
    default:
        return "only strings, booleans, numbers and tables of these can be handed over";
    }
}

// stack: -> the value. Returns false at the end of a table, with nothing pushed.
bool PushNext(lua_State* L, std::string_view& packed)
{
    luaL_checkstack(L, 3, "values from another thread");
    const char kind = Take<char>(packed);
    switch (kind) {
    case kEnd:
        return false;
    case kNil:
        lua_pushnil(L);
        break;
    case kNumber:
        lua_pushnumber(L, Take<lua_Number>(packed));
        break;
    case kString: {
        const auto length = Take<std::size_t>(packed);
        lua_pushlstring(L, packed.data(), length);
        packed.remove_prefix(length);
        break;
    }
    case kTable:
        lua_newtable(L);
        while (PushNext(L, packed)) {
            PushNext(L, packed);
            lua_rawset(L, -3);
        }
        break;
    default:
        lua_pushboolean(L, kind == kTrue);
    }
    return true;
}

} // namespace

const char* PackValue(lua_State* L, int at, std::string& packed)
{
    return Pack(L, at, 0, packed);
}

int PushPacked(lua_State* L, std::string_view packed)
{
    int count = 0;
    for (; !packed.empty(); ++count)
        PushNext(L, packed);
    return count;
}

} // namespace VelCore
