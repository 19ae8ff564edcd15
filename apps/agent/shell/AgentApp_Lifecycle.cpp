// CAgentApp: construction, initialisation, the banners, destruction.
//
// Tested by: unit/agent/shell/InstallPathsTest.cpp, blackbox/test_start.py.

#include "AgentApp.h"

#include <clocale>
#include <ctime>

#include <wx/filename.h>
#include <wx/log.h>
#include <wx/translation.h>

#include <VelCore/CrashHandler.h>
#include <VelCore/Dom.h>
#include <VelCore/LuaInterpreter.h>

#include "AgentVersion.h"
#include "DomainKeys.h"
#include "shell/AgentAppTraits.h"
#include "shell/InstallPaths.h"

using VelCore::CDom;

const wxString CAgentApp::s_Trace(L"Appl");

CAgentApp& wxGetApp()
{
    return *static_cast<CAgentApp*>(wxAppConsole::GetInstance());
}

CAgentApp::CAgentApp()
{
    tzset();
    m_startTime = wxDateTime::UNow();

    wxLog::SetVerbose(true);
    wxLog::SetLogLevel(wxLOG_Info);
    wxLog::SetTimestamp(L"%Y-%m-%d %H:%M:%S");

    m_locale.Init(wxLANGUAGE_DEFAULT, wxLOCALE_LOAD_DEFAULT);
    // The table of all languages is half of the heap, and has served its purpose. It is made again when somebody asks.
    wxLocale::DestroyLanguagesDB();
    // Lua reads and prints its numbers through the C library; scripts count on a decimal point.
    std::setlocale(LC_NUMERIC, "C");

    StartupInit();
    m_dom = CDom::New(nullptr, nullptr, nullptr, false);
}

CAgentApp::~CAgentApp()
{
    delete m_interpreter;
    m_interpreter = nullptr;
    delete m_dom;
    m_dom = nullptr;
    TerminationCleanup();
}

wxAppTraits* CAgentApp::CreateTraits()
{
    return new CAgentAppTraits;
}

// A caller may start a program without any argument, not even its name.
wxString CAgentApp::Argument0() const
{
    return argc > 0 ? wxString(argv[0]) : wxString();
}

wxFileName CAgentApp::ExecutableName() const
{
    wxFileName executable(Argument0());
    executable.Normalize(wxPATH_NORM_DOTS | wxPATH_NORM_TILDE | wxPATH_NORM_ABSOLUTE);
    return executable;
}

bool CAgentApp::OnInit()
{
    const InstallPaths paths = FindInstallPaths(ExecutableName());
    m_dom->SetWx(DomainKeys::kPathBin, paths.bin);
    m_dom->SetWx(DomainKeys::kPathLib, paths.lib);
    m_dom->SetWx(DomainKeys::kPathVendor, paths.vendor);
    m_dom->Set(DomainKeys::kVersion, kAgentVersionText);
    SetVendorName(_("Quenvar"));

    // Reads the command line; false after a usage error or --help.
    if (!wxAppConsole::OnInit())
        return false;

    HandleCrashes();
    if (m_isMainAgent)
        wxLogVerbose(L"VEL %s starting.", kAgentVersionText);
    return true;
}

// From here on a crash leaves a dump in the work folder.
void CAgentApp::HandleCrashes() const
{
    bool full = false;
    m_dom->Get(DomainKeys::kFullDump, full);
    for (const char* key : {DomainKeys::kVersion, DomainKeys::kPathExe, DomainKeys::kPathWork})
        VelCore::NoteForCrash(key, m_dom->Get(key));
    NotePhase(L"start");
    const wxFileName dump(m_dom->GetPluginWorkdirWx(L"diag"), GetAppName(), L"mdmp");
    VelCore::InitCrashHandler(dump.GetFullPath(), GetAppName(), full);
}

int CAgentApp::OnExit()
{
    if (m_isMainAgent) {
        const wxTimeSpan runTime = wxDateTime::UNow() - m_startTime;
        wxLogVerbose(L"VEL %s exiting. Run time was %s", kAgentVersionText, runTime.Format(L"%Dd %H:%M:%S.%l"));
    }
    return wxAppConsole::OnExit();
}
