// Wait statuses in words, and what follows from them.
//
// Tested by: unit/agent/supervision/WaitStatusTest.cpp.

#include "supervision/WaitStatus.h"

#include <csignal>
#include <cstring>

#include <VelCore/Utf8.h>

namespace {

const int kSignalBits = 0x7f;
const int kCoreFlag = 0x80;

// With this exit code a worker asks for the kernel driver to be stopped.
const int kStopDriverCode = 3;

int SignalOf(int status)
{
    return status & kSignalBits;
}

bool HasExited(int status)
{
    return (status & (kSignalBits | kCoreFlag)) == 0;
}

// SIGBUS and SIGFPE are meant to be missing: they count as plain exits.
bool IsCrash(int signal)
{
    return signal == SIGILL || signal == SIGTRAP || signal == SIGABRT || signal == SIGSEGV;
}

wxString SignalName(int signal)
{
    const char* name = strsignal(signal);
    return name ? VelCore::FromUtf8(name) : wxString(L"Unknown Signal");
}

} // namespace

WaitReport DescribeWaitStatus(int status)
{
    if (HasExited(status))
        return {wxLOG_Info,
                wxString::Format(L"Child process exited with status %d (exit %d)", status, ExitCodeOf(status))};
    if (ExitCodeOf(status) != 0) // a report that it was stopped or continued
        return {wxLOG_Info, wxString::Format(L"Child process exited with status %d", status)};

    const int signal = SignalOf(status);
    const wxString name = SignalName(signal);
    if (IsCrash(signal))
        return {wxLOG_Error,
                wxString::Format(L"Child process crashed with status %d (signal %d: %s)", status, signal, name)};
    return {wxLOG_Info, wxString::Format(L"Child process exited with status %d (signal %d: %s)", status, signal, name)};
}

AfterWorker DecideAfterWorker(int status)
{
    if (HasExited(status))
        return ExitCodeOf(status) == kStopDriverCode ? AfterWorker::StopDriver : AfterWorker::End;
    const bool isTermination = (status & ~kCoreFlag & 0xffff) == SIGTERM;
    return isTermination ? AfterWorker::End : AfterWorker::Restart;
}

int ExitCodeOf(int status)
{
    return (status >> 8) & 0xff;
}
