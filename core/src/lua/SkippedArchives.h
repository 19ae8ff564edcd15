// SkippedArchives.h: the archives that NoteSkippedArchive was told of.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace VelCore {

/// Path and reason of each, in the order in which they were first noted; UTF-8.
std::vector<std::pair<std::string, std::string>> SkippedArchives();

} // namespace VelCore
