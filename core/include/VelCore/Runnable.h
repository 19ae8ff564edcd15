// Runnable.h: a joinable thread that can be asked, woken and interrupted.
#pragma once

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <vector>

#include <pthread.h>

#include <wx/thread.h>

namespace VelCore {

class CDom;
class CExitListener;

/// Runs `OnRun` once, on a thread of its own, whose log records reach the log at once.
///
/// Ownership: the object has to outlive its thread; join it before it is destroyed.
/// Threads:   every public member may be called from any thread; `join` from any but the runnable's own.
class CRunnable : public wxThread
{
public:
    /// The real-time signal that `interrupt` sends. The first `start` gives it a handler that does nothing, unless the
    /// process has given it one.
    static const int SigThreadDelete;

    /// exitRequested  the thread finds exit requested from its beginning
    /// status         what `join` gives until `OnRun` has returned
    /// awakened       the first timed wait ends at once
    CRunnable(bool exitRequested, int status, bool awakened);
    ~CRunnable() override;

    /// Starts the thread.
    ///
    /// priority        the framework's 0 to 100; 50 is the default
    /// inheritSignals  true: the thread starts with the caller's signal mask; false: with every signal blocked but
    /// those of a
    ///                 crash. SigThreadDelete is never blocked.
    /// stackSize       bytes; 0 for 8 MiB, which Lua's recursion through C needs on systems whose default is small
    ///
    /// Errors: false when no thread could be made; the framework has logged why.
    bool start(unsigned int priority, bool inheritSignals, unsigned int stackSize);

    /// Waits for the thread's end, if it was started, and gives its status. May be called again.
    int join();

    /// The runnable whose thread this is; null on every other thread.
    static CRunnable* Current();

    /// Whether it was started and its work has not ended.
    bool IsRunning();

    /// Waits while it runs, at most until `deadline`. Once exit is requested, it is interrupted again and again: the
    /// first time may have been just before a blocking call.
    ///
    /// Returns whether it runs no more; `join` then takes no time.
    bool AwaitEnd(std::chrono::steady_clock::time_point deadline);

    /// Whether exit has been requested.
    bool TestDestroy() override;

    /// Waits up to `ms` milliseconds, or until exit is requested or `Awaken` is called. Returns whether exit has been
    /// requested; `interrupted`, when not null, tells whether `Awaken` ended the wait.
    virtual bool TestDestroy(unsigned int ms, bool* interrupted);

    /// Ends the current timed wait, or else the next one.
    virtual void Awaken();

    /// Sends SigThreadDelete to the thread, if it runs, so that a blocking call returns with EINTR.
    virtual void interrupt();

    /// Asks the thread to end; ends a timed wait.
    virtual void requestExit();

    /// For debuggers and process listings; at most 15 characters are shown.
    virtual const char* GetThreadName() const { return "CRunnable"; }

    void SetDom(CDom* dom) { m_dom = dom; }
    CDom* GetDom() const { return m_dom; }

protected:
    void* Entry() override;

    /// The thread's work. The result is the status that `join` gives.
    virtual int OnRun() = 0;

private:
    friend class CExitListener;

    bool IsRunningLocked() const;
    void InterruptLocked() const;

    std::mutex m_mutex; // guards all below
    std::condition_variable m_wake;
    bool m_exitRequested;
    bool m_awakened;
    std::vector<const CExitListener*> m_exitListeners;
    enum class Phase { New, Started, Joining, Joined } m_phase = Phase::New;
    bool m_running = false; // between the thread's first and last action: m_thread is valid
    bool m_ended = false;   // the thread's last action is done
    pthread_t m_thread{};
    int m_status;

    CDom* m_dom = nullptr; // not owned; set before the start
};

/// Calls back when exit is requested of a runnable, as long as it lives; from the beginning if it has been. For waits
/// that are not the runnable's own.
///
/// Ownership: both have to outlive it.
/// Threads:   the call comes on the thread that requests, which holds the runnable's lock: it must not call the
/// runnable,
///            nor take a lock that is held where this is made or destroyed.
class CExitListener
{
public:
    /// runnable  may be null: then there is no call
    CExitListener(CRunnable* runnable, std::function<void()> onExit);
    ~CExitListener();
    CExitListener(const CExitListener&) = delete;
    CExitListener& operator=(const CExitListener&) = delete;

private:
    friend class CRunnable;

    CRunnable* m_runnable;
    std::function<void()> m_onExit;
};

} // namespace VelCore
