// CrashNotes.h: what a crash dump says about the process in its own terms.
#pragma once

#include "crash/TextBuffer.h"

namespace VelCore {

/// Appends the notes that `NoteForCrash` has recorded, a line `name=value` each, in the order of their first recording.
/// Control characters in a value are escaped.
///
/// Threads: for a signal handler, or the only thread of a fork; takes no lock.
void AddCrashNotes(CTextBuffer& text);

} // namespace VelCore
