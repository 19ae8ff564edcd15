// PidFile.h: the file in which a running service leaves its process id.
#pragma once

#include <wx/string.h>

namespace VelCore {

/// The process id that the file records; 0 when there is no usable file.
///
/// Shape:  one positive decimal number, at most 2^31-1, and at most one line feed. Everything else reads as 0, and so
///         does whatever is no regular file, a symbolic link included.
/// A number whose process started after the file was written is a reused one, as after a restart of the system or of a
/// container; it reads as 0 when that process runs another executable than the caller, or is the caller. Where the
/// system does not tell, the process counts as the recorded one.
int ReadPidFile(const wxString& path);

/// Writes the id of the calling process, creating or replacing the file.
///
/// The file appears under its name in one step, so a reader never sees half a number. A symbolic link in its place is
/// replaced, not followed.
///
/// Shape:  the decimal number and a line feed; mode 0644.
/// Errors: false, after a system-error record; what was there is then unchanged.
bool WritePidFile(const wxString& path);

} // namespace VelCore
