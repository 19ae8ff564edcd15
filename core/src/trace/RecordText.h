// RecordText.h: one log record as one line.
#pragma once

#include <string>
#include <string_view>

#include <wx/string.h>

namespace VelCore {

/// `text` without anything that could end the line, move a cursor or forge a record: control characters, the line
/// and paragraph separators, and bytes that are not UTF-8 are shown as escapes (`\n`, `\r`, `\t`, `\x1b`, `\u2028`).
std::string EscapeControls(std::string_view text);

/// The same behind `out`, which saves a copy.
void AppendEscaped(std::string_view text, std::string& out);
void AppendEscaped(const wxString& text, std::string& out);

/// A file name made of an application name: "/" and control characters become "_".
std::string LogFileStem(std::string_view applicationName);

} // namespace VelCore
