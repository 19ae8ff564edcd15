// Log levels as severities.
//
// Tested by: unit/core/events/AgentEventTest.cpp.

#include <VelCore/AgentEvent.h>

#include <iterator>

namespace VelCore {
namespace {

// By the framework's level numbers: fatal, error, warning, message, status, info, debug, trace.
const std::int32_t kSeverities[] = {2, 3, 4, 5, 6, 6, 7, 7};
const std::int32_t kDebug = 7;

} // namespace

std::int32_t CAgentEvent::ToSeverity(unsigned long level)
{
    return level < std::size(kSeverities) ? kSeverities[level] : kDebug;
}

} // namespace VelCore
