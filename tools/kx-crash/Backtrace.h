// Backtrace.h: the calls of the threads in a dump.
#pragma once

#include <memory>

#include "CrashDump.h"
#include "StackFrame.h"

/// Unwinds the threads of a dump with the help of the modules on this machine. A module that is not here, or is another
/// build than the one that crashed, gives neither names nor the way to the caller; the rest is then guessed.
///
/// Source: libdw's interface, elfutils/libdwfl.h.
class CBacktrace
{
public:
    /// dump  outlives the object
    explicit CBacktrace(const CrashDump& dump);
    ~CBacktrace();
    CBacktrace(const CBacktrace&) = delete;
    CBacktrace& operator=(const CBacktrace&) = delete;

    StackTrace Of(const DumpedThread& thread);

    /// Whether the module's file is here, in the build that crashed.
    bool IsHere(const DumpedModule& module) const;

private:
    struct Unwinder;
    std::unique_ptr<Unwinder> m_unwinder;
};
