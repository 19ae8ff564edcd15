// RecordText.h: foreign text that is safe to show in a line.
#pragma once

#include <string>
#include <string_view>

namespace VelCore {

/// `text` without anything that could end the line, move a cursor or forge a record: control characters, the line
/// and paragraph separators, and bytes that are not UTF-8 are shown as escapes (`\n`, `\r`, `\t`, `\x1b`, `\u2028`).
std::string EscapeControls(std::string_view text);

/// A file name made of an application name: "/" and control characters become "_".
std::string LogFileStem(std::string_view applicationName);

} // namespace VelCore
