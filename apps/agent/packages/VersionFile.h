// VersionFile.h: the companion file that says which agent version an extension was built for.
#pragma once

#include <optional>

#include <wx/string.h>

class wxInputStream;

/// The four numbers of a version line. The build number takes no part in any comparison.
struct VersionNumbers
{
    int major;
    int minor;
    int patch;
    int build;
};

/// The text behind the first line that begins with "version:", at the first column and in lower case; nothing when no
/// line does. Lines end with a line feed, a carriage return, or both.
std::optional<wxString> FindVersionLine(wxInputStream& in);

/// Reads `major.minor.patch-build`. White space before a number is skipped, a sign and leading zeros are accepted, and
/// whatever follows the build number is ignored. Nothing when the text has another form, or a number is no `int`.
std::optional<VersionNumbers> ParseVersion(const wxString& text);
