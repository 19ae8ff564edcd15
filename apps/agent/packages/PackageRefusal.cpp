// Warnings about packages and removal markers.
//
// Tested by: unit/agent/packages/PackageRefusalTest.cpp.

#include "packages/PackageRefusal.h"

wxString VersionMismatchWarning(const wxString& path)
{
    return wxString::Format(L"Plugin file '%s' does not match VEL core version, not installing", path);
}

wxString NotReadableWarning(const wxString& path)
{
    return wxString::Format(L"Plugin file '%s' isn't readable", path);
}
