// AgentEvent_Binding.h: agent events from Lua.
#pragma once

struct lua_State;

namespace VelCore {

/// `dom:AgentEventWrite{event_number=, severity=, description=}`.
int LuaAgentEventWrite(lua_State* L);

} // namespace VelCore
