// Systems without a source of their own: a crash is told, and no dump is written.

#include "crash/ProcessSnapshot.h"

#include <pthread.h>
#include <unistd.h>

namespace VelCore {
namespace {

class CNoMemory final : public CProcessMemory
{
public:
    std::size_t Read(std::uint64_t, void*, std::size_t) const override { return 0; }
};

CNoMemory g_memory;

} // namespace

bool TakeSnapshot(const CrashSite&, ProcessSnapshot&)
{
    return false;
}

const CProcessMemory& SnapshotMemory()
{
    return g_memory;
}

pid_t CurrentThread()
{
    static thread_local char t_mark;
    return static_cast<pid_t>(reinterpret_cast<std::uintptr_t>(&t_mark));
}

pid_t ForkInHandler()
{
    return fork();
}

void AllowInspection() {}

void EndWithParent() {}

void CloseDescriptorsFrom(int first)
{
    const long end = sysconf(_SC_OPEN_MAX);
    for (int descriptor = first; descriptor < end; ++descriptor)
        close(descriptor);
}

void RaiseInThread(int signal)
{
    pthread_kill(pthread_self(), signal);
}

const char* ErrorText(int)
{
    return "see errno.h";
}

} // namespace VelCore
