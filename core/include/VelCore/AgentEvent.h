// AgentEvent.h: something that happened on this system and belongs on record.
#pragma once

#include <cstdint>

#include <wx/string.h>

#include <VelCore/XmlObject.h>

namespace VelCore {

/// One agent event. Set an attribute, then mark it as present with `SetAttributeNull(&attribute, false)`; one that is
/// not present is stored as NULL. Hand the event to `CDom::AgentEventWrite`.
class CAgentEvent : public XMLObject
{
public:
    wxString description;
    std::int32_t eventNumber = 0;
    std::int32_t severity = 0;    // see ToSeverity
    std::int32_t timeSeconds = 0; // since 1970-01-01 UTC
    std::int64_t timeMillis = 0;  // the same time

    /// The severity of a level of the framework's log (wxLOG_Error and so on); levels of no fixed meaning count as
    /// debug output.
    ///
    /// Source: RFC 5424, section 6.2.1.
    static std::int32_t ToSeverity(unsigned long level);
};

} // namespace VelCore
