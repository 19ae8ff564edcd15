// Writing records past the log, whose locks and memory may be in any state.
//
// Tested by: unit/core/crash/CrashLogTest.cpp, blackbox/test_crash_dumps.py.

#include "crash/CrashLog.h"

#include <atomic>
#include <cerrno>
#include <climits>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <VelCore/Clock.h>

#include "crash/SharedText.h"
#include "crash/TextBuffer.h"
#include "process/Descriptors.h"
#include "time/CivilTime.h"
#include "trace/LogLock.h"

namespace VelCore {
namespace {

SharedText<PATH_MAX> g_path;
std::atomic<std::int64_t> g_utcOffset{0};

// A thread of the crashed process may have been stopped while it held the lock. Appends are whole without it, too.
const int kLockAttempts = 500; // of a tenth of a millisecond

const int kShowPatienceMs = 100;

// A pipe that can be written takes as much at once. Source: POSIX, _POSIX_PIPE_BUF.
const std::size_t kWithoutBlocking = 512;

void AddStamp(CTextBuffer& line)
{
    const CivilTime now = CivilTimeOf(TimeNowMillis() / 1000 + g_utcOffset.load());
    line.AddPadded(now.year, 4).Add("-").AddPadded(now.month, 2).Add("-").AddPadded(now.day, 2).Add(" ");
    line.AddPadded(now.hour, 2).Add(":").AddPadded(now.minute, 2).Add(":").AddPadded(now.second, 2);
}

int OpenLog(const char* path)
{
    return open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0600);
}

void MakeFolderOf(char* path)
{
    char* const slash = std::strrchr(path, '/');
    if (!slash)
        return;
    *slash = '\0';
    mkdir(path, 0700);
    *slash = '/';
}

bool IsOurs(int file)
{
    struct stat status = {};
    return fstat(file, &status) == 0 && S_ISREG(status.st_mode) && status.st_uid == geteuid();
}

void AppendToLog(std::string_view line)
{
    char path[PATH_MAX + 1] = {};
    CTextBuffer(path, PATH_MAX).Add(g_path.Get());
    if (path[0] == '\0')
        return;
    int file = OpenLog(path);
    if (file < 0 && errno == ENOENT) {
        MakeFolderOf(path);
        file = OpenLog(path);
    }
    if (file < 0)
        return;
    if (IsOurs(file)) {
        LockLog(file, kLockAttempts);
        WriteAll(file, line);
    }
    close(file);
}

// Nobody may be reading what is at the other end, and the process is to die at once.
void Show(std::string_view line)
{
    struct pollfd writable = {STDERR_FILENO, POLLOUT, 0};
    while (!line.empty() && poll(&writable, 1, kShowPatienceMs) == 1 && (writable.revents & POLLOUT) != 0) {
        const std::string_view part = line.substr(0, kWithoutBlocking);
        if (WriteAll(STDERR_FILENO, part) < part.size())
            return;
        line.remove_prefix(part.size());
    }
}

} // namespace

void SetCrashLogPath(std::string_view path)
{
    g_path.Set(path);
}

void SetCrashUtcOffset(std::int64_t seconds)
{
    g_utcOffset.store(seconds);
}

void WriteCrashRecord(pid_t process, std::string_view text)
{
    static char memory[16384];
    CTextBuffer line(memory, sizeof memory - 1);
    AddStamp(line);
    line.Add(" [").AddNumber(process).Add("] Error: ").AddEscaped(text);
    const std::size_t length = line.Text().size();
    memory[length] = '\n';
    AppendToLog({memory, length + 1});
    Show({memory, length + 1});
}

} // namespace VelCore
