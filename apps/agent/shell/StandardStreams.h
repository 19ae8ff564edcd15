// StandardStreams.h: what the agent itself writes to the standard streams.
#pragma once

#include <wx/string.h>

/// Opens /dev/null in place of each standard descriptor that the caller has closed, so that no file that is opened
/// later receives messages.
void OpenStandardDescriptors();

/// Writes `text` to standard error as UTF-8, after everything that was printed to standard output so far.
///
/// The bytes are written narrow: a wide character would orient C's stream, which would then swallow what Lua writes to
/// it.
void WriteStandardError(const wxString& text);

/// Closes every descriptor but the standard three that the caller of the program has left open. What this process opens
/// itself is close-on-exec, and what it was started with cannot be, so the two are told apart by that.
void CloseInheritedDescriptors();
