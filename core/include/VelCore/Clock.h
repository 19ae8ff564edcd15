// Clock.h: the time as events and scripts see it.
#pragma once

#include <cstdint>

namespace VelCore {

/// Milliseconds since 1970-01-01 UTC, by the system's real-time clock.
std::int64_t TimeNowMillis();

} // namespace VelCore
