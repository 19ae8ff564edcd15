// The folders of an installation.
//
// Tested by: unit/agent/shell/InstallPathsTest.cpp.

#include "shell/InstallPaths.h"

#include <wx/filename.h>

namespace {

const wchar_t* const kVendorWord = L"Quenvar";

wxString VendorFolder(const wxFileName& executable)
{
    wxFileName parent(executable);
    if (parent.GetDirCount() >= 2) {
        parent.RemoveLastDir();
        if (parent.GetPath(wxPATH_GET_VOLUME).Contains(kVendorWord))
            return parent.GetPath(wxPATH_GET_VOLUME);
    }
    return executable.GetPath(wxPATH_GET_VOLUME);
}

} // namespace

InstallPaths FindInstallPaths(const wxFileName& executable)
{
    wxFileName lib(executable);
    lib.AppendDir(L"lib");
    return {executable.GetPath(wxPATH_GET_VOLUME), lib.GetPath(wxPATH_GET_VOLUME), VendorFolder(executable)};
}
