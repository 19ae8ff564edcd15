// CDom: the way of an agent event to its store.
//
// Tested by: unit/core/events/EventStoreTest.cpp, blackbox/test_events.py.

#include <VelCore/AgentEvent.h>
#include <VelCore/Dom.h>

#include "events/EventStore.h"

namespace VelCore {

void CDom::AgentEventWrite(const CAgentEvent& event) const
{
    CEventStore::Get().Write(WorkFolder(), event);
}

} // namespace VelCore
