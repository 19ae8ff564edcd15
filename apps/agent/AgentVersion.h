// AgentVersion.h: the two versions of the agent.
#pragma once

/// The version that people see: `app.version` and the banners.
const char* const kAgentVersionText = "11.0.0.2580";

/// The version that packages and extensions are checked against. It is compiled in, apart from the text above, so that
/// no domain variable can open the gate.
struct AgentGateVersion
{
    static const int s_Major = 11;
    static const int s_Minor = 0;
    static const int s_Patch = 0;
};
