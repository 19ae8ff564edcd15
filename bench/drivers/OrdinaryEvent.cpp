// The event that measurements write.

#include "drivers/OrdinaryEvent.h"

#include <VelCore/Clock.h>

namespace Driver {

VelCore::CAgentEvent OrdinaryEvent()
{
    const int millisPerSecond = 1000;
    VelCore::CAgentEvent event;
    event.description = kEventDescription;
    event.SetAttributeNull(&event.description, false);
    event.eventNumber = kEventNumber;
    event.SetAttributeNull(&event.eventNumber, false);
    event.severity = kEventSeverity;
    event.SetAttributeNull(&event.severity, false);
    event.timeMillis = VelCore::TimeNowMillis();
    event.SetAttributeNull(&event.timeMillis, false);
    event.timeSeconds = static_cast<std::int32_t>(event.timeMillis / millisPerSecond);
    event.SetAttributeNull(&event.timeSeconds, false);
    return event;
}

} // namespace Driver
