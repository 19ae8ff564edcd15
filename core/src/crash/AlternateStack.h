// AlternateStack.h: where a thread handles the overflow of its stack.
#pragma once

#include <cstddef>

namespace VelCore {

/// Gives the calling thread a stack for signal handlers, until the object goes. A thread that has one keeps it.
///
/// Errors: without memory there is none; an overflow then ends the process without a dump.
class CAlternateStack
{
public:
    CAlternateStack();
    ~CAlternateStack();
    CAlternateStack(const CAlternateStack&) = delete;
    CAlternateStack& operator=(const CAlternateStack&) = delete;

private:
    void* m_memory = nullptr;
};

} // namespace VelCore
