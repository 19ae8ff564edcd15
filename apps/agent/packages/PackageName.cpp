// What the name of a package says.
//
// Tested by: unit/agent/packages/PackageNameTest.cpp.

#include "packages/PackageName.h"

#include <wx/filename.h>

#include "AgentVersion.h"

namespace {

// The text before the last `separator`; nothing when there is none.
std::optional<wxString> BeforeLastIn(const wxString& text, wchar_t separator)
{
    const std::size_t at = text.rfind(separator);
    if (at == wxString::npos)
        return std::nullopt;
    return text.substr(0, at);
}

wxString GateVersion()
{
    using Gate = AgentGateVersion;
    return wxString::Format(L"%d.%d.%d", int{Gate::s_Major}, int{Gate::s_Minor}, int{Gate::s_Patch});
}

} // namespace

wxString PluginNameIn(const wxString& baseName)
{
    const std::size_t first = baseName.find(L'-');
    if (first == wxString::npos)
        return baseName;
    const wxString rest = baseName.substr(first + 1);
    return rest.substr(0, rest.find(L'-'));
}

wxString getPluginName(const wxFileName& package)
{
    return PluginNameIn(package.GetName());
}

std::optional<wxString> VersionFieldIn(const wxString& baseName)
{
    const auto withoutSuffix = BeforeLastIn(baseName, L'.');
    if (!withoutSuffix)
        return std::nullopt;
    const auto withoutBuild = BeforeLastIn(*withoutSuffix, L'-');
    if (!withoutBuild)
        return std::nullopt;
    const std::size_t dash = withoutBuild->rfind(L'-');
    if (dash == wxString::npos || dash + 1 == withoutBuild->length())
        return std::nullopt;
    return withoutBuild->substr(dash + 1);
}

bool VersionAllows(const wxString& baseName)
{
    const auto field = VersionFieldIn(baseName);
    return !field || *field == GateVersion();
}
