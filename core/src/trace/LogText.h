// LogText.h: text from outside as a record of the framework's log.
#pragma once

#include <string_view>

#include <wx/log.h>

namespace VelCore {

/// Logs `text` as it is, whatever it holds: per cent signs, and NUL, at which the framework would cut it.
///
/// text  UTF-8, or any bytes
void LogText(wxLogLevel level, std::string_view text);

} // namespace VelCore
