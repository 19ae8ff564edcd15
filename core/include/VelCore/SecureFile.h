// SecureFile.h: access rights of what the agent keeps on disk.
#pragma once

#include <wx/string.h>

namespace VelCore {

/// Makes a folder or a regular file the agent's own: owner is the effective user, folders get 0700, files 0600. With
/// `recursive`, everything below a folder as well.
///
/// Never follows a symbolic link: a link given as `path` is refused, one found below is left as it is, and so are
/// fifos, sockets and devices.
///
/// Errors:  false, after an error-level record for each thing that could not be secured; the rest is done.
/// Threads: any.
bool SecureFileOrDirectory(const wxString& path, bool recursive);

} // namespace VelCore
