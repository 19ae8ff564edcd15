// The real-time clock in milliseconds.

#include <VelCore/Clock.h>

#include <chrono>

namespace VelCore {

std::int64_t TimeNowMillis()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

} // namespace VelCore
