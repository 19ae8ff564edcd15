// An agent event as text.
//
// Tested by: unit/core/events/AgentEventTest.cpp.

#include "events/EventText.h"

#include <VelCore/AgentEvent.h>
#include <VelCore/Utf8.h>

namespace VelCore {

std::string EventText(const CAgentEvent& event)
{
    std::string text;
    const auto add = [&](const void* attribute, const char* name, const std::string& value) {
        if (event.AttributeIsNull(attribute))
            return;
        text.append(text.empty() ? "" : ", ").append(name).append("=").append(value);
    };
    add(&event.eventNumber, "event_number", std::to_string(event.eventNumber));
    add(&event.severity, "severity", std::to_string(event.severity));
    add(&event.timeSeconds, "time_s", std::to_string(event.timeSeconds));
    add(&event.timeMillis, "time_ms", std::to_string(event.timeMillis));
    add(&event.description, "description", ToUtf8(event.description));
    return text;
}

} // namespace VelCore
