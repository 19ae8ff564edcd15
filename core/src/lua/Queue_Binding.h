// Queue_Binding.h: queues between runnables as Lua sees them, class "SLB.Queue".
#pragma once

#include <SLB3/Wrapper.h>

#include "threads/MessageQueue.h"

namespace VelCore {

/// Makes module `vel.queues` available, with a function `Open(name [, limit])`. lua/core/vel/queue.lua is the module
/// for authors and says what the methods do.
///
/// Stack:  unchanged.
/// Errors: a Lua memory error.
void InstallQueues(lua_State* L);

} // namespace VelCore

namespace SLB3 {

template <>
struct Wrapper<VelCore::CMessageQueue>
{
    static const char* ClassName() { return "SLB.Queue"; }
    static void Register(lua_State* L, int namespaceAt);
};

} // namespace SLB3
