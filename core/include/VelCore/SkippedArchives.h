// SkippedArchives.h: archives that were left out of the search for Lua modules.
#pragma once

#include <wx/string.h>

namespace VelCore {

/// Remembers that an archive is not in `app.lua.zippath`, and why, so that the message of a failed `require` can name
/// it. The last reason counts; an archive that is searched all the same is not named.
///
/// path    as a message shall show it
/// reason  a phrase without a full stop: "it has no '.version' file"
///
/// Threads: any.
void NoteSkippedArchive(const wxString& path, const wxString& reason);

} // namespace VelCore
