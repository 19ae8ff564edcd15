// CAgentApp: the version gate for extensions.
//
// Tested by: unit/agent/packages/VersionFileTest.cpp, blackbox/test_extensions.py.

#include "AgentApp.h"

#include <wx/filename.h>
#include <wx/log.h>
#include <wx/wfstream.h>

#include <VelCore/SkippedArchives.h>

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

// Tells the operator, and the message of a failed `require`, why the extension is left out.
bool Refuse(const wxString& extensionFile, const wxString& reason, const wxString& warning)
{
    wxLogWarning(L"%s", warning);
    VelCore::NoteSkippedArchive(extensionFile, reason);
    return false;
}

} // namespace

bool CAgentApp::ExtensionVersionIsOK(const wxString& extensionFile)
{
    const wxString versionFile = extensionFile + L".version";
    if (!wxFileExists(versionFile))
        return Refuse(extensionFile, L"it has no '.version' file",
                      wxString::Format(L"Extension file '%s' does not have a corresponding '.version' file. It will "
                                       L"not be enabled.",
                                       extensionFile));
    const auto line = ReadVersionLine(versionFile);
    if (!line)
        return Refuse(extensionFile, L"its '.version' file has no 'version:' line",
                      wxString::Format(L"File '%s' does not contain a 'version:' line. Extension '%s' will not be "
                                       L"enabled.",
                                       versionFile, extensionFile));
    const auto version = ParseVersion(*line);
    if (!version)
        return Refuse(extensionFile, L"the 'version:' line of its '.version' file is not properly formatted",
                      wxString::Format(L"File '%s' did not contain a properly formatted 'version:' line. Extension "
                                       L"'%s' will not be enabled.",
                                       versionFile, extensionFile));
    if (MatchesGate(*version))
        return true;
    const wxString mismatch =
        wxString::Format(L"its version (%d.%d.%d) doesn't match ours (%d.%d.%d)", version->major, version->minor,
                         version->patch, int{Gate::s_Major}, int{Gate::s_Minor}, int{Gate::s_Patch});
    return Refuse(extensionFile, mismatch,
                  wxString::Format(L"Ignoring extension '%s' since %s", extensionFile, mismatch));
}
