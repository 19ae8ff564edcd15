// VersionFile.h: the companion file that says which agent version an extension was built for.
#pragma once

#include <optional>

#include <wx/string.h>

class wxInputStream;

/// The numbers of a version line that are compared. The build number is none of them.
struct VersionNumbers
{
    int major;
    int minor;
    int patch;
};

/// The text behind the first line that begins with "version:", at the first column and in lower case; nothing when no
/// line does. Lines end with a line feed, a carriage return, or both.
std::optional<wxString> FindVersionLine(wxInputStream& in);

/// Reads `major.minor.patch-build`. White space before a number is skipped, a sign and leading zeros are accepted, and
/// whatever follows the build number is ignored. Nothing when the text has another form, or when one of the numbers
/// that are compared is no `int`; the build number may have any number of digits.
std::optional<VersionNumbers> ParseVersion(const wxString& text);
