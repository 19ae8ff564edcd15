// Profiler.h: marks for a profiler around the long wait of a service.
#pragma once

/// The calling thread has nothing to do until the service is stopped. Does nothing without a profiler.
inline void profiler_idle() {}

/// The calling thread works again.
inline void profiler_running() {}
