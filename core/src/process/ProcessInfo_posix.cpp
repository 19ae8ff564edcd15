// Systems without a source of their own: nothing is known about other processes.

#include "process/ProcessInfo.h"

namespace VelCore {

std::optional<std::int64_t> ProcessStartMillis(pid_t)
{
    return std::nullopt;
}

std::optional<std::string> ProcessExecutable(pid_t)
{
    return std::nullopt;
}

} // namespace VelCore
