// FileIdentity.h: is a file still the one that had this name?
#pragma once

#include <string>
#include <utility>

#include <sys/types.h>

namespace VelCore {

/// Device and inode; zeros for what does not exist.
using FileIdentity = std::pair<dev_t, ino_t>;

/// What a path stands for; links are not followed.
FileIdentity IdentifyPath(const std::string& path);

/// What an open descriptor stands for.
FileIdentity IdentifyDescriptor(int descriptor);

} // namespace VelCore
