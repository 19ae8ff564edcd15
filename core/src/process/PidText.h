// PidText.h: the content of a pid file.
#pragma once

#include <string_view>

namespace VelCore {

/// The number, when `text` is exactly one positive decimal number up to 2^31-1, followed by a line feed or by nothing;
/// else 0.
int ParsePid(std::string_view text);

} // namespace VelCore
