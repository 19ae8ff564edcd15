// DomBinding.h: the domain as Lua sees it, class "SLB.Dom".
#pragma once

#include <SLB3/Wrapper.h>

#include <VelCore/Dom.h>

namespace SLB3 {

/// Push a domain with SLB3::Push. docs/DOMAIN.md lists the methods.
template <>
struct Wrapper<VelCore::CDom>
{
    static const char* ClassName() { return "SLB.Dom"; }
    static void Register(lua_State* L, int namespaceAt);
};

} // namespace SLB3
