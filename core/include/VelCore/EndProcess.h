// EndProcess.h: leaving the process from any thread.
#pragma once

namespace VelCore {

/// Flushes C's output streams and ends the process with `status`, past exit handlers and static destructors, which
/// other threads could still trip over.
///
/// A stream that another thread holds, for instance while it waits for input, is given up on after a second.
///
/// Threads: any.
[[noreturn]] void EndProcess(int status);

} // namespace VelCore
