// AgentAppTraits.h: what the framework asks about the application.
#pragma once

#include <wx/apptrait.h>

/// Directs the framework's log into the agent's log file.
class CAgentAppTraits : public wxConsoleAppTraits
{
public:
    ~CAgentAppTraits() override;
    wxLog* CreateLogTarget() override;
};
