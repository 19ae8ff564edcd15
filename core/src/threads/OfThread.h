// OfThread.h: an object of each thread that is there until the very end of it.
#pragma once

#include <memory>

namespace VelCore {

/// The calling thread's T, made by its first call and destroyed when the thread ends, the main thread's when the
/// process does.
///
/// Other objects of the thread may end later and still call this; a plain thread_local T would be gone by then. They
/// get a new one, which nobody destroys: one object for a thread that has such latecomers.
template <typename T>
T& OfThread()
{
    struct Owner
    {
        T*& object;
        ~Owner()
        {
            const std::unique_ptr<T> last(object);
            object = nullptr;
        }
    };
    thread_local T* t_object = nullptr; // needs no destructor, so it is there as long as the thread
    if (!t_object) {
        t_object = std::make_unique<T>().release();
        thread_local const Owner t_owner{t_object};
        static_cast<void>(t_owner);
    }
    return *t_object;
}

} // namespace VelCore
