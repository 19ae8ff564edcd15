// Object.h: what a userdata of a bound class holds.
#pragma once

#include <SLB3/Assert.h>

namespace SLB3 {

/// How a userdata refers to its C++ object.
enum class Storage : int {
    Invalid = 0, ///< never written into a live object
    Pointer = 1, ///< a plain pointer; C++ owns the object, Lua's garbage collection never destroys it
};

/// The content of every userdata that this library creates.
struct Object
{
    Storage storage;
    void* pointer;
};

/// The C++ object behind `object`; aborts when its storage kind is none that we write.
inline void* Unpack(const Object& object)
{
    if (object.storage != Storage::Pointer)
        AssertFailed("!\"Invalid object\"", __FILE__, __LINE__);
    return object.pointer;
}

} // namespace SLB3
