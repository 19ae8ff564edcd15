// The part of a stack that is kept.
//
// Tested by: unit/core/crash/StackExtentTest.cpp.

#include "crash/StackExtent.h"

#include <algorithm>

namespace VelCore {
namespace {

// What a function may use below the stack pointer without moving it. Source: System V ABI, AMD64, section 3.2.2.
const std::uint64_t kRedZone = 128;

// A function with a large frame that runs out of stack is far below it at its first access.
const std::uint64_t kMostOverrun = 0x100000;

const std::uint64_t kInnermost = 0x80000;
const std::uint64_t kOutermost = 0x10000;

const SnapshotMapping* FindStackMapping(const SnapshotMappings& mappings, std::uint64_t stackPointer)
{
    for (const SnapshotMapping& mapping : mappings) {
        if (mapping.end <= stackPointer || !mapping.isReadable)
            continue;
        return mapping.start <= stackPointer || mapping.start - stackPointer <= kMostOverrun ? &mapping : nullptr;
    }
    return nullptr;
}

} // namespace

StackExtent FindStack(const SnapshotMappings& mappings, std::uint64_t stackPointer)
{
    const SnapshotMapping* const mapping = FindStackMapping(mappings, stackPointer);
    if (!mapping)
        return {};
    const std::uint64_t lowest = stackPointer > kRedZone ? stackPointer - kRedZone : 0;
    const std::uint64_t start = std::max(mapping->start, lowest);
    if (mapping->end - start <= kInnermost + kOutermost)
        return {{start, mapping->end}, {mapping->end, mapping->end}};
    return {{start, start + kInnermost}, {mapping->end - kOutermost, mapping->end}};
}

} // namespace VelCore
