// CAgentApp: the command line and the configuration files, turned into members and domain variables.
//
// The order of the writes is part of the contract: it decides what --domain_var can override.
//
// Tested by: unit/agent/cmdline/*Test.cpp, blackbox/test_cmdline.py, blackbox/test_config.py.

#include "AgentApp.h"

#include <memory>

#include <wx/cmdline.h>
#include <wx/config.h>
#include <wx/fileconf.h>
#include <wx/filename.h>

#include <VelCore/Dom.h>
#include <VelCore/SqliteDatabase.h>

#include "DomainKeys.h"
#include "cmdline/ConfigSettings.h"
#include "cmdline/DomainVarSpec.h"
#include "cmdline/Environment.h"
#include "cmdline/ExpandPathPlugins.h"
#include "cmdline/OptionTable.h"
#include "cmdline/TraceList.h"
#include "cmdline/WorkFolder.h"
#include "luahost/ZipSpec.h"
#include "shell/StandardStreams.h"

namespace {

// The configuration files carry this name whatever the application's name is.
const wchar_t* const kConfigName = L"kx_agent";

const int kNormalise = wxPATH_NORM_DOTS | wxPATH_NORM_TILDE | wxPATH_NORM_ABSOLUTE;

} // namespace

void CAgentApp::OnInitCmdLine(wxCmdLineParser& parser)
{
    wxAppConsole::OnInitCmdLine(parser);
    AddAgentOptions(parser);
}

bool CAgentApp::OnCmdLineParsed(wxCmdLineParser& parser)
{
    TakeIdentity(parser);
    TakeSearchPaths(parser);
    TakeWorkFolder(parser);
    TakeTraceModules(parser);
    TakeDomainVariable(parser);
    TakeTestMode(parser);
    TakeConfiguration();
    VelCore::CSqliteDatabase::InitializeSQLite(m_dom);
    return wxAppConsole::OnCmdLineParsed(parser);
}

void CAgentApp::TakeIdentity(const wxCmdLineParser& parser)
{
    m_dom->SetWx(DomainKeys::kPathExe, ExecutableName().GetFullPath());

    wxString name;
    if (parser.Found(Options::kAppName, &name))
        SetAppName(name);
    m_dom->SetWx(DomainKeys::kName, GetAppName());
    m_isMainAgent = GetAppName() == L"kx_agent";

    if (parser.Found(Options::kBackground)) {
        m_dom->Set(DomainKeys::kBackground, true);
        m_background = true;
    }
    m_installPlugins = parser.Found(Options::kInstallPlugins);
}

void CAgentApp::TakeSearchPaths(const wxCmdLineParser& parser)
{
    parser.Found(Options::kExtDir, &m_extensionFolder);

    wxString plugins;
    if (parser.Found(Options::kPlugins, &plugins))
        m_dom->SetWx(DomainKeys::kPlugins, plugins);

    wxString path;
    if (parser.Found(Options::kLuaCPath, &path))
        m_dom->SetWx(DomainKeys::kLuaCPath, ExpandPathPlugins(path, plugins));
    if (parser.Found(Options::kLuaPath, &path))
        m_dom->SetWx(DomainKeys::kLuaPath, ExpandPathPlugins(path, plugins));

    parser.Found(Options::kZippath, &m_zippath);
    m_zippath = ExpandPathPlugins(m_zippath, plugins);
}

void CAgentApp::TakeWorkFolder(const wxCmdLineParser& parser)
{
    wxFileName folder;
    wxString given;
    if (parser.Found(Options::kWorkDir, &given)) {
        folder.AssignDir(ExpandFileName(given));
    } else {
        folder.AssignDir(ExecutableName().GetPath(wxPATH_GET_VOLUME));
        folder.AppendDir(L"work");
    }
    folder.Normalize(kNormalise);

    const wxString path = folder.GetPath();
    if (!folder.DirExists())
        CreateWorkFolder(path);
    m_dom->SetWx(DomainKeys::kPathWork, path);
    m_dom->SetWx(DomainKeys::kPathIni, wxFileName(path, kConfigName, L"ini").GetFullPath());
    m_dom->SetWx(DomainKeys::kPathIniGlobal, wxFileConfig::GetGlobalFile(kConfigName).GetFullPath());
}

void CAgentApp::TakeTraceModules(const wxCmdLineParser& parser)
{
    wxString modules;
    if (parser.Found(Options::kTrace, &modules))
        m_dom->SetWx(DomainKeys::kTrace, WithoutQuotes(modules));
}

void CAgentApp::TakeDomainVariable(const wxCmdLineParser& parser)
{
    wxString text;
    if (!parser.Found(Options::kDomainVar, &text))
        return;
    const auto variable = ParseDomainVarSpec(text);
    if (variable)
        m_dom->Set(ToMultibyte(variable->name), ToMultibyte(variable->value));
    else
        WriteStandardError(wxString::Format(
            L"Ignoring invalid domain variable specification '%s': expected name=value format\n", text));
}

void CAgentApp::TakeTestMode(const wxCmdLineParser& parser)
{
    wxString script;
    if (parser.Found(Options::kUnitTest, &script)) {
        if (IsWildcard(script) || (wxFileExists(script) && wxIsReadable(script))) {
            m_unitTestScript = script;
            m_dom->Set(DomainKeys::kUnitTestMode, true);
        } else {
            WriteStandardError(wxString::Format(L"%s: not found", script)); // without a line end on purpose
        }
    }
    if (parser.Found(Options::kTest))
        m_dom->Set(DomainKeys::kUnitTestMode, true);
}

void CAgentApp::TakeConfiguration()
{
    // Both names are read back from the domain, where --domain_var may have redirected them.
    auto opened =
        std::make_unique<wxFileConfig>(GetAppName(), GetVendorName(), m_dom->GetWxString(DomainKeys::kPathIni),
                                       m_dom->GetWxString(DomainKeys::kPathIniGlobal),
                                       wxCONFIG_USE_LOCAL_FILE | wxCONFIG_USE_GLOBAL_FILE, wxConvAuto());
    delete wxConfigBase::Set(opened.release());

    const ConfigSettings settings = ReadConfigSettings(*wxConfigBase::Get(), GetAppName(), m_isMainAgent);
    if (settings.fipsMode)
        m_dom->SetWx(DomainKeys::kFipsMode, *settings.fipsMode);
    m_dom->SetWx(DomainKeys::kTracePlus, settings.traceModules);
    m_dom->Set(DomainKeys::kFullDump, settings.fullDump);
    for (const SqliteEntry& entry : settings.sqlite)
        m_dom->SetWx(entry.name, static_cast<long long>(entry.value));
}
