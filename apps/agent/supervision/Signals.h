// Signals.h: how the process answers signals.
#pragma once

#include <sys/types.h>

class wxString;

/// Ends the process at once, with status 0 and without any clean-up, on SIGINT and SIGTERM; returns on every other
/// signal, which then only interrupts what the thread was doing.
void VelSignalHandler(int signal);

/// Blocks SIGTERM, and nothing else that the caller of the program may have left blocked, in the calling thread. Call
/// it before there is another one.
void BlockOnlySigterm();

/// Keeps SIGTERM away from the calling thread and from every thread that it starts.
void BlockSigterm();

/// Waits for SIGTERM, which has to be blocked in every thread, and logs that it came.
void AwaitSigterm();

/// Lets the calling thread take SIGTERM again.
void UnblockSigterm();

/// Sets the dispositions of a process that runs an application, and blocks SIGINT and SIGTERM in the calling thread and
/// the threads that it starts; docs/PROCESSES.md has the table. Call it from the script thread.
void InstallApplicationSignals();

/// Undoes an ignored SIGCHLD that the caller of the program left behind: nobody could wait for a child otherwise.
void RestoreChildSignal();

/// Until `PrepareForStop`.
void IgnoreHangup();

/// Gives a service-to-be the signal state that its watchdog relies on, whatever the caller of the program left behind:
/// default dispositions, and nothing blocked but SIGTERM. A stop that comes before the watchdog can answer it waits.
void PrepareForStop();

/// Makes the calling process answer SIGTERM as a watchdog: the first one from outside removes the pid file and goes on
/// to the process group, the next one ends the process. SIGTERM stays blocked; the three functions below let it in.
void ArmWatchdogSignals(const wxString& pidFile);

/// Whether a stop has reached the watchdog, one that waits for delivery included.
bool StopRequested();

/// Sleeps that long, or until a stop.
void SleepUntilStop(int milliseconds);

/// waitpid() for the child, interrupted by a stop. `error` receives errno.
pid_t WaitWithSigterm(pid_t child, int& status, int& error);
