// OrdinaryEvent.h: the event that measurements write.
#pragma once

#include <VelCore/AgentEvent.h>

namespace Driver {

const int kEventNumber = 5101;
const int kEventSeverity = 6;
const char* const kEventDescription =
    "an event of an ordinary length, as a monitor writes it for a file that has changed";

/// An event of the present moment.
VelCore::CAgentEvent OrdinaryEvent();

} // namespace Driver
