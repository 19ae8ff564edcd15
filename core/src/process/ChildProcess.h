// ChildProcess.h: starting programs with a clean signal state.
#pragma once

#include <string>
#include <vector>

#include <sys/types.h>

namespace VelCore {

/// A standard descriptor of the child that is taken from one of ours.
struct ChildDescriptor
{
    int ours; // -1: the child inherits the descriptor as it is
    int childs;
};

/// Starts `/bin/sh -c command` with default signal dispositions and an empty signal mask, in our process group: for
/// scripts, which ask for a shell by its name.
///
/// Returns the child's process id; -1 with errno set when it could not be started.
pid_t SpawnShell(const char* command, ChildDescriptor redirected);

/// Starts the program `words[0]`, a path, with `words` as its arguments, default signal dispositions and an empty
/// signal mask, in a process group of its own. Its standard output and standard error go to `output`, its standard
/// input is ours, and it gets no other descriptor.
///
/// Returns the child's process id; -1 with errno set when it could not be started.
pid_t SpawnProgram(const std::vector<std::string>& words, int output);

/// Waits for the child, through interruptions. Returns its wait status; -1 with errno set on failure.
int WaitForChild(pid_t child);

} // namespace VelCore
