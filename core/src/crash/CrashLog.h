// CrashLog.h: records of the log from where the log itself cannot be used.
#pragma once

#include <cstdint>
#include <string_view>

#include <sys/types.h>

namespace VelCore {

/// Tells where the log file is from now on.
///
/// Threads: one at a time, any.
void SetCrashLogPath(std::string_view path);

/// Tells how many seconds local time is ahead of UTC. The C library may not be asked in the middle of a crash.
void SetCrashUtcOffset(std::int64_t seconds);

/// Appends an Error record to the log file, and shows it on standard error. The text is escaped here; what exceeds
/// 16 KiB is cut off. A missing log folder is made.
///
/// process  whose record it is
///
/// Memory: allocates nothing, and waits for nobody's lock for longer than a moment: safe in a signal handler.
void WriteCrashRecord(pid_t process, std::string_view text);

} // namespace VelCore
