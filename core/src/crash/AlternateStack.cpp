// A stack for signal handlers, with a guard page below.
//
// Tested by: unit/core/crash/AlternateStackTest.cpp, blackbox/test_crash_dumps.py.

#include "crash/AlternateStack.h"

#include <csignal>

#include <sys/mman.h>
#include <unistd.h>

namespace VelCore {
namespace {

// The registers that the kernel saves there take up to 11 KiB on processors with wide vectors; the handler and the
// process that it forks use some 50 KiB. Only what is used costs memory.
const std::size_t kBytes = 262144;

std::size_t GuardBytes()
{
    return static_cast<std::size_t>(sysconf(_SC_PAGESIZE));
}

} // namespace

CAlternateStack::CAlternateStack()
{
    stack_t present = {};
    if (sigaltstack(nullptr, &present) != 0 || (present.ss_flags & SS_DISABLE) == 0)
        return;
    const std::size_t guard = GuardBytes();
    void* const memory = mmap(nullptr, guard + kBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED)
        return;
    mprotect(memory, guard, PROT_NONE);
    stack_t stack = {};
    stack.ss_sp = static_cast<char*>(memory) + guard;
    stack.ss_size = kBytes;
    if (sigaltstack(&stack, nullptr) == 0)
        m_memory = memory;
    else
        munmap(memory, guard + kBytes);
}

CAlternateStack::~CAlternateStack()
{
    if (!m_memory)
        return;
    stack_t none = {};
    none.ss_flags = SS_DISABLE;
    sigaltstack(&none, nullptr);
    munmap(m_memory, GuardBytes() + kBytes);
}

} // namespace VelCore
