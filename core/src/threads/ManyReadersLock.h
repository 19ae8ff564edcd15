// ManyReadersLock.h: a shared lock that costs readers little and writers more.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <mutex>

namespace VelCore {

/// A lock for data that is read all the time and seldom written. Use it with std::shared_lock and std::unique_lock.
///
/// Each reader counts itself in a slot of its thread, which has a cache line of its own: readers on different
/// processors do not wait for each other's lines, as they do where all of them count in one place. A writer announces
/// itself and looks through all the slots until each has been empty once; readers that come in the meantime wait.
///
/// A reader holds it for a moment only, and calls nothing that may wait: writers poll. Neither is it recursive.
///
/// Threads: any number at once; more than there are slots share some.
class CManyReadersLock
{
public:
    void lock()
    {
        m_writers.lock();
        m_isWriting.store(true);
        WaitForReaders();
    }

    void unlock()
    {
        m_isWriting.store(false, std::memory_order_release);
        m_writers.unlock();
    }

    // The count before the question, as the writer has its announcement before its look at the count: both orders are
    // sequentially consistent, so at least one of the two sees the other.
    void lock_shared()
    {
        Slot& own = m_slots[OwnSlot()];
        own.readers.fetch_add(1);
        if (m_isWriting.load())
            WaitForWriter(own);
    }

    void unlock_shared() { m_slots[OwnSlot()].readers.fetch_sub(1, std::memory_order_release); }

private:
    static const std::size_t s_CacheLine = 64; // bytes
    static const std::size_t s_Slots = 8;

    struct alignas(s_CacheLine) Slot
    {
        std::atomic<int> readers{0};
    };

    static std::size_t OwnSlot()
    {
        if (s_ownSlot == s_Slots)
            s_ownSlot = NextSlot();
        return s_ownSlot;
    }

    static std::size_t NextSlot();
    void WaitForReaders();
    void WaitForWriter(Slot& own);

    static inline thread_local std::size_t s_ownSlot = s_Slots; // none yet

    std::array<Slot, s_Slots> m_slots;
    std::atomic<bool> m_isWriting{false};
    std::mutex m_writers;
};

} // namespace VelCore
