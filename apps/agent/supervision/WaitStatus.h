// WaitStatus.h: what the end of a worker means.
#pragma once

#include <wx/log.h>
#include <wx/string.h>

/// A line for the log.
struct WaitReport
{
    wxLogLevel level;
    wxString text;
};

/// Tells how the worker ended.
///
/// status  as waitpid() stores it: the low 7 bits are the signal, bit 7 tells of a core dump, bits 8 to 15 are the exit
///         code
WaitReport DescribeWaitStatus(int status);

enum class AfterWorker {
    End,        // the agent ends with ExitCodeOf(status)
    Restart,    // another worker takes its place
    StopDriver, // the kernel driver is stopped first, then another worker takes its place
};

/// Decides what the watchdog does next.
AfterWorker DecideAfterWorker(int status);

/// The worker's exit code; 0 when a signal ended it.
int ExitCodeOf(int status);
