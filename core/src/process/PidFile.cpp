// Reading, judging and writing pid files.
//
// Tested by: unit/core/process/PidFileTest.cpp, blackbox/test_daemon.py.

#include <VelCore/PidFile.h>

#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <wx/log.h>

#include <VelCore/Utf8.h>

#include "process/Descriptors.h"
#include "process/PidText.h"
#include "process/ProcessInfo.h"

namespace VelCore {
namespace {

const mode_t kMode = 0644;

// Start times are told in hundredths of a second, and file times may lag by as much.
const std::int64_t kClockGrainMs = 20;

std::int64_t ModificationMillis(const struct stat& status)
{
    return static_cast<std::int64_t>(status.st_mtim.tv_sec) * 1000 + status.st_mtim.tv_nsec / 1000000;
}

// Whether the number has passed to a process that has nothing to do with the file.
bool IsReused(pid_t process, const struct stat& file)
{
    const auto start = ProcessStartMillis(process);
    if (!start || *start <= ModificationMillis(file) + kClockGrainMs)
        return false;
    if (process == getpid())
        return true;
    const auto theirs = ProcessExecutable(process);
    const auto ours = ProcessExecutable(getpid());
    return theirs && ours && *theirs != *ours;
}

bool WriteWhole(int descriptor, const std::string& text)
{
    return fchmod(descriptor, kMode) == 0 && WriteAll(descriptor, text) == text.size();
}

// A new file beside `path`, with a short name so that the longest of names can be replaced as well.
int MakeTemporary(const std::string& path, std::vector<char>& name)
{
    const std::string pattern = path.substr(0, path.find_last_of('/') + 1) + ".pid.XXXXXX";
    name.assign(pattern.begin(), pattern.end());
    name.push_back('\0');
    return mkstemp(name.data());
}

bool Report(const std::string& path, int error)
{
    wxLogSysError(error, L"Unable to write pid file '%s'", FromUtf8(path));
    return false;
}

} // namespace

int ReadPidFile(const wxString& path)
{
    // A fifo must not block, and a link is not followed.
    const int descriptor = open(ToUtf8(path).c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0)
        return 0;
    char text[4096]; // a file that fills it holds more than a number
    struct stat status = {};
    const bool isFile = fstat(descriptor, &status) == 0 && S_ISREG(status.st_mode);
    const ssize_t length = isFile ? read(descriptor, text, sizeof text) : -1;
    close(descriptor);
    if (length < 0 || static_cast<std::size_t>(length) == sizeof text)
        return 0;

    const int process = ParsePid({text, static_cast<std::size_t>(length)});
    return process != 0 && IsReused(process, status) ? 0 : process;
}

bool WritePidFile(const wxString& path)
{
    const std::string target = ToUtf8(path);
    std::vector<char> temporary;
    const int descriptor = MakeTemporary(target, temporary);
    if (descriptor < 0)
        return Report(target, errno);

    const bool written = WriteWhole(descriptor, std::to_string(getpid()) + "\n");
    const int error = errno;
    close(descriptor);
    if (written && rename(temporary.data(), target.c_str()) == 0)
        return true;
    const int reason = written ? errno : error;
    unlink(temporary.data());
    return Report(target, reason);
}

} // namespace VelCore
