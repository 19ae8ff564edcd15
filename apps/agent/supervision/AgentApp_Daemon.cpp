// CAgentApp: from the process of a command line to a service: the pid file, two forks, the standard streams.
//
// Whoever started the command sees success as soon as the first fork has succeeded; the pid file is the sign of life.
//
// Tested by: blackbox/test_daemon.py, blackbox/test_adoption.py.

#include "AgentApp.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <ctime>

#include <unistd.h>

#include <wx/filename.h>
#include <wx/log.h>

#include <VelCore/Dom.h>
#include <VelCore/PidFile.h>

#include "DomainKeys.h"
#include "shell/StandardStreams.h"
#include "supervision/Signals.h"

namespace {

const int kAdoptionNaps = 50000; // of a tenth of a millisecond

// Ends this process in favour of its child. Returns false in the process that goes on as the caller only when there is
// no child.
//
// What the streams hold is written before there are two of them.
bool LiveOnInChild(const wxString& failure)
{
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child > 0)
        std::exit(EXIT_SUCCESS);
    if (child == 0)
        return true;
    wxLogSysError(errno, L"%s", failure);
    return false;
}

// Waits until `parent` is gone, which takes it a moment, and this process has become a child of whoever takes in
// orphans. A service manager that does so itself looks for its own child behind the pid file: for another's it does not
// wait at a stop, but kills at once. The bound is for a parent that something holds up.
void AwaitAdoption(pid_t parent)
{
    const struct timespec nap = {0, 100000};
    for (int naps = 0; getppid() == parent && naps < kAdoptionNaps; ++naps)
        nanosleep(&nap, nullptr);
}

} // namespace

// Ends the process when another instance runs.
void CAgentApp::RefuseSecondInstance() const
{
    const int pid = VelCore::ReadPidFile(m_pidFile);
    if (pid == 0)
        return;
    if (kill(pid, 0) != 0 && errno == ESRCH) {
        wxLogVerbose(L"%.128s present (pid=%d), but doesn't seem to be running.", m_pidFile, pid);
        return;
    }
    wxLogError(L"%.128s present, exiting", m_pidFile);
    std::exit(EXIT_FAILURE);
}

// Returns in the process that becomes the watchdog; false, with the exit code set, when it cannot be made.
bool CAgentApp::BecomeDaemon(int& exitCode)
{
    m_pidFile = wxString::Format(L"/var/run/%s.pid", GetAppName());
    RefuseSecondInstance();

    // When this process leads the session of a terminal, its end hangs up the terminal, and with it the child, which
    // may not have left yet.
    IgnoreHangup();

    exitCode = -1;
    if (!LiveOnInChild(L"Unable to fork"))
        return false;
    setsid();
    LeaveFolder();
    const pid_t leader = getpid();
    if (!LiveOnInChild(L"Unable to do 2nd fork"))
        return false;

    SilenceStandardStreams();
    CloseInheritedDescriptors();
    // As soon as the file exists, a stop may come.
    PrepareForStop();
    AwaitAdoption(leader);
    VelCore::WritePidFile(m_pidFile);
    return true;
}

// The daemon must not keep a file system busy that it was only started from. In a locale in which the C library cannot
// write the folder's name, it stays where it is.
void CAgentApp::LeaveFolder() const
{
    const wxString work = m_dom->GetWxString(DomainKeys::kPathWork);
    const wxCharBuffer folder = work.mb_str(wxConvLibc);
    if (chdir(folder.data() ? folder.data() : "") != 0) {
        // Everything that matters has an absolute path.
    }
}

void CAgentApp::SilenceStandardStreams()
{
    const struct
    {
        std::FILE* stream;
        const char* mode;
    } streams[] = {{stdin, "r"}, {stdout, "w"}, {stderr, "w"}};
    for (const auto& row : streams) {
        if (!std::freopen("/dev/null", row.mode, row.stream)) {
            // Nobody is left to be told, and nothing is written there that is not in the log.
        }
    }
}

// A stop may have removed it before, and then another instance may have been started meanwhile: its file stays.
void CAgentApp::RemovePidFile() const
{
    if (!wxFileExists(m_pidFile))
        return;
    const int pid = VelCore::ReadPidFile(m_pidFile);
    const bool isOthers = pid != 0 && pid != getpid() && kill(pid, 0) == 0;
    if (!isOthers)
        wxRemoveFile(m_pidFile);
}
