// The waiting.
//
// Tested by: unit/core/threads/ManyReadersLockTest.cpp.

#include "threads/ManyReadersLock.h"

#include <thread>

namespace VelCore {

// Threads get the slots in turn.
std::size_t CManyReadersLock::NextSlot()
{
    static std::atomic<std::size_t> s_threads{0};
    return s_threads.fetch_add(1, std::memory_order_relaxed) % s_Slots;
}

void CManyReadersLock::WaitForReaders()
{
    for (Slot& slot : m_slots) {
        while (slot.readers.load() != 0)
            std::this_thread::yield();
    }
}

// Counts itself again while it keeps writers out, so it waits once at most.
void CManyReadersLock::WaitForWriter(Slot& own)
{
    own.readers.fetch_sub(1, std::memory_order_release);
    const std::lock_guard lock(m_writers);
    own.readers.fetch_add(1);
}

} // namespace VelCore
