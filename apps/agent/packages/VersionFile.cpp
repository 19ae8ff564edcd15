// The version line of an extension.
//
// Tested by: unit/agent/packages/VersionFileTest.cpp, fuzz/VersionFileFuzz.cpp.

#include "packages/VersionFile.h"

#include <cwchar>
#include <limits>

#include <wx/txtstrm.h>

namespace {

bool IsInt(long value)
{
    return value >= std::numeric_limits<int>::min() && value <= std::numeric_limits<int>::max();
}

} // namespace

std::optional<wxString> FindVersionLine(wxInputStream& in)
{
    wxTextInputStream text(in, L" \t", wxConvAuto());
    while (in.IsOk() && !in.Eof()) {
        const wxString line = text.ReadLine();
        wxString rest;
        if (line.StartsWith(L"version:", &rest))
            return rest;
    }
    return std::nullopt;
}

std::optional<VersionNumbers> ParseVersion(const wxString& text)
{
    // Scanned wider than int, so that a number that does not fit is seen instead of cut.
    long major = 0;
    long minor = 0;
    long patch = 0;
    long build = 0; // has to be there, and may be any number: a time stamp, say
    if (std::swscanf(text.wc_str(), L"%ld.%ld.%ld-%ld", &major, &minor, &patch, &build) != 4)
        return std::nullopt;
    if (!IsInt(major) || !IsInt(minor) || !IsInt(patch))
        return std::nullopt;
    return VersionNumbers{static_cast<int>(major), static_cast<int>(minor), static_cast<int>(patch)};
}
