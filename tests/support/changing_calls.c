/* Preloaded into the agent by tests: its calls that change files are counted, and one of them goes wrong.
 *
 *   TEST_CHANGE=N           the N-th call, counted over all threads from the start of the process, is not carried out
 *   TEST_CHANGE_ERROR=E     it fails with the error number E; without this, the process is killed in its place
 *   TEST_CHANGE_LIST=FILE   the names of the calls, one a line in their order, that one included
 *
 * A call changes files when it creates, writes, renames, removes or syncs something in a file system.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdarg.h>
#include <stdatomic.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/types.h>
#include <sys/uio.h>
#include <unistd.h>

static void List(const char *name)
{
    const char *path = getenv("TEST_CHANGE_LIST");
    char line[64];
    int list;

    if (!path)
        return;
    /* Past the functions below. */
    list = (int)syscall(SYS_openat, AT_FDCWD, path, O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    strcat(strcpy(line, name), "\n");
    if (list < 0 || syscall(SYS_write, list, line, strlen(line)) != (long)strlen(line))
        abort();
    syscall(SYS_close, list);
}

/* Whether the call, which is about to be made, is to fail; errno is set then. */
static int GoesWrong(const char *name)
{
    static atomic_int calls = 0;
    const char *number = getenv("TEST_CHANGE");
    const char *error = getenv("TEST_CHANGE_ERROR");
    const int call = ++calls;

    List(name);
    if (!number || call != atoi(number))
        return 0;
    if (!error) {
        kill(getpid(), SIGKILL);
        for (;;)
            pause();
    }
    errno = atoi(error);
    return 1;
}

static int IsFile(int descriptor)
{
    struct stat status;

    return fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
}

/* The function of the C library that has this function's name. */
#define NEXT(type) ((type)dlsym(RTLD_NEXT, __func__))

#define CHANGES(result, name, parameters, arguments)             \
    result name parameters                                       \
    {                                                            \
        if (GoesWrong(#name))                                    \
            return -1;                                           \
        return NEXT(result(*) parameters) arguments;             \
    }

#define WRITES(name, parameters, arguments)                      \
    ssize_t name parameters                                      \
    {                                                            \
        if (IsFile(descriptor) && GoesWrong(#name))              \
            return -1;                                           \
        return NEXT(ssize_t(*) parameters) arguments;            \
    }

#define OPENS(name, parameters, arguments)                       \
    int name parameters                                          \
    {                                                            \
        mode_t mode;                                             \
        va_list more;                                            \
        va_start(more, flags);                                   \
        mode = flags & O_CREAT ? va_arg(more, mode_t) : 0;       \
        va_end(more);                                            \
        if ((flags & (O_CREAT | O_TRUNC)) && GoesWrong(#name))   \
            return -1;                                           \
        return NEXT(int(*) parameters) arguments;                \
    }

OPENS(open, (const char *path, int flags, ...), (path, flags, mode))
OPENS(open64, (const char *path, int flags, ...), (path, flags, mode))
OPENS(openat, (int folder, const char *path, int flags, ...), (folder, path, flags, mode))
OPENS(openat64, (int folder, const char *path, int flags, ...), (folder, path, flags, mode))

WRITES(write, (int descriptor, const void *data, size_t size), (descriptor, data, size))
WRITES(pwrite, (int descriptor, const void *data, size_t size, off_t at), (descriptor, data, size, at))
WRITES(pwrite64, (int descriptor, const void *data, size_t size, off64_t at), (descriptor, data, size, at))
WRITES(writev, (int descriptor, const struct iovec *parts, int count), (descriptor, parts, count))

CHANGES(int, ftruncate, (int descriptor, off_t size), (descriptor, size))
CHANGES(int, ftruncate64, (int descriptor, off64_t size), (descriptor, size))
CHANGES(int, fsync, (int descriptor), (descriptor))
CHANGES(int, fdatasync, (int descriptor), (descriptor))
CHANGES(int, syncfs, (int descriptor), (descriptor))
CHANGES(int, fchmod, (int descriptor, mode_t mode), (descriptor, mode))
CHANGES(int, fchmodat, (int folder, const char *path, mode_t mode, int flags), (folder, path, mode, flags))
CHANGES(int, chmod, (const char *path, mode_t mode), (path, mode))
CHANGES(int, fchown, (int descriptor, uid_t user, gid_t group), (descriptor, user, group))
CHANGES(int, mkdir, (const char *path, mode_t mode), (path, mode))
CHANGES(int, mkdirat, (int folder, const char *path, mode_t mode), (folder, path, mode))
CHANGES(int, rename, (const char *from, const char *to), (from, to))
CHANGES(int, renameat, (int fromFolder, const char *from, int toFolder, const char *to), (fromFolder, from, toFolder, to))
CHANGES(int, link, (const char *from, const char *to), (from, to))
CHANGES(int, linkat, (int fromFolder, const char *from, int toFolder, const char *to, int flags), (fromFolder, from, toFolder, to, flags))
CHANGES(int, symlink, (const char *target, const char *path), (target, path))
CHANGES(int, symlinkat, (const char *target, int folder, const char *path), (target, folder, path))
CHANGES(int, unlink, (const char *path), (path))
CHANGES(int, unlinkat, (int folder, const char *path, int flags), (folder, path, flags))
CHANGES(int, remove, (const char *path), (path))
CHANGES(int, rmdir, (const char *path), (path))
