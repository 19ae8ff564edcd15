// EventText.h: an agent event as text, for the log.
#pragma once

#include <string>

namespace VelCore {

class CAgentEvent;

/// All attributes that are present, the description last, since it may hold anything:
/// `event_number=5101, severity=6, time_s=1763700000, time_ms=1763700000123, description=text`. UTF-8; not escaped.
std::string EventText(const CAgentEvent& event);

} // namespace VelCore
