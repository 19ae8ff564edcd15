// CRunnable over the framework's thread.
//
// Tested by: unit/core/threads/RunnableTest.cpp.

#include <VelCore/Runnable.h>

#include <algorithm>
#include <chrono>
#include <csignal>

#include <wx/log.h>

#include "crash/AlternateStack.h"

namespace VelCore {
namespace {

using Clock = std::chrono::steady_clock;

const unsigned int kStackSize = 8 * 1024 * 1024;

// Between two interruptions of a thread that was asked to exit.
const std::chrono::milliseconds kInterruptAgain{100};

void IgnoreInterruption(int) {}

// The default action of a real-time signal would end the process.
void GiveSignalAHandler(int signal)
{
    struct sigaction current = {};
    sigaction(signal, nullptr, &current);
    if (current.sa_handler != SIG_DFL)
        return;
    struct sigaction action = {};
    action.sa_handler = IgnoreInterruption;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

// Whatever the caller of the program has blocked: a thread that nobody can interrupt would hold up the end.
void UnblockInterruption()
{
    sigset_t interruption;
    sigemptyset(&interruption);
    sigaddset(&interruption, CRunnable::SigThreadDelete);
    pthread_sigmask(SIG_UNBLOCK, &interruption, nullptr);
}

} // namespace

// The first real-time signals belong to the C library on some systems.
const int CRunnable::SigThreadDelete = SIGRTMIN + 4;

CRunnable::CRunnable(bool exitRequested, int status, bool awakened)
    : wxThread(wxTHREAD_JOINABLE), m_exitRequested(exitRequested), m_awakened(awakened), m_status(status)
{
}

CRunnable::~CRunnable() = default;

bool CRunnable::start(unsigned int priority, bool inheritSignals, unsigned int stackSize)
{
    // The thread logs through this target; it has to exist, and only the main thread's first use makes it.
    wxLog::GetActiveTarget();
    GiveSignalAHandler(SigThreadDelete);

    // The system's thread, and with it the signal mask, is made by Create; Run only lets it go.
    sigset_t all;
    sigset_t callers;
    sigfillset(&all);
    for (const int crash : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT})
        sigdelset(&all, crash);
    if (!inheritSignals)
        pthread_sigmask(SIG_SETMASK, &all, &callers);
    const bool created = Create(stackSize == 0 ? kStackSize : stackSize) == wxTHREAD_NO_ERROR;
    if (!inheritSignals)
        pthread_sigmask(SIG_SETMASK, &callers, nullptr);
    if (!created)
        return false;

    if (priority != wxPRIORITY_DEFAULT)
        SetPriority(priority);
    const bool started = Run() == wxTHREAD_NO_ERROR;
    const std::lock_guard lock(m_mutex);
    if (started)
        m_phase = Phase::Started;
    return started;
}

int CRunnable::join()
{
    // The framework's wait is for one thread, and takes locks of its own, so ours is not held meanwhile.
    std::unique_lock lock(m_mutex);
    if (m_phase == Phase::Started) {
        m_phase = Phase::Joining;
        lock.unlock();
        Wait(wxTHREAD_WAIT_BLOCK);
        lock.lock();
        m_phase = Phase::Joined;
        m_wake.notify_all();
    }
    m_wake.wait(lock, [this] { return m_phase != Phase::Joining; });
    return m_status;
}

CRunnable* CRunnable::Current()
{
    return dynamic_cast<CRunnable*>(wxThread::This());
}

bool CRunnable::IsRunning()
{
    const std::lock_guard lock(m_mutex);
    return IsRunningLocked();
}

bool CRunnable::IsRunningLocked() const
{
    // The thread may be at work before `start` has noted that it was let go.
    return (m_running || m_phase != Phase::New) && !m_ended;
}

bool CRunnable::AwaitEnd(Clock::time_point deadline)
{
    std::unique_lock lock(m_mutex);
    while (IsRunningLocked()) {
        const Clock::time_point now = Clock::now();
        if (now >= deadline)
            return false;
        const bool interrupts = m_exitRequested;
        if (interrupts)
            InterruptLocked();
        m_wake.wait_until(lock, interrupts ? std::min(deadline, now + kInterruptAgain) : deadline,
                          [this, interrupts] { return m_ended || m_exitRequested != interrupts; });
    }
    return true;
}

void* CRunnable::Entry()
{
    // Also when OnRun leaves by an exception, which the framework reports.
    struct CRunningMark
    {
        explicit CRunningMark(CRunnable& runnable) : m_runnable(runnable)
        {
            const std::lock_guard lock(m_runnable.m_mutex);
            m_runnable.m_thread = pthread_self();
            m_runnable.m_running = true;
        }
        ~CRunningMark()
        {
            const std::lock_guard lock(m_runnable.m_mutex);
            m_runnable.m_running = false;
            m_runnable.m_ended = true;
            m_runnable.m_wake.notify_all();
        }
        CRunnable& m_runnable;
    };

    const CAlternateStack crashStack;
    UnblockInterruption();
    wxLog::SetThreadActiveTarget(wxLog::GetActiveTarget());
    SetNameForCurrent(wxString::FromUTF8(GetThreadName()));

    const CRunningMark mark(*this);
    const int status = OnRun();
    const std::lock_guard lock(m_mutex);
    m_status = status;
    return nullptr;
}

bool CRunnable::TestDestroy()
{
    const std::lock_guard lock(m_mutex);
    return m_exitRequested;
}

bool CRunnable::TestDestroy(unsigned int ms, bool* interrupted)
{
    std::unique_lock lock(m_mutex);
    m_wake.wait_for(lock, std::chrono::milliseconds(ms), [this] { return m_exitRequested || m_awakened; });
    if (interrupted)
        *interrupted = m_awakened;
    m_awakened = false;
    return m_exitRequested;
}

void CRunnable::Awaken()
{
    const std::lock_guard lock(m_mutex);
    m_awakened = true;
    m_wake.notify_all();
}

void CRunnable::interrupt()
{
    const std::lock_guard lock(m_mutex);
    InterruptLocked();
}

void CRunnable::InterruptLocked() const
{
    if (m_running)
        pthread_kill(m_thread, SigThreadDelete);
}

void CRunnable::requestExit()
{
    const std::lock_guard lock(m_mutex);
    if (m_exitRequested)
        return;
    m_exitRequested = true;
    m_wake.notify_all();
    for (const CExitListener* listener : m_exitListeners)
        listener->m_onExit();
}

CExitListener::CExitListener(CRunnable* runnable, std::function<void()> onExit)
    : m_runnable(runnable), m_onExit(std::move(onExit))
{
    if (!m_runnable)
        return;
    const std::lock_guard lock(m_runnable->m_mutex);
    m_runnable->m_exitListeners.push_back(this);
    if (m_runnable->m_exitRequested)
        m_onExit();
}

CExitListener::~CExitListener()
{
    if (!m_runnable)
        return;
    const std::lock_guard lock(m_runnable->m_mutex);
    std::vector<const CExitListener*>& listeners = m_runnable->m_exitListeners;
    listeners.erase(std::find(listeners.begin(), listeners.end(), this));
}

} // namespace VelCore
