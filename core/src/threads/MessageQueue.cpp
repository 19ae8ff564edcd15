// A deque with two conditions, and the table of names.
//
// Tested by: unit/core/threads/MessageQueueTest.cpp.

#include "threads/MessageQueue.h"

#include <iterator>
#include <map>
#include <utility>

#include <VelCore/Runnable.h>

namespace VelCore {
namespace {

using Queues = std::map<std::string, std::shared_ptr<CMessageQueue>>;

// Who holds a queue got it here, under the lock that the caller has; so one that only the table holds stays alone.
void ForgetAbandoned(Queues& queues)
{
    for (auto each = queues.begin(); each != queues.end();) {
        const bool isAbandoned = each->second.use_count() == 1 && each->second->IsEmpty();
        each = isAbandoned ? queues.erase(each) : std::next(each);
    }
}

// A waiting thread that also looks at whether exit is requested of its runnable.
class CExitWatch
{
public:
    CExitWatch(CRunnable* runnable, std::mutex& mutex, std::condition_variable& changed)
        : m_listener(runnable, [this, &mutex, &changed] {
              const std::lock_guard lock(mutex);
              m_isRequested = true;
              changed.notify_all();
          })
    {
    }

    /// With the mutex held.
    bool IsRequested() const { return m_isRequested; }

private:
    bool m_isRequested = false;
    CExitListener m_listener; // the last member: it may call at once
};

} // namespace

std::shared_ptr<CMessageQueue> CMessageQueue::Open(const std::string& name)
{
    static std::mutex& mutex = *new std::mutex;
    static Queues& queues = *new Queues;

    const std::lock_guard lock(mutex);
    ForgetAbandoned(queues);
    std::shared_ptr<CMessageQueue>& queue = queues[name];
    if (!queue)
        queue = std::make_shared<CMessageQueue>();
    return queue;
}

void CMessageQueue::SetLimit(std::size_t limit)
{
    const std::lock_guard lock(m_mutex);
    m_limit = limit;
    m_changed.notify_all();
}

bool CMessageQueue::Push(std::string message, TimePoint deadline, CRunnable* waiter)
{
    const CExitWatch exit(waiter, m_mutex, m_changed);
    std::unique_lock lock(m_mutex);
    m_changed.wait_until(lock, deadline, [&] { return m_messages.size() < m_limit || exit.IsRequested(); });
    if (m_messages.size() >= m_limit)
        return false;
    m_messages.push_back(std::move(message));
    m_changed.notify_all();
    return true;
}

bool CMessageQueue::Pop(std::string& message, TimePoint deadline, CRunnable* waiter)
{
    const CExitWatch exit(waiter, m_mutex, m_changed);
    std::unique_lock lock(m_mutex);
    m_changed.wait_until(lock, deadline, [&] { return !m_messages.empty() || exit.IsRequested(); });
    if (m_messages.empty())
        return false;
    message = std::move(m_messages.front());
    m_messages.pop_front();
    m_changed.notify_all();
    return true;
}

bool CMessageQueue::IsEmpty() const
{
    const std::lock_guard lock(m_mutex);
    return m_messages.empty();
}

} // namespace VelCore
