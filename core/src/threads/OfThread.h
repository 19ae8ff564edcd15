// OfThread.h: an object of each thread that is there until the very end of it.
#pragma once

#include <memory>

#include <pthread.h>

namespace VelCore {

/// The calling thread's T, made by its first call and destroyed when the thread ends. The main thread's stays.
///
/// A plain thread_local T is gone when an object that was made sooner ends, and so is the main thread's while static
/// objects end. Both may still call this: keys of the system's threads are let go after all that. Whoever comes even
/// later gets a new one.
template <typename T>
T& OfThread()
{
    thread_local T* t_object = nullptr; // needs no destructor, so it is there as long as the thread
    struct Key
    {
        pthread_key_t key{};
        bool isMade = pthread_key_create(&key, Destroy) == 0;

        static void Destroy(void* object)
        {
            t_object = nullptr;
            const std::unique_ptr<T> last(static_cast<T*>(object));
        }
    };
    if (!t_object) {
        static const Key key;
        auto made = std::make_unique<T>();
        if (key.isMade)
            pthread_setspecific(key.key, made.get());
        t_object = made.release();
    }
    return *t_object;
}

} // namespace VelCore
