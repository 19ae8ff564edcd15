// MessageQueue.h: messages from thread to thread.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <memory>
#include <mutex>
#include <string>

namespace VelCore {

class CRunnable;

/// Messages, first in, first out, and not more of them than the limit.
///
/// A wait ends at its deadline, and when exit is requested of `waiter`, which may be null. What needs no wait is done
/// all the same: who was asked to exit can still take what is there.
///
/// Threads: any.
class CMessageQueue
{
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    static const std::size_t s_DefaultLimit = 1000;

    /// The queue of that name, for all who open it. It is there as long as somebody holds it, or something is in it.
    static std::shared_ptr<CMessageQueue> Open(const std::string& name);

    /// How many messages may wait; at least 1.
    void SetLimit(std::size_t limit);

    /// Appends the message as soon as there is room. Returns false when there was none.
    bool Push(std::string message, TimePoint deadline, CRunnable* waiter);

    /// Takes the first message as soon as there is one. Returns false when there was none.
    bool Pop(std::string& message, TimePoint deadline, CRunnable* waiter);

    bool IsEmpty() const;

private:
    mutable std::mutex m_mutex; // guards all below
    std::condition_variable m_changed;
    std::deque<std::string> m_messages;
    std::size_t m_limit = s_DefaultLimit;
};

} // namespace VelCore
