// Arguments.h: what the methods of a bound object share in taking their arguments.
#pragma once

#include <cstddef>
#include <limits>
#include <string_view>

#include <wx/log.h>

struct lua_State;

namespace VelCore {

/// Bytes that a value on the Lua stack owns.
struct LuaText
{
    const char* bytes;
    std::size_t length;

    std::string_view View() const { return {bytes, length}; }
};

/// Raises a Lua argument error that names the method, however it was called.
///
/// argument  counts behind the colon, from 1
int ArgumentError(lua_State* L, const char* method, int argument, const char* reason);

/// Raises an argument error about the type of an argument.
int TypeError(lua_State* L, const char* method, int argument, const char* expected);

/// A string argument, or a number, which Lua turns into its text; an argument error for everything else.
LuaText CheckText(lua_State* L, const char* method, int argument);

/// No limit to a wait.
const unsigned int kNoLimit = std::numeric_limits<unsigned int>::max();

/// An optional number of milliseconds: `absent` without the argument and for nil; 0 for less, kNoLimit for more than it
/// can hold (49 days). An argument error for everything but a number.
unsigned int OptMilliseconds(lua_State* L, const char* method, int argument, unsigned int absent);

/// The level of the framework's log that Lua knows by this name; null when there is none.
const wxLogLevel* FindLogLevel(std::string_view name);

} // namespace VelCore
