// Borrowed.h: buffers that outlive a call and are no one else's meanwhile.
#pragma once

#include <memory>
#include <utility>

#include "lua/Owned.h"

namespace VelCore {

/// Buffers of the thread, kept from one call to the next, so that they need not grow anew each time. Whoever comes
/// while they are lent, as a finalizer may, gets others.
///
/// Use it through `Borrow`, and give them back when they are no longer needed; after a Lua error the collector does.
template <typename T>
class CBorrowed
{
public:
    CBorrowed() = default; // empty, see PushOwned
    ~CBorrowed() { GiveBack(); }
    CBorrowed(const CBorrowed&) = delete;
    CBorrowed& operator=(const CBorrowed&) = delete;

    T& operator*() const { return *m_object; }
    T* operator->() const { return m_object.get(); }

    void Take() { m_object = t_spare ? std::move(t_spare) : std::make_unique<T>(); }

    void GiveBack()
    {
        if (m_object)
            t_spare = std::move(m_object);
    }

private:
    static inline thread_local std::unique_ptr<T> t_spare;

    std::unique_ptr<T> m_object;
};

/// stack:     -> a userdata that holds what is lent
/// className  of its metatable in the registry; one for each type
template <typename T>
CBorrowed<T>& Borrow(lua_State* L, const char* className)
{
    auto& borrowed = PushOwned<CBorrowed<T>>(L, className);
    borrowed.Take();
    return borrowed;
}

} // namespace VelCore
