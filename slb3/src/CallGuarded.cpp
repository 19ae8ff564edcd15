// Between Lua, which is C, and functions that may throw.
//
// Tested by: unit/slb3/ClassTest.cpp, blackbox/test_lua_host.py.

#include <cstddef>
#include <cstdio>
#include <exception>
#include <limits>
#include <new>

#include <SLB3/Wrapper.h>

namespace SLB3 {
namespace {

// Lua's own memory error, which has a status of its own, can only be had by asking for more than there can be.
void RaiseMemoryError(lua_State* L)
{
    lua_newuserdata(L, static_cast<std::size_t>(std::numeric_limits<std::ptrdiff_t>::max()));
}

} // namespace

// The errors are raised behind the handlers: they leave by longjmp, which must not skip the end of an exception.
int CallGuarded(lua_State* L, lua_CFunction function)
{
    bool isMemoryShort = false;
    char reason[256] = "";
    try {
        return function(L);
    } catch (const std::bad_alloc&) {
        isMemoryShort = true;
    } catch (const std::exception& exception) {
        std::snprintf(reason, sizeof reason, "%s", exception.what());
    }
    if (isMemoryShort)
        RaiseMemoryError(L);
    return luaL_error(L, "%s", reason);
}

} // namespace SLB3
