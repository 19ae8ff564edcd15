// InstallPaths.h: the folders that follow from where the executable is.
#pragma once

#include <wx/string.h>

class wxFileName;

/// Folders of the installation, without trailing separators.
struct InstallPaths
{
    wxString bin;    ///< of the executable
    wxString lib;    ///< `<bin>/lib`
    wxString vendor; ///< the parent of `bin` when the vendor's word is part of its path, else `bin`
};

/// executable  absolute and normalised
InstallPaths FindInstallPaths(const wxFileName& executable);
