// Between Lua, which is C, and methods that may throw.
//
// Tested by: unit/slb3/ClassTest.cpp.

#include <cstdio>
#include <exception>
#include <new>

#include <SLB3/Wrapper.h>

namespace SLB3 {
namespace {

const char kNoMemory[] = "not enough memory";

} // namespace

// The error is raised behind the handlers: it leaves by longjmp, which must not skip the end of an exception.
int CallGuarded(lua_State* L, lua_CFunction method)
{
    char reason[256];
    try {
        return method(L);
    } catch (const std::bad_alloc&) {
        std::snprintf(reason, sizeof reason, "%s", kNoMemory);
    } catch (const std::exception& exception) {
        std::snprintf(reason, sizeof reason, "%s", exception.what());
    }
    return luaL_error(L, "%s", reason);
}

} // namespace SLB3
