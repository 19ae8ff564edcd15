// ZipSpec.h: entries of a search list.
#pragma once

#include <wx/string.h>

/// Whether `text` is a pattern: it holds "*" or "?".
bool IsWildcard(const wxString& text);

/// Appends `entry` to a list whose entries are separated by ";".
void AppendToList(wxString& list, const wxString& entry);
