// ProcessInfo.h: what the system tells about another process. One source file per system.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include <sys/types.h>

namespace VelCore {

/// When the process started, in milliseconds since 1970-01-01 UTC, by today's clock; nothing when it cannot be had.
std::optional<std::int64_t> ProcessStartMillis(pid_t process);

/// The path of the file that the process runs, also when that has been replaced or removed meanwhile; nothing when it
/// cannot be had: there is no such process, it has ended and not been waited for, or its owner keeps it to himself.
std::optional<std::string> ProcessExecutable(pid_t process);

} // namespace VelCore
