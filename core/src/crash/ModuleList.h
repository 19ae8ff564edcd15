// ModuleList.h: the executable and the libraries among the mappings of a process.
#pragma once

#include "crash/ProcessSnapshot.h"

namespace VelCore {

/// Adds a row for each ELF file that is mapped for execution, and for the system's own code ("[vdso]"). What a file
/// says of itself is read from memory, so a file that was replaced on disk does not mislead.
///
/// Memory: allocates nothing.
/// Source: elf(5); the note of type NT_GNU_BUILD_ID.
void FindModules(const SnapshotMappings& mappings, const CProcessMemory& memory, SnapshotModules& modules);

} // namespace VelCore
