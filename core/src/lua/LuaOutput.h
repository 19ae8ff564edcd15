// LuaOutput.h: where `print` and `io.write` go.
#pragma once

#include <cstddef>

class wxOutputStream;
struct lua_State;

namespace VelCore {

/// The output of one state. Lives as a userdata of the state, so that functions that outlive a call still find it.
struct LuaOutput
{
    wxOutputStream* stream = nullptr; // null: C's standard output

    bool Write(const char* bytes, std::size_t length);
    void Flush();
};

/// Replaces `print`, and `io.write` where it writes to the default output, with functions that write to the state's
/// LuaOutput. `io.stdout` stays C's own; a stream over C's standard output keeps the order among all three.
///
/// Stack:   unchanged.
/// Errors:  a Lua memory error.
/// Returns: the output, owned by the state.
LuaOutput* InstallOutput(lua_State* L);

} // namespace VelCore
