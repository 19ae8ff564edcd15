// Signal dispositions and masks of watchdog and worker.
//
// Tested by: blackbox/test_signals.py, blackbox/test_watchdog.py.

#include "supervision/Signals.h"

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <initializer_list>

#include <sys/wait.h>
#include <unistd.h>

#include <wx/filename.h>
#include <wx/log.h>

#include <VelCore/Profiler.h>
#include <VelCore/Runnable.h>

namespace {

// What pass_signal works with, in the names that the rest of the system's documentation uses for them.
wxString _the_pid_file; // NOLINT(bugprone-reserved-identifier)
int _my_pid = 0;        // NOLINT(bugprone-reserved-identifier); 0: the watchdog does not answer SIGTERM yet
volatile std::sig_atomic_t once = 0;

void SetDisposition(int signal, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

sigset_t SetOf(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    return set;
}

void Block(std::initializer_list<int> signals)
{
    const sigset_t set = SetOf(signals);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// SIGTERM in the watchdog. It calls more than a handler may; it is let in only where the watchdog waits.
void pass_signal(int, siginfo_t* information, void*)
{
    if (information->si_pid == _my_pid)
        return; // what goes to the group comes back here as well
    const bool isFirst = once == 0;
    once = once + 1;
    if (isFirst) {
        if (wxFileExists(_the_pid_file))
            wxRemoveFile(_the_pid_file);
        kill(0, SIGTERM);
        return;
    }
    kill(0, SIGTERM);
    std::exit(EXIT_SUCCESS);
}

} // namespace

void VelSignalHandler(int signal)
{
    if (signal == SIGINT || signal == SIGTERM)
        _exit(0);
}

void BlockOnlySigterm()
{
    const sigset_t set = SetOf({SIGTERM});
    sigprocmask(SIG_SETMASK, &set, nullptr);
}

void BlockSigterm()
{
    Block({SIGTERM});
}

void UnblockSigterm()
{
    const sigset_t set = SetOf({SIGTERM});
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
}

void AwaitSigterm()
{
    const sigset_t set = SetOf({SIGTERM});
    int signal = 0;
    profiler_idle();
    const int error = sigwait(&set, &signal);
    profiler_running();
    if (error != 0)
        wxLogSysError(error, L"sigwait");
    else
        wxLogWarning(L"sigwait(): caught signal %d", signal);
}

void InstallApplicationSignals()
{
    for (const int signal : {SIGINT, SIGTERM, SIGUSR1, SIGUSR2})
        SetDisposition(signal, VelSignalHandler, SA_RESTART);

    // Without SA_RESTART: it is sent to make a blocking call return.
    SetDisposition(VelCore::CRunnable::SigThreadDelete, VelSignalHandler, 0);
    SetDisposition(SIGHUP, SIG_IGN, SA_RESTART);
    Block({SIGINT, SIGTERM});

    // Without SA_RESTART: the alarm of a unit-test run interrupts a blocking call and does not end the process.
    SetDisposition(SIGALRM, VelSignalHandler, 0);
    SetDisposition(SIGPIPE, SIG_IGN, SA_RESTART);
}

void RestoreChildSignal()
{
    SetDisposition(SIGCHLD, SIG_DFL, 0);
}

void IgnoreHangup()
{
    SetDisposition(SIGHUP, SIG_IGN, 0);
}

void PrepareForStop()
{
    BlockOnlySigterm(); // first: a signal that comes while its disposition changes must not be lost
    for (int signal = 1; signal < NSIG; ++signal) {
        struct sigaction present = {};
        if (sigaction(signal, nullptr, &present) == 0 && present.sa_handler == SIG_IGN)
            SetDisposition(signal, SIG_DFL, 0);
    }
}

void ArmWatchdogSignals(const wxString& pidFile)
{
    Block({SIGCHLD});
    _the_pid_file = pidFile;
    _my_pid = getpid();

    // No SA_RESTART: the wait for the worker has to return, so that a stop is seen.
    struct sigaction action = {};
    action.sa_sigaction = pass_signal;
    action.sa_flags = SA_SIGINFO;
    action.sa_mask = SetOf({SIGTERM});
    sigaction(SIGTERM, &action, nullptr);
}

bool StopRequested()
{
    if (_my_pid != 0) {
        UnblockSigterm();
        BlockSigterm();
    }
    return once != 0;
}

// Not pselect(): the kernel lets it be late by a thousandth of the time. The signal is taken here and handed to its
// handler, which is in place: nothing is waited for before the first worker.
void SleepUntilStop(int milliseconds)
{
    using Clock = std::chrono::steady_clock;
    const sigset_t stop = SetOf({SIGTERM});
    const Clock::time_point end = Clock::now() + std::chrono::milliseconds(milliseconds);
    for (Clock::time_point now = Clock::now(); once == 0 && now < end; now = Clock::now()) {
        const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(end - now).count();
        struct timespec timeout = {};
        timeout.tv_sec = static_cast<time_t>(left / 1000000000);
        timeout.tv_nsec = static_cast<long>(left % 1000000000);
        siginfo_t information = {};
        if (sigtimedwait(&stop, &information, &timeout) == SIGTERM)
            pass_signal(SIGTERM, &information, nullptr);
    }
}

pid_t WaitWithSigterm(pid_t child, int& status, int& error)
{
    UnblockSigterm();
    const pid_t ended = waitpid(child, &status, 0);
    error = errno;
    BlockSigterm();
    return ended;
}
