// Signals.h: how the process answers signals.
#pragma once

/// Ends the process at once, with status 0 and without any clean-up, on SIGINT and SIGTERM; returns on every other
/// signal, which then only interrupts what the thread was doing.
void VelSignalHandler(int signal);

/// Keeps SIGTERM away from the calling thread and from every thread that it starts.
void BlockSigterm();

/// Sets the dispositions of a process that runs an application, and blocks SIGINT and SIGTERM in the calling thread and
/// the threads that it starts; docs/PROCESSES.md has the table. Call it from the script thread.
void InstallApplicationSignals();

/// Undoes an ignored SIGCHLD that the caller of the program left behind: nobody could wait for a child otherwise.
void RestoreChildSignal();
