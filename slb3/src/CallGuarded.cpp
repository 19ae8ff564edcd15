// Between Lua, which is C, and methods that may throw.
//
// Tested by: unit/slb3/ClassTest.cpp.

#include <cstdio>
#include <exception>
#include <new>

#include <SLB3/Wrapper.h>

namespace SLB3 {
namespace {

const int kMethodAt = 2;

const char kNoMemory[] = "not enough memory";

} // namespace

// The error is raised behind the handlers: it leaves by longjmp, which must not skip the end of an exception.
int CallGuarded(lua_State* L)
{
    char reason[256];
    try {
        return (*static_cast<const lua_CFunction*>(lua_touserdata(L, lua_upvalueindex(kMethodAt))))(L);
    } catch (const std::bad_alloc&) {
        std::snprintf(reason, sizeof reason, "%s", kNoMemory);
    } catch (const std::exception& exception) {
        std::snprintf(reason, sizeof reason, "%s", exception.what());
    }
    return luaL_error(L, "%s", reason);
}

} // namespace SLB3
