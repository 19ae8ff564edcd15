// StackFrame.h: one call on a thread's stack.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct StackFrame
{
    std::uint64_t address;
    std::string function; // empty when not known
    std::string source;   // `file:line`; empty when not known
};

/// The calls of a thread, the innermost first.
struct StackTrace
{
    std::vector<StackFrame> frames;
    bool isGuess = false;    // all but the first are words of the stack: return addresses, perhaps of calls long gone
    bool isCutShort = false; // there are more, but nothing tells how to find them
};
