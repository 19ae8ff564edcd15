// CAgentApp: the version gate for extensions.
//
// Tested by: unit/agent/packages/VersionFileTest.cpp, blackbox/test_extensions.py.

#include "AgentApp.h"

#include <wx/filename.h>
#include <wx/log.h>
#include <wx/wfstream.h>

#include "AgentVersion.h"
#include "packages/VersionFile.h"

namespace {

using Gate = AgentGateVersion;

bool MatchesGate(const VersionNumbers& version)
{
    return version.major == Gate::s_Major && version.minor == Gate::s_Minor && version.patch == Gate::s_Patch;
}

std::optional<wxString> ReadVersionLine(const wxString& file)
{
    wxFFileInputStream in(file, L"rb");
    return FindVersionLine(in);
}

} // namespace

bool CAgentApp::ExtensionVersionIsOK(const wxString& extensionFile)
{
    const wxString versionFile = extensionFile + L".version";
    if (!wxFileExists(versionFile)) {
        wxLogWarning(L"Extension file '%s' does not have a corresponding '.version' file. It will not be enabled.",
                     extensionFile);
        return false;
    }
    const auto line = ReadVersionLine(versionFile);
    if (!line) {
        wxLogWarning(L"File '%s' does not contain a 'version:' line. Extension '%s' will not be enabled.", versionFile,
                     extensionFile);
        return false;
    }
    const auto version = ParseVersion(*line);
    if (!version) {
        wxLogWarning(
            L"File '%s' did not contain a properly formatted 'version:' line. Extension '%s' will not be enabled.",
            versionFile, extensionFile);
        return false;
    }
    if (MatchesGate(*version))
        return true;
    wxLogWarning(L"Ignoring extension '%s' since its version (%d.%d.%d) doesn't match ours (%d.%d.%d)", extensionFile,
                 version->major, version->minor, version->patch, int{Gate::s_Major}, int{Gate::s_Minor},
                 int{Gate::s_Patch});
    return false;
}
