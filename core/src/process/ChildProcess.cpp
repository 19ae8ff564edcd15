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
        AddFlags(POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
    }

    void OwnGroup()
    {
        posix_spawnattr_setpgroup(&m_attributes, 0);
        AddFlags(POSIX_SPAWN_SETPGROUP);
    }

    void Redirect(ChildDescriptor redirected)
    {
        if (redirected.ours >= 0)
            posix_spawn_file_actions_adddup2(&m_actions, redirected.ours, redirected.childs);
    }

    // Also those that a library has opened without thinking of us. glibc 2.34 and Solaris 11.4 have the call.
    void CloseFrom(int descriptor) { posix_spawn_file_actions_addclosefrom_np(&m_actions, descriptor); }

    const posix_spawn_file_actions_t* Actions() const { return &m_actions; }
    const posix_spawnattr_t* Attributes() const { return &m_attributes; }

private:
    void AddFlags(int flags)
    {
        short current = 0;
        posix_spawnattr_getflags(&m_attributes, &current);
        posix_spawnattr_setflags(&m_attributes, static_cast<short>(current | flags));
    }

    posix_spawn_file_actions_t m_actions{};
    posix_spawnattr_t m_attributes{};
};

// A child's process id; -1 with errno set.
pid_t Spawn(const char* program, char* const* arguments, const CSpawnSettings& settings)
{
    pid_t child = -1;
    const int error = posix_spawn(&child, program, settings.Actions(), settings.Attributes(), arguments, environ);
    if (error == 0)
        return child;
    errno = error;
    return -1;
}

} // namespace

pid_t SpawnShell(const char* command, ChildDescriptor redirected)
{
    CSpawnSettings settings;
    settings.CleanSignals();
    settings.Redirect(redirected);

    char shell[] = "sh";
    char option[] = "-c";
    char* const arguments[] = {shell, option, const_cast<char*>(command), nullptr};
    return Spawn("/bin/sh", arguments, settings);
}

pid_t SpawnProgram(const std::vector<std::string>& words, int output)
{
    CSpawnSettings settings;
    settings.CleanSignals();
    settings.OwnGroup();
    for (const int descriptor : {STDOUT_FILENO, STDERR_FILENO})
        settings.Redirect({output, descriptor});
    settings.CloseFrom(STDERR_FILENO + 1);

    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    return Spawn(words.front().c_str(), arguments.data(), settings);
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
