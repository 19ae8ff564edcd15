// StackGuess.h: what a stack may have held, when nothing tells how to unwind it.
#pragma once

#include "CrashDump.h"
#include "StackFrame.h"

/// Words on the thread's stack that lie in a module, the innermost first: return addresses of its calls, but also of
/// calls long gone, and plain data. 64 at most, from the first 64 KiB.
std::vector<StackFrame> GuessFrames(const CrashDump& dump, const DumpedThread& thread);
