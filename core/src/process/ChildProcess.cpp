// posix_spawn with the signal state that a program expects from its parent.
//
// Tested by: unit/core/lua/LuaProcessTest.cpp.

#include "process/ChildProcess.h"

#include <cerrno>
#include <csignal>

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace VelCore {
namespace {

// posix_spawn's two argument objects, destroyed with the scope.
class CSpawnSettings
{
public:
    CSpawnSettings()
    {
        posix_spawn_file_actions_init(&m_actions);
        posix_spawnattr_init(&m_attributes);
    }
    ~CSpawnSettings()
    {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    CSpawnSettings(const CSpawnSettings&) = delete;
    CSpawnSettings& operator=(const CSpawnSettings&) = delete;

    // Signals that we ignore would stay ignored across exec, and the mask is inherited.
    void CleanSignals()
    {
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        posix_spawnattr_setsigdefault(&m_attributes, &all);
        posix_spawnattr_setsigmask(&m_attributes, &none);
        posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }

    void Redirect(ChildDescriptor redirected)
    {
        if (redirected.ours >= 0)
            posix_spawn_file_actions_adddup2(&m_actions, redirected.ours, redirected.childs);
    }

    const posix_spawn_file_actions_t* Actions() const { return &m_actions; }
    const posix_spawnattr_t* Attributes() const { return &m_attributes; }

private:
    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
};

} // namespace

pid_t SpawnShell(const char* command, ChildDescriptor redirected)
{
    CSpawnSettings settings;
    settings.CleanSignals();
    settings.Redirect(redirected);

    char shell[] = "sh";
    char option[] = "-c";
    char* const arguments[] = {shell, option, const_cast<char*>(command), nullptr};
    pid_t child = -1;
    const int error = posix_spawn(&child, "/bin/sh", settings.Actions(), settings.Attributes(), arguments, environ);
    if (error == 0)
        return child;
    errno = error;
    return -1;
}

int WaitForChild(pid_t child)
{
    int status = 0;
    while (waitpid(child, &status, 0) != child) {
        if (errno != EINTR)
            return -1;
    }
    return status;
}

} // namespace VelCore
