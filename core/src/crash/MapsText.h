// MapsText.h: the mappings of a process, from the text in which Linux shows them.
#pragma once

#include <string_view>

#include "crash/ProcessSnapshot.h"

namespace VelCore {

/// Adds a row for each line of the text. Lines that are no mapping are skipped. The mark of a file that was removed
/// meanwhile is not part of its path.
///
/// Shape:  `7f00-7f80 r-xp 00001000 08:01 1234    /usr/lib/x.so (deleted)`, numbers hexadecimal, inode decimal.
/// Memory: allocates nothing; the paths point into the text.
/// Source: proc(5), "/proc/[pid]/maps".
void ReadMappings(std::string_view text, SnapshotMappings& mappings);

} // namespace VelCore
