// Wrapper.h: binds a C++ class to Lua.
#pragma once

#include <SLB3/ClassInfo.h>
#include <SLB3/Object.h>

#include <lua.hpp>

namespace SLB3 {

/// Specialised by the owner of `T`, next to its bindings:
///
///     template <> struct Wrapper<T> {
///         static const char* ClassName();                     // "SLB.Something"
///         static void Register(lua_State* L, int namespaceAt); // adds the methods, leaves the stack as it was
///     };
template <typename T>
struct Wrapper;

/// The collector of by-pointer objects: checks the object, destroys nothing, since C++ owns it. A script that calls it
/// by hand may pass anything; what is no object of the class is left alone.
template <typename T>
int Collect(lua_State* L)
{
    if (const void* object = luaL_testudata(L, 1, Wrapper<T>::ClassName()))
        Unpack(*static_cast<const Object*>(object));
    return 0;
}

/// The class information of `T`.
template <typename T>
const ClassInfo& Class()
{
    static const ClassInfo info = {Wrapper<T>::ClassName(), &Wrapper<T>::Register, &Collect<T>};
    return info;
}

/// Pushes `pointer` as an object of its class, or nil when it is null. Lua does not own the object.
///
/// Stack:  +1.
/// Errors: a Lua memory error.
template <typename T>
void Push(lua_State* L, T* pointer)
{
    if (!pointer) {
        lua_pushnil(L);
        return;
    }
    PushClass(L, Class<T>());
    auto* object = static_cast<Object*>(lua_newuserdata(L, sizeof(Object)));
    object->storage = Storage::Pointer;
    object->pointer = pointer;
    lua_insert(L, -2);
    lua_setmetatable(L, -2);
}

/// Adds a method to the namespace table at `namespaceAt`. The method finds its class's metatable in its first
/// upvalue, so that `Self` needs no look-up by name.
template <typename T>
void AddMethod(lua_State* L, int namespaceAt, const char* name, lua_CFunction method)
{
    luaL_getmetatable(L, Wrapper<T>::ClassName());
    lua_pushcclosure(L, method, 1);
    lua_setfield(L, namespaceAt, name);
}

/// The object that a method was called on: argument 1 of a method added with `AddMethod`.
///
/// Errors: anything but an object of the class is a Lua argument error that names the method.
template <typename T>
T& Self(lua_State* L, const char* method)
{
    auto* object = static_cast<const Object*>(lua_touserdata(L, 1));
    if (object && lua_getmetatable(L, 1)) {
        const bool isOurs = lua_rawequal(L, -1, lua_upvalueindex(1)) != 0;
        lua_pop(L, 1);
        if (isOurs)
            return *static_cast<T*>(Unpack(*object));
    }
    luaL_error(L, "calling '%s' on bad self (%s expected, got %s)", method, Wrapper<T>::ClassName(),
               luaL_typename(L, 1));
    AssertFailed("luaL_error returned", __FILE__, __LINE__);
}

} // namespace SLB3
