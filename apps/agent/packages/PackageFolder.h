// PackageFolder.h: what an operator has put beside the executable.
#pragma once

#include <wx/arrstr.h>
#include <wx/string.h>

class wxFileName;

/// The paths of the files in `folder` whose names match `pattern`, sorted by name: the order does not depend on the
/// locale. "*" and "?" are the pattern's special characters, and case counts.
///
/// Everything but folders and links to folders counts as a file, dangling links included. Names that begin with "." are
/// left out, and nothing below the folder is looked at.
///
/// Errors: a folder that cannot be read holds nothing.
wxArrayString ListFiles(const wxFileName& folder, const wxString& pattern);

/// Deletes the files of the agent's core that packages of earlier agents brought along, by their names "Agent-Core*".
///
/// Errors: one record for each file that stays.
void RemoveCoreFiles(const wxFileName& folder);

/// Takes a package that has been installed out of the next run: its new name is its old one with ".done" behind it,
/// in the place of what has that name. Returns false, with errno set, when it keeps its name.
bool RenameToDone(const wxString& path);

/// Removes the name of a file, which may be a link. Returns false, with errno set, when it stays.
bool RemoveName(const wxString& path);
