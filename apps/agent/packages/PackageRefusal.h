// PackageRefusal.h: why a package or removal marker is left alone, in the agent's words.
#pragma once

#include <wx/string.h>

/// For the package at `path`, whose name carries another version than the agent's.
wxString VersionMismatchWarning(const wxString& path);

/// For the package or removal marker at `path`.
wxString NotReadableWarning(const wxString& path);
