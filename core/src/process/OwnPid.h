// OwnPid.h: the id of this process without a system call.
#pragma once

#include <sys/types.h>

namespace VelCore {

/// As getpid(), which asks the system each time. A child of fork() gets its own answer.
///
/// Threads: any.
pid_t OwnPid();

} // namespace VelCore
