// Object.h: what a userdata of a bound class holds.
#pragma once

#include <memory>

#include <SLB3/Assert.h>
#include <SLB3/ClassInfo.h>

namespace SLB3 {

/// How a userdata refers to its C++ object.
enum class Storage : int {
    Invalid = 0, ///< never written into a live object
    Pointer = 1, ///< a plain pointer; C++ owns the object, Lua's garbage collection never destroys it
    Shared = 2,  ///< a SharedObject, which has a share in the object until it is collected
};

/// The content of every userdata that this library creates.
struct Object
{
    Storage storage;
    void* pointer;
    const ClassInfo* info; // of its class, by which `Self` knows it
};

/// The content of a userdata with a share in its object. After its collection, and before it is filled, the pointer is
/// null.
template <typename T>
struct SharedObject
{
    Object object; // the first member, by which all kinds are told apart
    std::shared_ptr<T> owner;
};

/// The C++ object behind `object`; aborts when its storage kind is none that we write.
inline void* Unpack(const Object& object)
{
    if (object.storage != Storage::Pointer && object.storage != Storage::Shared)
        AssertFailed("!\"Invalid object\"", __FILE__, __LINE__);
    return object.pointer;
}

} // namespace SLB3
