// Wrapper.h: binds a C++ class to Lua.
#pragma once

#include <new>
#include <utility>

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

/// The collector: checks the object, and gives up the share that a shared one has; what C++ owns is not destroyed. A
/// script that calls it by hand may pass anything; what is no object of the class is left alone.
template <typename T>
int Collect(lua_State* L)
{
    auto* object = static_cast<Object*>(luaL_testudata(L, 1, Wrapper<T>::ClassName()));
    if (!object || !Unpack(*object) || object->storage != Storage::Shared)
        return 0;
    object->pointer = nullptr;
    reinterpret_cast<SharedObject<T>*>(object)->owner.reset(); // an empty one needs no destructor
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

/// Pushes an object of the class that shall have a share in its C++ object, and gives it to `Share`. Until then its
/// methods fail. Two steps, because a Lua error of the first one would run no destructor of a shared pointer.
///
/// Stack:  +1.
/// Errors: a Lua memory error.
template <typename T>
SharedObject<T>& PushShared(lua_State* L)
{
    PushClass(L, Class<T>());
    auto* shared =
        new (lua_newuserdata(L, sizeof(SharedObject<T>))) SharedObject<T>{{Storage::Shared, nullptr}, nullptr};
    lua_insert(L, -2);
    lua_setmetatable(L, -2);
    return *shared;
}

/// Gives the pushed object its share.
template <typename T>
void Share(SharedObject<T>& shared, std::shared_ptr<T> owner)
{
    shared.owner = std::move(owner);
    shared.object.pointer = shared.owner.get();
}

/// Calls the C function in the second upvalue. A C++ exception of its becomes a Lua error, so that a script can catch
/// it and no frame of Lua's is left by it.
int CallGuarded(lua_State* L);

/// Adds a method to the namespace table at `namespaceAt`. The method finds its class's metatable in its first
/// upvalue, so that `Self` needs no look-up by name. It may throw.
template <typename T>
void AddMethod(lua_State* L, int namespaceAt, const char* name, lua_CFunction method)
{
    luaL_getmetatable(L, Wrapper<T>::ClassName());
    *static_cast<lua_CFunction*>(lua_newuserdata(L, sizeof method)) = method;
    lua_pushcclosure(L, CallGuarded, 2);
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
        void* pointer = isOurs ? Unpack(*object) : nullptr;
        if (pointer)
            return *static_cast<T*>(pointer);
        if (isOurs)
            luaL_error(L, "calling '%s' on a collected object (%s)", method, Wrapper<T>::ClassName());
    }
    luaL_error(L, "calling '%s' on bad self (%s expected, got %s)", method, Wrapper<T>::ClassName(),
               luaL_typename(L, 1));
    AssertFailed("luaL_error returned", __FILE__, __LINE__);
}

} // namespace SLB3
