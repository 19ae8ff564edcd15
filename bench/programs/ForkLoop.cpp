// The least that a supervisor can be: forks, executes the program, waits for its end, and starts again.
//
// SIGTERM ends the program, and then the loop.
//
// Usage: ForkLoop PROGRAM [ARGUMENT...]

#include <cerrno>
#include <csignal>
#include <cstdio>

#include <sys/wait.h>
#include <unistd.h>

namespace {

volatile std::sig_atomic_t g_isStopped = 0;
volatile pid_t g_child = 0;

void Stop(int)
{
    g_isStopped = 1;
    if (g_child > 0)
        kill(g_child, SIGTERM);
}

void MaskStop(int how)
{
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    sigprocmask(how, &stop, nullptr);
}

// Not inside the fork: a stop must find the child that it is for.
bool StartChild(char** command)
{
    MaskStop(SIG_BLOCK);
    const pid_t child = g_isStopped ? -1 : fork();
    if (child == 0) {
        std::signal(SIGTERM, SIG_DFL);
        MaskStop(SIG_UNBLOCK);
        execv(command[0], command);
        _exit(127);
    }
    g_child = child;
    MaskStop(SIG_UNBLOCK);
    return child > 0;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2) {
        std::fputs("usage: ForkLoop PROGRAM [ARGUMENT...]\n", stderr);
        return 2;
    }
    struct sigaction action = {};
    action.sa_handler = Stop;
    sigaction(SIGTERM, &action, nullptr);

    while (StartChild(argv + 1)) {
        while (waitpid(g_child, nullptr, 0) < 0 && errno == EINTR) {
        }
        g_child = 0;
    }
    return 0;
}
