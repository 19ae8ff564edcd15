// Starting, joining and ending background runnables.
//
// Tested by: unit/core/threads/RunnableRegistryTest.cpp, blackbox/test_runnables_end.py.

#include <VelCore/RunnableRegistry.h>

#include <algorithm>
#include <iterator>
#include <string>

#include <VelCore/Runnable.h>

#include "trace/LogText.h"

namespace VelCore {
namespace {

using Clock = std::chrono::steady_clock;

// How long one of those that are asked to exit is waited for before all are interrupted again.
const std::chrono::milliseconds kRound{100};

void ReportUnwilling(const CRunnable& runnable, std::chrono::milliseconds patience)
{
    LogText(wxLOG_Error, std::string("Runnable '") + runnable.GetThreadName() + "' has not ended within " +
                             std::to_string(patience.count()) + " ms");
}

} // namespace

CRunnableRegistry& CRunnableRegistry::Get()
{
    static CRunnableRegistry& registry = *new CRunnableRegistry;
    return registry;
}

bool CRunnableRegistry::Start(const std::shared_ptr<CRunnable>& runnable)
{
    JoinEnded();
    const std::lock_guard lock(m_mutex);
    if (m_isStopping)
        runnable->requestExit();
    if (!runnable->start(wxPRIORITY_DEFAULT, true, 0)) {
        LogText(wxLOG_Error, std::string("Runnable '") + runnable->GetThreadName() + "' could not be started");
        return false;
    }
    m_live.push_back(runnable);
    return true;
}

// Without our lock while it joins: the framework's main thread takes one of its own then.
void CRunnableRegistry::JoinEnded()
{
    for (const auto& runnable : TakeEnded())
        runnable->join();
}

CRunnableRegistry::Runnables CRunnableRegistry::TakeEnded()
{
    const std::lock_guard lock(m_mutex);
    const auto first = std::partition(m_live.begin(), m_live.end(), [](const auto& live) { return live->IsRunning(); });
    Runnables ended(std::make_move_iterator(first), std::make_move_iterator(m_live.end()));
    m_live.erase(first, m_live.end());
    return ended;
}

CRunnableRegistry::Runnables CRunnableRegistry::StartStopping()
{
    JoinEnded();
    const std::lock_guard lock(m_mutex);
    m_isStopping = true;
    return m_live;
}

bool CRunnableRegistry::StopAll(std::chrono::milliseconds patience)
{
    const Clock::time_point deadline = Clock::now() + patience;
    for (;;) {
        const Runnables live = StartStopping();
        if (live.empty())
            return true;
        if (Clock::now() >= deadline) {
            for (const auto& runnable : live)
                ReportUnwilling(*runnable, patience);
            return false;
        }
        for (const auto& runnable : live) {
            runnable->requestExit();
            runnable->interrupt();
        }
        live.front()->AwaitEnd(std::min(deadline, Clock::now() + kRound));
    }
}

} // namespace VelCore
