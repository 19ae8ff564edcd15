// The id of this process, asked for once and again after a fork.
//
// Tested by: unit/core/process/OwnPidTest.cpp.

#include "process/OwnPid.h"

#include <atomic>

#include <pthread.h>
#include <unistd.h>

namespace VelCore {
namespace {

std::atomic<pid_t> g_pid{0};

void Renew()
{
    g_pid = getpid();
}

bool WatchForks()
{
    Renew();
    return pthread_atfork(nullptr, nullptr, Renew) == 0;
}

} // namespace

pid_t OwnPid()
{
    static const bool b_IsRenewed = WatchForks();
    return b_IsRenewed ? g_pid.load(std::memory_order_relaxed) : getpid();
}

} // namespace VelCore
