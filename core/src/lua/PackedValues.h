// PackedValues.h: Lua values as bytes, on their way from one Lua state to another.
#pragma once

#include <string>
#include <string_view>

struct lua_State;

namespace VelCore {

/// Appends the value at the absolute position `at` to `packed`: nil, a boolean, a number, a string, or a table of such
/// values and keys, tables included. Metatables stay behind.
///
/// Stack:  unchanged.
/// Errors: what stands in the way, a literal; `packed` has any content then. Null when all is well. No Lua error.
const char* PackValue(lua_State* L, int at, std::string& packed);

/// Pushes the values that were appended to `packed`, in order.
///
/// Stack:   one more for each.
/// Errors:  a Lua memory error.
/// Returns: how many.
int PushPacked(lua_State* L, std::string_view packed);

} // namespace VelCore
