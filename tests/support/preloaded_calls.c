/* Preloaded into the agent by tests: the clock stands where a test sets it, and system calls fail when they are told to.
 *
 *   TEST_CLOCK=FILE      time() is later by the seconds in the file, a decimal number
 *   TEST_CLOCK_STEP=N    time() is later by N seconds with each call, counted along a process and its ancestors
 *   TEST_FORK=N          the N-th fork() fails with EAGAIN, counted along a process and its ancestors
 *   TEST_WAITPID=ERROR   the first waitpid() fails with ECHILD
 *   TEST_WAITPID=OTHER   the first waitpid() gives 0
 *   TEST_WAITPID=CRASH   waitpid() crashes
 *   TEST_PTRACE=REFUSED  ptrace() fails with EPERM
 *   TEST_SIGWAIT=ERROR   sigwait() fails with EINVAL
 *   TEST_PWRITE=CRASH    pwrite() crashes
 *   TEST_PWRITE=HANG     pwrite() does not return
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/types.h>
#include <time.h>
#include <unistd.h>

static long long SecondsInFile(void)
{
    const char *path = getenv("TEST_CLOCK");
    FILE *file = path ? fopen(path, "re") : NULL;
    long long seconds = 0;

    if (file) {
        if (fscanf(file, "%lld", &seconds) != 1)
            abort();
        fclose(file);
    }
    return seconds;
}

static long long SecondsStepped(void)
{
    static atomic_llong calls = 0;
    const char *step = getenv("TEST_CLOCK_STEP");

    return step ? ++calls * atoll(step) : 0;
}

time_t time(time_t *result)
{
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    now.tv_sec += SecondsInFile() + SecondsStepped();
    if (result)
        *result = now.tv_sec;
    return now.tv_sec;
}

pid_t fork(void)
{
    static int forks = 0;
    const char *failing = getenv("TEST_FORK");

    if (failing && ++forks == atoi(failing)) {
        errno = EAGAIN;
        return -1;
    }
    return ((pid_t(*)(void))dlsym(RTLD_NEXT, "fork"))();
}

pid_t waitpid(pid_t pid, int *status, int options)
{
    static int calls = 0;
    const char *how = getenv("TEST_WAITPID");

    if (how && strcmp(how, "CRASH") == 0)
        __builtin_trap();
    if (how && ++calls == 1) {
        errno = ECHILD;
        return strcmp(how, "ERROR") == 0 ? -1 : 0;
    }
    return ((pid_t(*)(pid_t, int *, int))dlsym(RTLD_NEXT, "waitpid"))(pid, status, options);
}

long ptrace(int request, ...)
{
    va_list arguments;
    va_start(arguments, request);
    const pid_t pid = va_arg(arguments, pid_t);
    void *const address = va_arg(arguments, void *);
    void *const data = va_arg(arguments, void *);
    va_end(arguments);

    if (getenv("TEST_PTRACE")) {
        errno = EPERM;
        return -1;
    }
    return ((long (*)(int, ...))dlsym(RTLD_NEXT, "ptrace"))(request, pid, address, data);
}

int sigwait(const sigset_t *set, int *signal)
{
    if (getenv("TEST_SIGWAIT"))
        return EINVAL;
    return ((int (*)(const sigset_t *, int *))dlsym(RTLD_NEXT, "sigwait"))(set, signal);
}

ssize_t pwrite64(int file, const void *bytes, size_t size, off64_t offset)
{
    const char *how = getenv("TEST_PWRITE");

    if (how && strcmp(how, "CRASH") == 0)
        __builtin_trap();
    if (how && strcmp(how, "HANG") == 0)
        for (;;)
            pause();
    return ((ssize_t(*)(int, const void *, size_t, off64_t))dlsym(RTLD_NEXT, "pwrite64"))(file, bytes, size, offset);
}
