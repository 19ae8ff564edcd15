// StackExtent.h: which part of a thread's stack goes into a dump.
#pragma once

#include <cstdint>

#include "crash/ProcessSnapshot.h"

namespace VelCore {

struct AddressRange
{
    std::uint64_t start;
    std::uint64_t end;

    bool IsEmpty() const { return start == end; }
};

struct StackExtent
{
    AddressRange innermost; // from the stack pointer on
    AddressRange outermost; // the end of a stack that is too deep to be kept whole; else empty
};

/// The stack that the stack pointer points into. A pointer that has run over the lower end, by up to 1 MiB, still finds
/// it; any other that points nowhere gives nothing. Stacks grow downwards.
StackExtent FindStack(const SnapshotMappings& mappings, std::uint64_t stackPointer);

} // namespace VelCore
