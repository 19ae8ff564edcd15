// The content of a pid file.
//
// Tested by: unit/core/process/PidTextTest.cpp, fuzz/PidTextFuzz.cpp.

#include "process/PidText.h"

#include <charconv>

namespace VelCore {

int ParsePid(std::string_view text)
{
    if (!text.empty() && text.back() == '\n')
        text.remove_suffix(1);
    int process = 0;
    const auto result = std::from_chars(text.data(), text.data() + text.size(), process);
    const bool isWhole = result.ec == std::errc() && result.ptr == text.data() + text.size();
    return isWhole && process > 0 ? process : 0;
}

} // namespace VelCore
