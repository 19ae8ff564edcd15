// Execute.h: running a program and waiting for it.
#pragma once

#include <wx/string.h>

namespace VelCore {

/// Runs a program without a shell, and waits for its end.
///
/// It gets default signal dispositions, an empty signal mask, a process group of its own, and no descriptors but the
/// standard three.
///
/// program    path of the executable; no search
/// arguments  split at blanks; single or double quotes keep blanks, and make an empty argument possible
/// output     receives standard output and standard error, as UTF-8; of more than 1 MiB only the beginning. What
///            processes that the program leaves behind write after its end is not waited for.
/// code       receives the exit status; 128 and the signal's number when a signal ended the program
/// error      receives what went wrong: "cannot start <program>: <reason>", "exited with status N",
///            "killed by signal N (name)"; empty on success
///
/// Returns: true when the program ran and exited with 0.
/// Threads: any; the caller may have SIGCHLD blocked.
bool Execute(const wxString& program, const wxString& arguments, wxString& output, unsigned long& code,
             wxString& error);

} // namespace VelCore
