// CAgentApp: loads the application module and calls its functions.
//
// Every call is a small Lua text whose single result is the status of the phase.
//
// Tested by: unit/agent/luahost/SnippetsTest.cpp, blackbox/test_exit_status.py, blackbox/test_lua_host.py.

#include "AgentApp.h"

#include <wx/log.h>
#include <wx/mstream.h>

#include <lua.hpp>

#include <VelCore/CrashHandler.h>
#include <VelCore/Log2Disk.h>
#include <VelCore/LuaInterpreter.h>
#include <VelCore/LuaRunnable.h>
#include <VelCore/Trace.h>
#include <VelCore/Utf8.h>

#include "luahost/Snippets.h"
#include "luahost/StandardOutput.h"
#include "shell/StandardStreams.h"
#include "supervision/Signals.h"

using VelCore::CLuaInterpreter;
using VelCore::LogTrace;
using VelCore::LogTraceIsEnabled;

int CAgentApp::RunAppInit()
{
    if (m_installPlugins) {
        NotePhase(L"packages");
        UninstallOldPlugins();
        InstallNewPlugins();
    }
    NotePhase(L"setup");
    ExpandZippath();
    InstallApplicationSignals();

    m_interpreter = new CLuaInterpreter(false, wxString::Format(L"%s.lua", GetAppName()).wc_str(), true);
    lua_State* state = L();
    if (!state)
        return ReportSetupFailure(m_interpreter->GetErrorInfo(), LUA_ERRMEM);

    lua_pushlightuserdata(state, this);
    lua_pushcclosure(state, static_cast<lua_CFunction>(&CAgentApp::SetupLua), 1);
    const int status = lua_pcall(state, 0, 0, 0);
    if (status != LUA_OK) {
        const char* message = lua_tostring(state, -1);
        return ReportSetupFailure(VelCore::FromUtf8(message ? message : "(no error message)"), status);
    }

    VelCore::CLuaRunnable::SetPreparation(PrepareRunnable);
    NotePhase(L"require");
    if (const int rc = RunCodeSnippet(RequireSnippet(GetAppName())))
        return rc;
    return RunAppMethod(L"init");
}

// For whoever reads a crash dump.
void CAgentApp::NotePhase(const wchar_t* phase)
{
    VelCore::NoteForCrash("phase", VelCore::ToUtf8(phase));
}

int CAgentApp::ReportSetupFailure(const wxString& message, int status)
{
    const wxString text = L"Error setting up Lua:\n" + message;
    WriteStandardError(text + L"\n");
    const VelCore::CTerminalQuiet quiet;
    wxLogError(L"%s", text);
    return status;
}

int CAgentApp::RunAppMain()
{
    return RunAppMethod(L"main");
}

int CAgentApp::RunAppShutdown()
{
    return RunAppMethod(L"shutdown");
}

int CAgentApp::RunAppMethod(const wchar_t* name)
{
    if (LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, "RunAppMethod", wxString::Format(L"Running app's Lua method '%s'", name));
    NotePhase(name);
    return RunCodeSnippet(MethodSnippet(name));
}

int CAgentApp::RunCodeSnippet(const wxString& code)
{
    CStandardOutput out;
    const std::string text = VelCore::ToUtf8(code);
    wxMemoryInputStream in(text.data(), text.size());

    const int rc = RunChunk(in, out, GetAppName());
    // Also when a Lua function merely returned a number: the text is then whatever failed last, possibly nothing.
    if (rc != 0)
        WriteStandardError(m_interpreter->GetErrorInfo() + L"\n");
    return rc;
}

int CAgentApp::RunChunk(wxInputStream& in, wxOutputStream& out, const wxString& name)
{
    const char* const function = "RunChunk";
    if (LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, function, wxString::Format(L"Running chunk '%s'", name));

    int rc = m_interpreter->RunScript(in, 0, 1, name, &out);
    if (rc == 0)
        rc = m_interpreter->TakeStatus();

    if (LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, function, wxString::Format(L"Chunk produced a return value of %d", rc));
    return rc;
}
