// CommandWords.h: splitting the arguments of a program.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VelCore {

/// The words of `text`: separated by blanks and tabulators; within single or double quotes both are kept, and the
/// quotes themselves go. Nothing else has a meaning. Nothing when a quote is not closed.
std::optional<std::vector<std::string>> SplitCommandWords(std::string_view text);

} // namespace VelCore
