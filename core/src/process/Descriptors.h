// Descriptors.h: small things that every user of file descriptors needs.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <sys/types.h>

namespace VelCore {

/// Writes all of `bytes`, retrying after interruptions. Returns how many were written; fewer than asked for means an
/// error, which errno names.
std::size_t WriteAll(int descriptor, std::string_view bytes);

/// Creates the folder and its missing parents with `mode`, whatever the umask. Returns whether it exists afterwards;
/// errno tells why not.
bool MakeFolders(const std::string& path, mode_t mode);

} // namespace VelCore
