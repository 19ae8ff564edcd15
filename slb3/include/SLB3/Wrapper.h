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

template <typename T>
int Collect(lua_State* L);

/// The class information of `T`.
template <typename T>
const ClassInfo& Class()
{
    static const ClassInfo info = {Wrapper<T>::ClassName(), &Wrapper<T>::Register, &Collect<T>};
    return info;
}

/// Argument 1, when it is an object of the class; else null. Whatever metatable a script has given it, it is known by
/// its content.
template <typename T>
const Object* FindObject(lua_State* L)
{
    const auto* object = static_cast<const Object*>(lua_touserdata(L, 1));
    return object && lua_rawlen(L, 1) >= sizeof(Object) && object->info == &Class<T>() ? object : nullptr;
}

/// The collector: checks the object, and gives up the share that a shared one has; what C++ owns is not destroyed. A
/// script that calls it by hand may pass anything; what is no object of the class is left alone.
template <typename T>
int Collect(lua_State* L)
{
    const Object* object = FindObject<T>(L);
    if (!object || !Unpack(*object) || object->storage != Storage::Shared)
        return 0;
    auto* shared = static_cast<SharedObject<T>*>(lua_touserdata(L, 1));
    shared->object.pointer = nullptr;
    shared->owner.reset(); // an empty one needs no destructor
    return 0;
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
    object->info = &Class<T>();
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
    auto* shared = new (lua_newuserdata(L, sizeof(SharedObject<T>)))
        SharedObject<T>{{Storage::Shared, nullptr, &Class<T>()}, nullptr};
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

/// Calls a function that may throw, in a C function that Lua has called: a C++ exception of its becomes a Lua error, so
/// that a protected call can catch it and no frame of Lua's is left by it. Without memory it is Lua's memory error.
int CallGuarded(lua_State* L, lua_CFunction function);

/// Adds a method to the namespace table at `namespaceAt`.
inline void AddMethod(lua_State* L, int namespaceAt, const char* name, lua_CFunction method)
{
    lua_pushcfunction(L, method);
    lua_setfield(L, namespaceAt, name);
}

/// A method that may throw, for `AddMethod`.
template <lua_CFunction method>
int Guarded(lua_State* L)
{
    return CallGuarded(L, method);
}

/// The object that a method was called on: argument 1.
///
/// Errors: anything but an object of the class is a Lua argument error that names the method.
template <typename T>
T& Self(lua_State* L, const char* method)
{
    const Object* object = FindObject<T>(L);
    void* pointer = object ? Unpack(*object) : nullptr;
    if (pointer)
        return *static_cast<T*>(pointer);
    if (object)
        luaL_error(L, "calling '%s' on a collected object (%s)", method, Wrapper<T>::ClassName());
    luaL_error(L, "calling '%s' on bad self (%s expected, got %s)", method, Wrapper<T>::ClassName(),
               luaL_typename(L, 1));
    AssertFailed("luaL_error returned", __FILE__, __LINE__);
}

} // namespace SLB3
