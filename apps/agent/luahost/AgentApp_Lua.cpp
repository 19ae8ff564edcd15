// CAgentApp: prepares an interpreter: search paths, domain, module loader, arguments.
//
// All of it runs inside a protected call, on the thread of the interpreter. Lua leaves a failing function by longjmp,
// which runs no destructors, so nothing here holds an object with one while it calls a Lua function that may fail. The
// C++ parts may throw when memory is short; that becomes a Lua error.
//
// Tested by: unit/agent/luahost/ArgLayoutTest.cpp, blackbox/test_lua_host.py.

#include "AgentApp.h"

#include <lua.hpp>

#include <VelCore/Dom.h>
#include <VelCore/DomBinding.h>
#include <VelCore/LuaInterpreter.h>

#include "DomainKeys.h"

using VelCore::CLuaInterpreter;

lua_State* CAgentApp::L() const
{
    return m_interpreter ? m_interpreter->L() : nullptr;
}

// Upvalue: the application object, as light userdata.
int CAgentApp::SetupLua(lua_State* L)
{
    auto* pThis = static_cast<CAgentApp*>(lua_touserdata(L, lua_upvalueindex(1)));
    wxASSERT(pThis && (L == pThis->L()));
    return SLB3::CallGuarded(L, [](lua_State* state) {
        return static_cast<CAgentApp*>(lua_touserdata(state, lua_upvalueindex(1)))->SetupLua();
    });
}

int CAgentApp::SetupLua()
{
    CollectArguments();
    PrepareInterpreter(*m_interpreter);
    return 0;
}

void CAgentApp::PrepareRunnable(CLuaInterpreter& interpreter)
{
    wxGetApp().PrepareInterpreter(interpreter);
}

void CAgentApp::PrepareInterpreter(CLuaInterpreter& interpreter) const
{
    lua_State* state = interpreter.L();
    luaL_checkversion(state);
    if (!SetPackagePaths(interpreter))
        lua_error(state); // the message is on the stack

    SLB3::Push(state, m_dom);
    lua_pushvalue(state, -1);
    lua_setglobal(state, "dom0");
    lua_setglobal(state, "dom");
    m_dom->RegisterLoader(state);

    PushArguments(state);
    lua_setglobal(state, "arg");
}

bool CAgentApp::SetPackagePaths(CLuaInterpreter& interpreter) const
{
    const std::string cpath = m_dom->Get(DomainKeys::kLuaCPath);
    const std::string path = m_dom->Get(DomainKeys::kLuaPath);
    const std::string bin = m_dom->Get(DomainKeys::kPathBin);
    return interpreter.SetPackagePaths(bin, path, cpath);
}

void CAgentApp::CollectArguments()
{
    std::vector<wxString> words;
    words.reserve(static_cast<std::size_t>(argc));
    for (int i = 0; i < argc; ++i)
        words.push_back(argv[i]);
    m_scriptArguments = LayOutArguments(words, GetAppName());
}

// stack: -> the table `arg`
void CAgentApp::PushArguments(lua_State* state) const
{
    const int count = argc;
    luaL_checkstack(state, count, "too many arguments to script");
    lua_createtable(state, count, 0);
    for (const ScriptArgument& argument : m_scriptArguments) {
        lua_pushlstring(state, argument.text.data(), argument.text.size());
        lua_rawseti(state, -2, argument.key);
    }
}
