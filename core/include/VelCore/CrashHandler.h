// CrashHandler.h: a crash leaves a witness that a debugger can open.
#pragma once

#include <string_view>

#include <wx/string.h>

namespace VelCore {

/// From now on SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP and SIGABRT write a minidump before they end the process; it
/// dies of the same signal. docs/CRASHES.md describes the dump and the records that a crash leaves in the log.
///
/// The work is done by a process that is forked at the moment of the crash, so that nothing in the crashed one has to
/// be in order. It gets 10 seconds, a full dump 60. Forks of the process crash for themselves.
///
/// path  of the dump, `<folder>/<file>`. The last eight are kept: `path` is the newest, `path.1` to `path.7` are older.
///       Folders of it that are missing now are made when they are needed, for their owner alone.
/// name  of the application
/// full  dumps also hold all writable memory
///
/// A signal that somebody else has given a handler keeps it.
///
/// Errors:  a dump that cannot be written is an Error record when the time comes.
/// Threads: before others are started. For the overflow of its stack a thread needs another one for the handler: the
///          calling thread gets it here, and CRunnable has it.
void InitCrashHandler(const wxString& path, const wxString& name, bool full);

/// Records a value that dumps show from now on, in the place of the last one of that name.
///
/// name, value  UTF-8, of which 64 and 1024 bytes are kept; 32 names at most
///
/// Threads: any.
void NoteForCrash(std::string_view name, std::string_view value);

} // namespace VelCore
