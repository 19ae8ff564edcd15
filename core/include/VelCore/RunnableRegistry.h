// RunnableRegistry.h: the background runnables of the process.
#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <vector>

namespace VelCore {

class CRunnable;

/// Keeps every runnable that was started in the background until its thread has been joined, whoever else still knows
/// it, and ends them all when the application ends. A thread that has run out is joined at the next start or at the
/// end.
///
/// Ownership: the one of the process is never destroyed: threads that do not end may outlive everything else. Another
/// one
///            has to outlive its runnables.
/// Threads:   any.
class CRunnableRegistry
{
public:
    /// The one of the process.
    static CRunnableRegistry& Get();

    CRunnableRegistry() = default;
    CRunnableRegistry(const CRunnableRegistry&) = delete;
    CRunnableRegistry& operator=(const CRunnableRegistry&) = delete;

    /// Starts the runnable with the caller's signal mask. Once `StopAll` was called, it finds exit requested.
    ///
    /// Errors: false when no thread could be made; an error-level record says so.
    bool Start(const std::shared_ptr<CRunnable>& runnable);

    /// Asks every runnable to exit, those included that are started meanwhile, interrupts what they wait for, and joins
    /// them.
    ///
    /// Returns whether all of them have ended within the time; an error-level record names each of the others.
    bool StopAll(std::chrono::milliseconds patience);

private:
    using Runnables = std::vector<std::shared_ptr<CRunnable>>;

    void JoinEnded();
    Runnables TakeEnded();
    Runnables StartStopping();

    std::mutex m_mutex; // guards all below
    Runnables m_live;
    bool m_isStopping = false;
};

} // namespace VelCore
