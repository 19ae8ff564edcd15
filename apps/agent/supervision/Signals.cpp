// Signal dispositions and masks of a process that runs an application.
//
// Tested by: blackbox/test_signals.py.

#include "supervision/Signals.h"

#include <csignal>
#include <initializer_list>

#include <unistd.h>

#include <VelCore/Runnable.h>

namespace {

void SetDisposition(int signal, void (*handler)(int), int flags)
{
    struct sigaction action = {};
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    sigaction(signal, &action, nullptr);
}

void Block(std::initializer_list<int> signals)
{
    sigset_t set;
    sigemptyset(&set);
    for (const int signal : signals)
        sigaddset(&set, signal);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

} // namespace

void VelSignalHandler(int signal)
{
    if (signal == SIGINT || signal == SIGTERM)
        _exit(0);
}

void BlockSigterm()
{
    Block({SIGTERM});
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
