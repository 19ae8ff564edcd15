// A program run to its end, with its output.
//
// Tested by: unit/core/process/ExecuteTest.cpp.

#include <VelCore/Execute.h>

#include <algorithm>
#include <cerrno>
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

const std::size_t kKeptOutput = 1024 * 1024;

// How often to look whether the program has ended while somebody else keeps its output open. Without such a helper the
// end of the output comes at once, and nothing is looked for.
const int kLookMs = 50;

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
    Waiting, // nothing more at the moment
    Ended,
};

// Reads what there is.
Output Drain(int descriptor, std::string& output)
{
    char buffer[16384];
    for (;;) {
        const ssize_t length = read(descriptor, buffer, sizeof buffer);
        if (length > 0) {
            const std::size_t room = kKeptOutput - output.size();
            output.append(buffer, std::min(room, static_cast<std::size_t>(length)));
        } else if (length == 0) {
            return Output::Ended;
        } else if (errno != EINTR) {
            return errno == EAGAIN || errno == EWOULDBLOCK ? Output::Waiting : Output::Ended;
        }
    }
}

// Collects output until the program has ended. Returns its wait status; -1 with errno set on failure.
int Collect(pid_t child, int descriptor, std::string& output)
{
    struct pollfd source = {descriptor, POLLIN, 0};
    while (Drain(descriptor, output) == Output::Waiting) {
        int status = 0;
        const int ready = poll(&source, 1, kLookMs);
        if (ready == 0 && waitpid(child, &status, WNOHANG) == child) {
            Drain(descriptor, output); // what came between the look and the end
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
