// The version gate for extensions.
//
// Tested by: unit/agent/packages/ExtensionGateTest.cpp, blackbox/test_extensions.py.

#include "packages/ExtensionGate.h"

#include "AgentVersion.h"
#include "packages/VersionFile.h"

namespace {

using Gate = AgentGateVersion;

bool MatchesGate(const VersionNumbers& version)
{
    return version.major == Gate::s_Major && version.minor == Gate::s_Minor && version.patch == Gate::s_Patch;
}

} // namespace

wxString VersionFileOf(const wxString& extensionFile)
{
    return extensionFile + L".version";
}

std::optional<ExtensionRefusal> JudgeExtension(const wxString& extensionFile, wxInputStream* versionFile)
{
    if (!versionFile)
        return ExtensionRefusal{L"it has no '.version' file",
                                wxString::Format(L"Extension file '%s' does not have a corresponding '.version' file. "
                                                 L"It will not be enabled.",
                                                 extensionFile)};
    const auto line = FindVersionLine(*versionFile);
    if (!line)
        return ExtensionRefusal{L"its '.version' file has no 'version:' line",
                                wxString::Format(L"File '%s' does not contain a 'version:' line. Extension '%s' will "
                                                 L"not be enabled.",
                                                 VersionFileOf(extensionFile), extensionFile)};
    const auto version = ParseVersion(*line);
    if (!version)
        return ExtensionRefusal{L"the 'version:' line of its '.version' file is not properly formatted",
                                wxString::Format(L"File '%s' did not contain a properly formatted 'version:' line. "
                                                 L"Extension '%s' will not be enabled.",
                                                 VersionFileOf(extensionFile), extensionFile)};
    if (MatchesGate(*version))
        return std::nullopt;
    const wxString mismatch =
        wxString::Format(L"its version (%d.%d.%d) doesn't match ours (%d.%d.%d)", version->major, version->minor,
                         version->patch, int{Gate::s_Major}, int{Gate::s_Minor}, int{Gate::s_Patch});
    return ExtensionRefusal{mismatch, wxString::Format(L"Ignoring extension '%s' since %s", extensionFile, mismatch)};
}
