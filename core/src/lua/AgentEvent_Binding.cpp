// The method of the domain that writes an agent event.
//
// Lua leaves a failing function by longjmp, which runs no destructors, so all fields are taken from the table before
// the event is made.
//
// Tested by: unit/core/lua/AgentEventBindingTest.cpp, blackbox/test_events.py.

#include "lua/AgentEvent_Binding.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include <lua.hpp>

#include <VelCore/AgentEvent.h>
#include <VelCore/Clock.h>
#include <VelCore/DomBinding.h>
#include <VelCore/Utf8.h>

#include "lua/Arguments.h"

namespace VelCore {
namespace {

const char* const kMethod = "AgentEventWrite";

// stack: -> the value of the field, which stays there and keeps its text alive
int FieldError(lua_State* L, const char* field, const char* expected)
{
    return ArgumentError(L, kMethod, 1,
                         lua_pushfstring(L, "field '%s': %s expected, got %s", field, expected, luaL_typename(L, -1)));
}

std::int32_t CheckEventNumber(lua_State* L)
{
    const char* const field = "event_number";
    using Limits = std::numeric_limits<std::int32_t>;
    lua_getfield(L, 2, field);
    int isNumber = 0;
    const lua_Number number = lua_tonumberx(L, -1, &isNumber);
    if (!isNumber)
        FieldError(L, field, "number");
    if (std::floor(number) != number || !(number >= Limits::min() && number <= Limits::max()))
        ArgumentError(L, kMethod, 1, lua_pushfstring(L, "field '%s': not a 32-bit integer", field));
    return static_cast<std::int32_t>(number);
}

LuaText CheckTextField(lua_State* L, const char* field, LuaText absent)
{
    lua_getfield(L, 2, field);
    if (lua_isnil(L, -1))
        return absent;
    LuaText text{nullptr, 0};
    text.bytes = lua_tolstring(L, -1, &text.length);
    if (!text.bytes)
        FieldError(L, field, "string");
    return text;
}

wxLogLevel CheckSeverity(lua_State* L)
{
    const char* const field = "severity";
    const LuaText name = CheckTextField(L, field, {"message", 7});
    const wxLogLevel* level = FindLogLevel(name.View());
    if (level)
        return *level;
    ArgumentError(L, kMethod, 1, lua_pushfstring(L, "field '%s': unknown level '%s'", field, name.bytes));
    return wxLOG_Message; // not reached
}

template <typename Attribute, typename Value>
void SetAttribute(CAgentEvent& event, Attribute& attribute, Value value)
{
    attribute = static_cast<Attribute>(value);
    event.SetAttributeNull(&attribute, false);
}

void Write(const CDom& dom, std::int32_t eventNumber, wxLogLevel level, std::string_view description)
{
    const std::int64_t now = TimeNowMillis();
    CAgentEvent event;
    SetAttribute(event, event.description, FromUtf8(description));
    SetAttribute(event, event.timeMillis, now);
    SetAttribute(event, event.timeSeconds, now / 1000);
    SetAttribute(event, event.eventNumber, eventNumber);
    SetAttribute(event, event.severity, CAgentEvent::ToSeverity(level));
    dom.AgentEventWrite(event);
}

} // namespace

int LuaAgentEventWrite(lua_State* L)
{
    const CDom& dom = SLB3::Self<CDom>(L, kMethod);
    if (!lua_istable(L, 2))
        return TypeError(L, kMethod, 1, "table");
    const std::int32_t eventNumber = CheckEventNumber(L);
    const wxLogLevel level = CheckSeverity(L);
    const LuaText description = CheckTextField(L, "description", {"", 0});
    Write(dom, eventNumber, level, description.View());
    return 0;
}

} // namespace VelCore
