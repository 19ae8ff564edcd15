// Looking for return addresses on a stack.
//
// Tested by: unit/tools/kx-crash/StackGuessTest.cpp.

#include "StackGuess.h"

namespace {

const std::size_t kMostFrames = 64;
const std::uint64_t kMostBytes = 65536;

} // namespace

std::vector<StackFrame> GuessFrames(const CrashDump& dump, const DumpedThread& thread)
{
    std::vector<StackFrame> frames;
    const std::uint64_t first = thread.context.rsp & ~std::uint64_t{7};
    for (std::uint64_t offset = 0; offset < kMostBytes && frames.size() < kMostFrames; offset += 8) {
        const auto word = dump.WordAt(first + offset);
        if (!word)
            break;
        if (dump.ModuleAt(*word))
            frames.push_back({*word, {}, {}});
    }
    return frames;
}
