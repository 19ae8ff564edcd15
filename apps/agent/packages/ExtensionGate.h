// ExtensionGate.h: may an extension be put on the search path?
#pragma once

#include <optional>

#include <wx/string.h>

class wxInputStream;

/// Why an extension is left out.
struct ExtensionRefusal
{
    wxString reason;  // a phrase without a full stop: "it has no '.version' file"
    wxString warning; // the line for the log
};

/// The path of the file that says which agent version an extension was built for.
wxString VersionFileOf(const wxString& extensionFile);

/// Judges an extension by its version file: nothing when it may be enabled, which takes this agent's major, minor and
/// patch number.
///
/// extensionFile  as the texts shall show it
/// versionFile    its content; null when there is no such file. One that could not be opened counts as empty.
std::optional<ExtensionRefusal> JudgeExtension(const wxString& extensionFile, wxInputStream* versionFile);
