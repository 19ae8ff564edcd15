// A program run to its end, with its output.
//
// Tested by: unit/core/process/ExecuteTest.cpp.

#include <VelCore/Execute.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>

#include <fcntl.h>
#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <VelCore/Utf8.h>

#include "process/ChildProcess.h"
#include "process/CommandWords.h"

namespace VelCore {
namespace {

const std::size_t kKeptOutput = std::size_t{1024} * 1024;

// How often to look whether the program has ended while somebody else keeps its output open. Without such a helper the
// end of the output comes at once, and nothing is looked for.
const int kLookMs = 50;

const std::size_t kPipeCapacity = 65536;

// Both ends of a pipe, closed with the scope.
struct CPipe
{
    CPipe()
    {
        if (pipe(ends) != 0)
            return;
        for (const int end : ends)
            fcntl(end, F_SETFD, FD_CLOEXEC);
        fcntl(ends[0], F_SETFL, O_NONBLOCK);
    }
    ~CPipe()
    {
        CloseEnd(0);
        CloseEnd(1);
    }
    CPipe(const CPipe&) = delete;
    CPipe& operator=(const CPipe&) = delete;

    void CloseEnd(int which)
    {
        if (ends[which] >= 0)
            close(ends[which]);
        ends[which] = -1;
    }

    int ends[2] = {-1, -1};
};

enum class Output {
    More,
    Waiting, // nothing more at the moment
    Ended,
};

// Reads once. A helper may write faster than we read, so there need not be an end to it.
Output ReadSome(int descriptor, std::string& output)
{
    char buffer[65536];
    const ssize_t length = read(descriptor, buffer, sizeof buffer);
    if (length > 0) {
        const std::size_t room = kKeptOutput - output.size();
        output.append(buffer, std::min(room, static_cast<std::size_t>(length)));
    }
    if (length < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
        return Output::Waiting;
    return length > 0 ? Output::More : Output::Ended;
}

// What the program has written before its end and nobody has read yet; a pipe holds no more than this.
void ReadRest(int descriptor, std::string& output)
{
    const std::size_t most = output.size() + kPipeCapacity;
    while (output.size() < most && ReadSome(descriptor, output) == Output::More && output.size() < kKeptOutput) {
    }
}

// Collects output until the program has ended. Returns its wait status; -1 with errno set on failure.
int Collect(pid_t child, int descriptor, std::string& output)
{
    using Clock = std::chrono::steady_clock;
    const auto pause = std::chrono::milliseconds(kLookMs);
    Clock::time_point nextLook = Clock::now() + pause;
    for (Output state = Output::More; state != Output::Ended; state = ReadSome(descriptor, output)) {
        struct pollfd source = {descriptor, POLLIN, 0};
        if (state == Output::Waiting)
            poll(&source, 1, kLookMs);
        if (Clock::now() < nextLook)
            continue;
        nextLook = Clock::now() + pause;
        int status = 0;
        if (waitpid(child, &status, WNOHANG) == child) {
            ReadRest(descriptor, output);
            return status;
        }
    }
    return WaitForChild(child);
}

// Fills in the result of a program that has run.
bool Judge(int status, unsigned long& code, wxString& error)
{
    if (WIFSIGNALED(status)) {
        const int signal = WTERMSIG(status);
        const char* name = strsignal(signal);
        code = 128UL + static_cast<unsigned long>(signal);
        error.Printf(L"killed by signal %d (%s)", signal, FromUtf8(name ? name : "Unknown Signal"));
        return false;
    }
    code = static_cast<unsigned long>(WEXITSTATUS(status));
    if (code != 0)
        error.Printf(L"exited with status %lu", code);
    return code == 0;
}

bool CannotStart(const wxString& program, const char* reason, wxString& error)
{
    error.Printf(L"cannot start %s: %s", program, FromUtf8(reason));
    return false;
}

} // namespace

bool Execute(const wxString& program, const wxString& arguments, wxString& output, unsigned long& code, wxString& error)
{
    output.clear();
    error.clear();
    code = 0;

    auto words = SplitCommandWords(ToUtf8(arguments));
    if (!words)
        return CannotStart(program, "a quote in its arguments is not closed", error);
    words->insert(words->begin(), ToUtf8(program));

    CPipe pipe;
    if (pipe.ends[0] < 0)
        return CannotStart(program, std::strerror(errno), error);
    const pid_t child = SpawnProgram(*words, pipe.ends[1]);
    if (child < 0)
        return CannotStart(program, std::strerror(errno), error);
    pipe.CloseEnd(1);

    std::string bytes;
    const int status = Collect(child, pipe.ends[0], bytes);
    output = FromUtf8(bytes);
    if (status == -1) {
        error.Printf(L"cannot wait for %s: %s", program, FromUtf8(std::strerror(errno)));
        return false;
    }
    return Judge(status, code, error);
}

} // namespace VelCore
