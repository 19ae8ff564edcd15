// Linux: /proc.
//
// Source: proc(5), "/proc/[pid]/stat" and "/proc/[pid]/exe"; time_namespaces(7).
// Tested by: unit/core/process/ProcessInfoTest.cpp.

#include "process/ProcessInfo.h"

#include <ctime>
#include <fstream>
#include <sstream>

#include <climits>
#include <unistd.h>

namespace VelCore {
namespace {

// The start time is field 22 of the file; behind the name, which may hold anything, the fields begin with number 3.
const int kFieldsBeforeStart = 22 - 3;

std::string ProcFile(pid_t process, const char* name)
{
    return "/proc/" + std::to_string(process) + "/" + name;
}

std::int64_t Millis(clockid_t clock)
{
    std::timespec now{};
    clock_gettime(clock, &now);
    return static_cast<std::int64_t>(now.tv_sec) * 1000 + now.tv_nsec / 1000000;
}

} // namespace

std::optional<std::int64_t> ProcessStartMillis(pid_t process)
{
    std::ifstream file(ProcFile(process, "stat"), std::ios::binary);
    std::ostringstream content;
    content << file.rdbuf();
    const std::string text = content.str();
    const std::size_t nameEnd = text.rfind(')');
    if (nameEnd == std::string::npos)
        return std::nullopt;

    std::istringstream fields(text.substr(nameEnd + 1));
    std::string skipped;
    for (int field = 0; field < kFieldsBeforeStart; ++field)
        fields >> skipped;
    std::int64_t ticks = 0;
    if (!(fields >> ticks))
        return std::nullopt;

    const std::int64_t sinceBoot = ticks * 1000 / sysconf(_SC_CLK_TCK);
    return Millis(CLOCK_REALTIME) - Millis(CLOCK_BOOTTIME) + sinceBoot;
}

std::optional<std::string> ProcessExecutable(pid_t process)
{
    char target[PATH_MAX];
    const ssize_t length = readlink(ProcFile(process, "exe").c_str(), target, sizeof target);
    if (length <= 0)
        return std::nullopt;
    std::string path(target, static_cast<std::size_t>(length));
    const std::string mark = " (deleted)";
    if (path.size() > mark.size() && path.compare(path.size() - mark.size(), mark.size(), mark) == 0)
        path.erase(path.size() - mark.size());
    return path;
}

} // namespace VelCore
