// The agent event about a package or removal marker.
//
// Tested by: unit/agent/packages/PackageEventTest.cpp.

#include "packages/PackageEvent.h"

#include <wx/filename.h>
#include <wx/log.h>

#include <VelCore/AgentEvent.h>

#include "packages/PackageName.h"

using VelCore::CAgentEvent;

namespace {

struct EventKind
{
    std::int32_t number;
    wxLogLevel level;
};

// By PackageOutcome.
const EventKind kKinds[] = {
    {5101, wxLOG_Info},
    {5102, wxLOG_Warning},
    {5105, wxLOG_Info},
    {5106, wxLOG_Warning},
};

// An attribute is present from the moment it is set.
template <typename Attribute, typename Value>
void Set(CAgentEvent& event, Attribute CAgentEvent::*attribute, const Value& value)
{
    event.*attribute = value;
    event.SetAttributeNull(&(event.*attribute), false);
}

} // namespace

void DescribePackage(CAgentEvent& event, const wxFileName& package, std::int64_t nowMillis)
{
    Set(event, &CAgentEvent::description,
        getPluginName(package) + L'|' + package.GetName() + L'|' + package.GetFullPath());
    Set(event, &CAgentEvent::timeMillis, nowMillis);
    Set(event, &CAgentEvent::timeSeconds, static_cast<std::int32_t>(nowMillis / 1000));
}

void SetOutcome(CAgentEvent& event, PackageOutcome outcome)
{
    const EventKind& kind = kKinds[static_cast<int>(outcome)];
    Set(event, &CAgentEvent::eventNumber, kind.number);
    Set(event, &CAgentEvent::severity, CAgentEvent::ToSeverity(kind.level));
}
