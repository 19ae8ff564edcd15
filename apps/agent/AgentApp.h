// AgentApp.h: the application object, in order of execution.
#pragma once

#include <vector>

#include <wx/app.h>
#include <wx/datetime.h>
#include <wx/intl.h>

#include "luahost/ArgLayout.h"

class wxFileName;
class wxInputStream;
class wxOutputStream;
class wxZipEntry;
struct lua_State;

namespace VelCore {
class CDom;
class CLuaInterpreter;
} // namespace VelCore

/// The process: one object, made by the framework, that carries out what the command line asks for.
///
/// The class is wide and its parts are in files of their own; each group below names the file that defines it.
///
/// Threads: the main thread constructs and configures it before the script thread starts; from then on the script
///          thread uses the members of luahost/ and packages/, and the main thread only its event loop. Background
///          runnables prepare their interpreters with what is only read by then.
class CAgentApp : public wxAppConsole
{
public:
    /// Trace module of the application object.
    static const wxString s_Trace;

    // shell/AgentApp_Lifecycle.cpp
    CAgentApp();
    ~CAgentApp() override;
    bool OnInit() override;
    int OnRun() override; // supervision/AgentApp_Run.cpp
    int OnExit() override;
    void OnInitCmdLine(wxCmdLineParser& parser) override;   // cmdline/AgentApp_CmdLine.cpp
    bool OnCmdLineParsed(wxCmdLineParser& parser) override; // cmdline/AgentApp_CmdLine.cpp
    void OnUnhandledException() override;                   // shell/AgentApp_Exceptions.cpp
    wxAppTraits* CreateTraits() override;

    bool IsMainAgent() const { return m_isMainAgent; }
    bool IsBackground() const { return m_background; }

    // supervision/AgentApp_Crypto.cpp
    static void StartupInit();
    static void TerminationCleanup();

    // luahost/AgentApp_Modes.cpp
    int OnRunScript();
    int RunAppInteractively();
    int RunUnitTests();

    // luahost/AgentApp_Runner.cpp
    int RunAppInit();
    int RunAppMain();
    int RunAppShutdown();
    int RunAppMethod(const wchar_t* name);
    int RunCodeSnippet(const wxString& code);
    int RunChunk(wxInputStream& in, wxOutputStream& out, const wxString& name);

    // packages/AgentApp_Uninstall.cpp
    void UninstallOldPlugins();
    bool UninstallPluginZipCB(const wxZipEntry* entry, const wxString* target);
    static bool UninstallPluginZipCB(void* context, const wxZipEntry* entry, const wxString* target);

    // packages/AgentApp_Install.cpp
    void InstallNewPlugins();
    bool CheckKXPVersion(const wxFileName& package);
    bool InstallPluginZipCB(const wxZipEntry* entry);
    static bool InstallPluginZipCB(void* context, const wxZipEntry* entry, const wxString* destination);

    // luahost/AgentApp_Zippath.cpp
    void ExpandZippath();

    // packages/AgentApp_Extensions.cpp
    bool ExtensionVersionIsOK(const wxString& extensionFile);

    // luahost/AgentApp_Lua.cpp
    static int SetupLua(lua_State* L);
    int SetupLua();
    lua_State* L() const; // null before the interpreter exists

private:
    // shell/AgentApp_Lifecycle.cpp
    wxString Argument0() const;
    wxFileName ExecutableName() const;
    void HandleCrashes() const;

    // cmdline/AgentApp_CmdLine.cpp
    void TakeIdentity(const wxCmdLineParser& parser);
    void TakeSearchPaths(const wxCmdLineParser& parser);
    void TakeWorkFolder(const wxCmdLineParser& parser);
    void TakeTraceModules(const wxCmdLineParser& parser);
    void TakeDomainVariable(const wxCmdLineParser& parser);
    void TakeTestMode(const wxCmdLineParser& parser);
    void TakeConfiguration();

    // supervision/AgentApp_Crypto.cpp
    bool EnterFipsMode(int& exitCode);

    // supervision/AgentApp_Daemon.cpp
    bool BecomeDaemon(int& exitCode);
    void RefuseSecondInstance() const;
    void LeaveFolder() const;
    static void SilenceStandardStreams();
    void RemovePidFile() const;

    // supervision/AgentApp_Watchdog.cpp
    enum class Role { Watchdog, Worker };
    Role SuperviseWorker(int& exitCode);

    // supervision/AgentApp_Run.cpp
    [[noreturn]] void RunWorker();

    // luahost/AgentApp_Modes.cpp
    int RunService();

    // packages/AgentApp_Uninstall.cpp
    bool UninstallPlugin(const wxFileName& marker, const wxFileName& folder);

    // packages/AgentApp_Install.cpp
    bool InstallPlugin(const wxFileName& package, const wxFileName& folder);

    // luahost/AgentApp_Lua.cpp
    void CollectArguments();
    static void PrepareRunnable(VelCore::CLuaInterpreter& interpreter);
    void PrepareInterpreter(VelCore::CLuaInterpreter& interpreter) const;
    bool SetPackagePaths(VelCore::CLuaInterpreter& interpreter) const;
    void PushArguments(lua_State* state) const;

    // luahost/AgentApp_Zippath.cpp
    void AppendSpecification(const wxString& token, wxString& zippath);

    // luahost/AgentApp_Runner.cpp
    static void NotePhase(const wchar_t* phase);
    int ReportSetupFailure(const wxString& message, int status);

    VelCore::CDom* m_dom = nullptr;                    // the root domain; owned
    VelCore::CLuaInterpreter* m_interpreter = nullptr; // owned
    wxDateTime m_startTime;

    wxString m_pidFile;      // background mode: of the watchdog
    int m_watchdogLine = -1; // in a worker of background mode: ends with the watchdog

    // Written by OnCmdLineParsed, only read afterwards.
    bool m_isMainAgent = false;
    bool m_installPlugins = false;
    bool m_background = false;
    wxString m_extensionFolder;
    wxString m_zippath;
    wxString m_unitTestScript;

    // What the Lua table `arg` holds, in every interpreter. Written before the first one is prepared.
    std::vector<ScriptArgument> m_scriptArguments;

    wxLocale m_locale;
};

/// The application object.
wxDECLARE_APP(CAgentApp);
