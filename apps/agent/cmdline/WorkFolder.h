// WorkFolder.h: making the folder that holds an instance's data.
#pragma once

#include <wx/string.h>

/// Creates `folder` with all its missing parents, and makes each created level accessible to the agent's user only. A
/// folder that exists keeps its rights.
///
/// Errors: the framework logs what cannot be created; the rest of the start does not depend on it.
void CreateWorkFolder(const wxString& folder);
