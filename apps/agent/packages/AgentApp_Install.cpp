// CAgentApp: the installation of plug-in packages.
//
// Runs on the script thread before the interpreter exists. A package that fails is on record and stays, so the next
// start of a worker tries it again; no failure stops the run.
//
// Tested by: component/AgentAppTest.cpp, blackbox/test_packages.py, blackbox/test_convergence.py.

#include "AgentApp.h"

#include <cerrno>

#include <wx/filename.h>
#include <wx/log.h>
#include <wx/zipstrm.h>

#include <VelCore/AgentEvent.h>
#include <VelCore/Clock.h>
#include <VelCore/Dom.h>
#include <VelCore/Trace.h>
#include <VelCore/Unzip.h>

#include "DomainKeys.h"
#include "packages/PackageEvent.h"
#include "packages/PackageFolder.h"
#include "packages/PackageName.h"
#include "packages/PackageRefusal.h"

using VelCore::LogTrace;
using VelCore::LogTraceIsEnabled;

void CAgentApp::InstallNewPlugins()
{
    const wxFileName folder = wxFileName::DirName(m_dom->GetWxString(DomainKeys::kPathBin));
    RemoveCoreFiles(folder);
    // Also when there is no package to unpack. An empty path is no folder, and not the current one either.
    if (folder.DirExists())
        VelCore::RemoveUnfinished(folder);

    VelCore::CAgentEvent event;
    const wxArrayString packages = ListFiles(folder, L"*.kxp");
    for (const wxString& path : packages) {
        const wxFileName package(path);
        DescribePackage(event, package, VelCore::TimeNowMillis());
        const bool isInstalled = InstallPlugin(package, folder);
        SetOutcome(event, isInstalled ? PackageOutcome::Installed : PackageOutcome::NotInstalled);
        m_dom->AgentEventWrite(event);
    }
    if (!packages.empty())
        m_dom->Set(DomainKeys::kHeartbeatNow, true);
}

bool CAgentApp::InstallPlugin(const wxFileName& package, const wxFileName& folder)
{
    const char* const function = "InstallNewPlugins";
    const wxString path = package.GetFullPath();
    if (!CheckKXPVersion(package)) {
        wxLogWarning(L"%s", VersionMismatchWarning(path));
        return false;
    }
    if (!wxIsReadable(path)) {
        wxLogWarning(L"%s", NotReadableWarning(path));
        return false;
    }

    if (LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, function, wxString::Format(L"Extracting files from %s", path));
    if (!VelCore::Unzip(package, folder, &CAgentApp::InstallPluginZipCB, this))
        return false;

    if (LogTraceIsEnabled(s_Trace))
        LogTrace(
            s_Trace, __FILE__, __LINE__, function,
            wxString::Format(L"Successfully extracted files for plugin '%s'. Deleting '%s'", package.GetName(), path));
    // The plug-in is there, so this is a success also when its package will be installed once more.
    if (!RenameToDone(path)) {
        const int error = errno;
        wxLogSysError(error, L"Unable to delete %s", path);
    }
    return true;
}

bool CAgentApp::CheckKXPVersion(const wxFileName& package)
{
    return VersionAllows(package.GetName());
}

bool CAgentApp::InstallPluginZipCB(void* context, const wxZipEntry* entry, const wxString* /* destination */)
{
    return context && static_cast<CAgentApp*>(context)->InstallPluginZipCB(entry);
}

bool CAgentApp::InstallPluginZipCB(const wxZipEntry* entry)
{
    if (entry && LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, "InstallPluginZipCB",
                 wxString::Format(L"  extracting: %s (%lu bytes)", entry->GetInternalName(),
                                  static_cast<unsigned long>(entry->GetSize())));
    return true;
}
