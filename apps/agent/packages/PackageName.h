// PackageName.h: what the name of a package says.
#pragma once

#include <optional>

#include <wx/string.h>

class wxFileName;

// A base name is a file name without its final extension: "Feature-Sample-11.0.0-1234.x86_64" of
// "Feature-Sample-11.0.0-1234.x86_64.kxp". Every name is some base name, and none is an error.
//
// Source: docs/PACKAGES.md, "Names".

/// The name of the plug-in, "Sample" above: the text between the first and the second "-". Without a second "-" it is
/// all behind the first, and without any "-" the whole base name. May be empty.
wxString PluginNameIn(const wxString& baseName);

/// `PluginNameIn` for a package or removal marker on disk.
wxString getPluginName(const wxFileName& package);

/// The version that the package was built for, "11.0.0" above: from the base name, the last "." with what is behind it
/// is cut off, then the last "-" likewise; the field is behind the last "-" that is left. Nothing when one of these
/// characters is missing, or the field is empty.
///
/// The suffix is needed: without it the cut falls into the version ("Feature-Sample-11.0.0-1234" gives "Sample").
std::optional<wxString> VersionFieldIn(const wxString& baseName);

/// Whether a package of this base name may be installed: its version field is this agent's version to the letter, or
/// there is none, because a name without one promises nothing.
bool VersionAllows(const wxString& baseName);
