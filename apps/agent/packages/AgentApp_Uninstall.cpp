// CAgentApp: the removal of plug-ins.
//
// A removal marker is an archive whose entries name the files to delete. Runs on the script thread right before the
// installation, so that a plug-in can be replaced in one start. Folders stay, also those that become empty.
//
// Tested by: component/AgentAppTest.cpp, blackbox/test_packages.py, blackbox/test_convergence.py.

#include "AgentApp.h"

#include <cerrno>

#include <wx/filefn.h>
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
#include "packages/PackageRefusal.h"

using VelCore::LogTrace;
using VelCore::LogTraceIsEnabled;

void CAgentApp::UninstallOldPlugins()
{
    const wxFileName folder = wxFileName::DirName(m_dom->GetWxString(DomainKeys::kPathBin));

    VelCore::CAgentEvent event;
    const wxArrayString markers = ListFiles(folder, L"*.kxu");
    for (const wxString& path : markers) {
        const wxFileName marker(path);
        DescribePackage(event, marker, VelCore::TimeNowMillis());
        const bool isRemoved = UninstallPlugin(marker, folder);
        SetOutcome(event, isRemoved ? PackageOutcome::Removed : PackageOutcome::NotRemoved);
        m_dom->AgentEventWrite(event);
    }
    if (!markers.empty())
        m_dom->Set(DomainKeys::kHeartbeatNow, true);
}

bool CAgentApp::UninstallPlugin(const wxFileName& marker, const wxFileName& folder)
{
    const char* const function = "UninstallOldPlugins";
    const wxString path = marker.GetFullPath();
    if (!wxIsReadable(path)) {
        wxLogWarning(L"%s", NotReadableWarning(path));
        return false;
    }

    if (LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, function, wxString::Format(L"Removing files from %s", path));
    if (!VelCore::Unzip(marker, folder, &CAgentApp::UninstallPluginZipCB, this))
        return false;

    if (LogTraceIsEnabled(s_Trace))
        LogTrace(
            s_Trace, __FILE__, __LINE__, function,
            wxString::Format(L"Successfully removed files for plugin '%s'. Deleting '%s'", marker.GetName(), path));
    // The plug-in is gone, so this is a success also when its marker will be walked once more.
    if (!RemoveName(path)) {
        const int error = errno;
        wxLogSysError(error, L"Unable to delete %s", path);
    }
    return true;
}

bool CAgentApp::UninstallPluginZipCB(void* context, const wxZipEntry* entry, const wxString* target)
{
    return context && static_cast<CAgentApp*>(context)->UninstallPluginZipCB(entry, target);
}

bool CAgentApp::UninstallPluginZipCB(const wxZipEntry* entry, const wxString* target)
{
    if (!entry)
        return true;
    if (LogTraceIsEnabled(s_Trace))
        LogTrace(s_Trace, __FILE__, __LINE__, "UninstallPluginZipCB",
                 wxString::Format(L"  removing: %s (%lu bytes)", entry->GetInternalName(),
                                  static_cast<unsigned long>(entry->GetSize())));
    // A file that is gone already, or a folder, is reported by the framework and does not stop the removal.
    wxRemoveFile(*target);
    return false;
}
