// What Lua sees of CDom.
//
// Lua leaves a failing function by longjmp, which runs no destructors, and runs finalizers, which may call these
// methods again, whenever it takes memory. So the methods take their arguments first, then use C++ objects and the
// thread's buffers only where no Lua function is called, and let Lua keep what has to live longer.
//
// Tested by: unit/core/lua/DomBindingTest.cpp.

#include <VelCore/DomBinding.h>

#include <cmath>
#include <cstring>
#include <string_view>
#include <variant>

#include <wx/log.h>

#include <lua.hpp>

#include <VelCore/Clock.h>
#include <VelCore/Trace.h>
#include <VelCore/Utf8.h>

#include "lua/AgentEvent_Binding.h"
#include "lua/Arguments.h"
#include "lua/Owned.h"
#include "lua/Runnable_Binding.h"
#include "trace/LogText.h"

namespace {

using VelCore::ArgumentError;
using VelCore::CDom;
using VelCore::CDomValue;
using VelCore::CheckText;
using VelCore::FromUtf8;
using VelCore::LuaText;
using VelCore::TypeError;

// Texts up to this size are pushed from the C stack; Lua takes memory for them only after they were copied there.
const std::size_t kShortText = 1024; // bytes

thread_local std::string t_key;

// The bytes belong to the argument.
std::string_view CheckKeyView(lua_State* L, const char* method)
{
    const LuaText key = CheckText(L, method, 1);
    if (key.length == 0)
        ArgumentError(L, method, 1, "empty key");
    return key.View();
}

// Sets t_key.
const std::string& CheckKey(lua_State* L, const char* method)
{
    t_key = CheckKeyView(L, method);
    return t_key;
}

// Pushes what a variable holds.
struct PushValue
{
    lua_State* L;

    void operator()(bool value) const { lua_pushboolean(L, value); }
    void operator()(std::int64_t value) const { lua_pushnumber(L, static_cast<lua_Number>(value)); }
    void operator()(double value) const { lua_pushnumber(L, value); }
    void operator()(std::string_view value) const { lua_pushlstring(L, value.data(), value.size()); }
};

// A copy of a value that a Lua error may leave behind: nothing of it has to be freed.
class CShortValue
{
public:
    // Result: false when the value is a text that is too long.
    bool Take(const CDomValue& value)
    {
        if (const auto* text = std::get_if<std::string>(&value)) {
            if (text->size() > sizeof m_text)
                return false;
            m_value = std::string_view(m_text, text->copy(m_text, sizeof m_text));
        } else if (const auto* number = std::get_if<std::int64_t>(&value)) {
            m_value = *number;
        } else if (const auto* fraction = std::get_if<double>(&value)) {
            m_value = *fraction;
        } else {
            m_value = std::get<bool>(value);
        }
        return true;
    }

    void Push(lua_State* L) const { std::visit(PushValue{L}, m_value); }

private:
    std::variant<bool, std::int64_t, double, std::string_view> m_value;
    char m_text[kShortText]; // what m_value may be a view on
};

// Pushes what the variable holds; nothing when it is absent.
bool PushLongValue(lua_State* L, const CDom& dom, std::string_view key)
{
    auto& value = VelCore::PushOwned<CDomValue>(L, "vel.dom.value");
    if (!dom.Read(key, value)) {
        lua_pop(L, 1);
        return false;
    }
    std::visit(PushValue{L}, value);
    return true;
}

bool PushStored(lua_State* L, const CDom& dom, std::string_view key)
{
    CShortValue value;
    bool isShort = false;
    const bool isPresent =
        dom.Visit(key, [&value, &isShort](const CDomValue& stored) { isShort = value.Take(stored); });
    if (isPresent && !isShort)
        return PushLongValue(L, dom, key);
    if (isPresent)
        value.Push(L);
    return isPresent;
}

int Get(lua_State* L)
{
    const CDom& dom = SLB3::Self<CDom>(L, "Get");
    const std::string_view key = CheckKeyView(L, "Get");
    if (!PushStored(L, dom, key))
        lua_settop(L, 3); // the default, or nil
    return 1;
}

// Whole numbers that fit become integers, all others stay as they are.
CDomValue NumberValue(lua_Number number)
{
    const lua_Number limit = 9223372036854775808.0; // 2^63
    if (number >= -limit && number < limit && std::floor(number) == number)
        return static_cast<std::int64_t>(number);
    return number;
}

int Set(lua_State* L)
{
    CDom& dom = SLB3::Self<CDom>(L, "Set");
    const std::string& key = CheckKey(L, "Set");
    switch (lua_type(L, 3)) {
    case LUA_TNIL:
        dom.Remove(key);
        return 0;
    case LUA_TBOOLEAN:
        dom.Set(key, lua_toboolean(L, 3) != 0);
        return 0;
    case LUA_TNUMBER:
        dom.SetValue(key, NumberValue(lua_tonumber(L, 3)));
        return 0;
    case LUA_TSTRING: {
        const LuaText value = CheckText(L, "Set", 2);
        dom.SetValue(key, std::string(value.View()));
        return 0;
    }
    default:
        return TypeError(L, "Set", 2, "string, boolean, number or nil");
    }
}

int Has(lua_State* L)
{
    const CDom& dom = SLB3::Self<CDom>(L, "Has");
    lua_pushboolean(L, dom.Has(CheckKey(L, "Has")));
    return 1;
}

int Keys(lua_State* L)
{
    const CDom& dom = SLB3::Self<CDom>(L, "Keys");
    lua_settop(L, 2);
    auto& keys = VelCore::PushOwned<std::vector<std::string>>(L, "vel.dom.keys");
    if (lua_isnil(L, 2)) {
        t_key.clear();
    } else {
        const LuaText prefix = CheckText(L, "Keys", 1);
        t_key.assign(prefix.bytes, prefix.length);
    }
    keys = dom.Keys(t_key);
    lua_createtable(L, static_cast<int>(keys.size()), 0);
    int at = 0;
    for (const std::string& key : keys) {
        lua_pushlstring(L, key.data(), key.size());
        lua_rawseti(L, -2, ++at);
    }
    keys = {}; // many do not wait for the collector
    return 1;
}

int GetPluginWorkdir(lua_State* L)
{
    const CDom& dom = SLB3::Self<CDom>(L, "GetPluginWorkdir");
    const LuaText name = CheckText(L, "GetPluginWorkdir", 1);
    auto& path = VelCore::PushOwned<std::string>(L, "vel.dom.path");
    path = VelCore::ToUtf8(dom.GetPluginWorkdirWx(FromUtf8(name.View())));
    lua_pushlstring(L, path.data(), path.size());
    return 1;
}

int Log(lua_State* L)
{
    SLB3::Self<CDom>(L, "Log");
    const LuaText name = CheckText(L, "Log", 1);
    const LuaText text = CheckText(L, "Log", 2);
    const wxLogLevel* level = VelCore::FindLogLevel(name.View());
    if (!level)
        return ArgumentError(L, "Log", 1, lua_pushfstring(L, "unknown level '%s'", name.bytes));
    VelCore::LogText(*level, text.View());
    return 0;
}

// The Lua function that called the method, through C functions such as pcall.
lua_Debug FindCaller(lua_State* L)
{
    lua_Debug caller{};
    for (int level = 1; lua_getstack(L, level, &caller); ++level) {
        lua_getinfo(L, "nSl", &caller);
        if (caller.currentline > 0)
            return caller;
    }
    caller.source = "=?";
    caller.what = "";
    caller.currentline = 0;
    return caller;
}

// The file behind a chunk name: "@" and "=" only say what kind of name follows.
const char* SourceName(const lua_Debug& caller)
{
    return caller.source[0] == '@' || caller.source[0] == '=' ? caller.source + 1 : caller.short_src;
}

const char* FunctionName(const lua_Debug& caller)
{
    if (caller.name)
        return caller.name;
    return std::strcmp(caller.what, "main") == 0 ? "main" : "?";
}

int LogTrace(lua_State* L)
{
    SLB3::Self<CDom>(L, "LogTrace");
    const LuaText module = CheckText(L, "LogTrace", 1);
    const LuaText text = CheckText(L, "LogTrace", 2);
    const lua_Debug caller = FindCaller(L);
    VelCore::LogTrace(FromUtf8(module.View()), SourceName(caller), caller.currentline, FunctionName(caller),
                      FromUtf8(text.View()));
    return 0;
}

int LogTraceIsEnabled(lua_State* L)
{
    SLB3::Self<CDom>(L, "LogTraceIsEnabled");
    const LuaText module = CheckText(L, "LogTraceIsEnabled", 1);
    lua_pushboolean(L, VelCore::LogTraceIsEnabled(FromUtf8(module.View())));
    return 1;
}

int TimeNowMillis(lua_State* L)
{
    SLB3::Self<CDom>(L, "TimeNowMillis");
    lua_pushnumber(L, static_cast<lua_Number>(VelCore::TimeNowMillis()));
    return 1;
}

const luaL_Reg kMethods[] = {
    {"AgentEventWrite", SLB3::Guarded<VelCore::LuaAgentEventWrite>},
    {"Get", SLB3::Guarded<Get>},
    {"GetPluginWorkdir", SLB3::Guarded<GetPluginWorkdir>},
    {"Has", SLB3::Guarded<Has>},
    {"Keys", SLB3::Guarded<Keys>},
    {"Log", SLB3::Guarded<Log>},
    {"LogTrace", SLB3::Guarded<LogTrace>},
    {"LogTraceIsEnabled", SLB3::Guarded<LogTraceIsEnabled>},
    {"Set", SLB3::Guarded<Set>},
    {"StartRunnable", SLB3::Guarded<VelCore::LuaStartRunnable>},
    {"TimeNowMillis", SLB3::Guarded<TimeNowMillis>},
};

} // namespace

namespace SLB3 {

void Wrapper<VelCore::CDom>::Register(lua_State* L, int namespaceAt)
{
    for (const luaL_Reg& method : kMethods)
        AddMethod(L, namespaceAt, method.name, method.func);
}

} // namespace SLB3
